// Where the admin endpoint listens: "host:port" with an IPv4 address, or
// "[v6-address]:port". Names are not looked up: what a port is bound to should
// not depend on a resolver at start.
#ifndef GATEWAY_LISTEN_ADDRESS_H
#define GATEWAY_LISTEN_ADDRESS_H

#include <string>

struct ListenAddress {
    std::string host;  // the address alone, without brackets
    int port = 0;
};

// False with a reason when text is not of that form or the port is not 1 to 65535.
bool parseListenAddress(const std::string& text, ListenAddress& address, std::string& error);

// True for 127.0.0.0/8 and ::1: addresses only this host reaches.
bool isLoopbackAddress(const std::string& host);

// Why a listening socket cannot be had at the address (the bind or listen error
// text), or "" when one can: the reason named when the admin server cannot start.
std::string whyCannotListen(const ListenAddress& address);

#endif  // GATEWAY_LISTEN_ADDRESS_H
