// Module error codes of the plug-in: general codes 0x1930800 + n and protocol
// codes 0x1930F40 + n. Every code is named here once; code uses the names.
#ifndef HTTPWRAPPER_FRAME_ERRORCODES_H
#define HTTPWRAPPER_FRAME_ERRORCODES_H

namespace HttpWrapper {

enum ModuleError : int {
    HPW_OK = 0,
    HPW_ERR_RUNTIME_INIT = 0x1930800,     // the runtime did not start
    HPW_ERR_IDENTIFY_LOAD = 0x1930801,    // the identity library could not be loaded
    HPW_ERR_XML_PARSE = 0x1930803,        // a download request's XML body did not parse
    HPW_ERR_NO_MEMORY = 0x1930804,        // an allocation or a buffer post failed
    HPW_ERR_THREAD = 0x1930805,           // a thread (or a socket of a transmitter) could not be made
    HPW_ERR_SOCKET_CREATE = 0x1930806,    // a socket could not be created
    HPW_ERR_ASYNC_QUEUE = 0x1930807,      // completion queue missing or a post to it failed
    HPW_ERR_SOCKET_OPTION = 0x1930808,    // socket option or queue binding failed
    HPW_ERR_IDENTIFY_INIT = 0x1930809,    // the identity library's initialisation failed
    HPW_ERR_PARAM = 0x1930811,            // invalid parameter
    HPW_ERR_IDENTIFY_SYMBOL = 0x1930813,  // an identity library entry point is missing
    HPW_ERR_ADDRESS = 0x1930821,          // an address text could not be converted
    HPW_ERR_BIND = 0x1930822,
    HPW_ERR_CONNECT = 0x1930823,
    HPW_ERR_LISTEN = 0x1930824,
    HPW_ERR_ASYNC_RECV = 0x1930826,         // an asynchronous receive could not be started
    HPW_ERR_ACCEPT = 0x1930827,             // accept failed on the audio listener
    HPW_ERR_IDENTIFY_FINI = 0x1930832,      // the identity library's shutdown failed
    HPW_ERR_NETUTILS = 0x1930836,           // a call into the embedded HTTP server failed
    HPW_ERR_SEMAPHORE = 0x1930838,          // the request semaphore could not be created
    HPW_ERR_TALK_URL = 0x1930844,           // the gateway's answer to an accepted talk request
    HPW_ERR_NO_SINK = 0x193085E,            // no utility sink
    HPW_ERR_NO_FILTER = 0x19308C0,          // no filter chain, or no server sink at conversion
    HPW_ERR_NO_CLIENT = 0x19308C3,          // client side not supported
    HPW_ERR_IDENTIFY_CALL = 0x19308D3,      // the identity library refused init or apply
    HPW_ERR_URL = 0x1930F40,                // server URL unparsable; user name too long
    HPW_ERR_REFUSED_EVENT = 0x1930F41,      // the HTTP server reported an event we refuse
    HPW_ERR_SESSION_INIT = 0x1930F42,       // a new session failed to initialise
    HPW_ERR_SESSION_NOT_FOUND = 0x1930F43,  // a session was not found or not registered
    HPW_ERR_STATUS = 0x1930F44,             // a session is in the wrong state
    HPW_ERR_NOT_SUPPORTED = 0x1930F45,      // method or request type not supported
    HPW_ERR_DOWNLOAD_URL = 0x1930F46,       // the URL of a download request is wrong
    HPW_ERR_AUTH = 0x1930F47,               // authentication challenge sent
    HPW_ERR_RTSP_PARSE = 0x1930F48,         // the RTSP text did not parse
    HPW_ERR_SEND_TIMEOUT = 0x1930F49,       // sending download data timed out
    HPW_ERR_TALK_EXISTS = 0x1930F4A,        // a talk for the same key is already open
    HPW_ERR_TALK_LIMIT = 0x1930F4C,         // the number of talks is at its maximum
    HPW_ERR_RANGE_RECORD = 0x1930F4D,       // the gateway's report of a served range makes no sense
};

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_FRAME_ERRORCODES_H
