// Opening a listener of the gateway's own HTTP services (admin endpoint, console).
#ifndef GATEWAY_ACCEPTOR_OPEN_H
#define GATEWAY_ACCEPTOR_OPEN_H

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/error.hpp>

#include "base/ListenAddress.h"

// Opens, binds and listens at `address`; false with `failure` set (the acceptor closed).
// The address is reused so that a restarted gateway binds while its old connections
// linger; never SO_REUSEPORT, which would let a second process share the port.
inline bool openAcceptor(boost::asio::ip::tcp::acceptor& acceptor, const ListenAddress& address,
                         boost::beast::error_code& failure)
{
    const auto host = boost::asio::ip::make_address(address.host, failure);
    if (!failure) {
        const boost::asio::ip::tcp::endpoint endpoint(host, static_cast<unsigned short>(address.port));
        acceptor.open(endpoint.protocol(), failure);
        if (!failure) {
            acceptor.set_option(boost::asio::socket_base::reuse_address(true), failure);
        }
        if (!failure) {
            acceptor.bind(endpoint, failure);
        }
        if (!failure) {
            acceptor.listen(boost::asio::socket_base::max_listen_connections, failure);
        }
    }
    if (failure) {
        boost::beast::error_code ignored;
        acceptor.close(ignored);
        return false;
    }
    return true;
}

#endif  // GATEWAY_ACCEPTOR_OPEN_H
