// The answers the gateway gives the plug-in when it refuses a request: a REST
// error number of the device API (returned from the filter chain or from
// OnOpen; the JSON download form renders it as a ResponseStatus document) and
// a status for the connection context (the XML download form sends it as a
// bare head). Status values below 100 index the plug-in's RTSP status table.
#ifndef GATEWAY_REST_ERRORS_H
#define GATEWAY_REST_ERRORS_H

#include <string>

namespace RestError {
constexpr int kNoMemory = 0x20000001;            // "noMemory"
constexpr int kServiceUnavailable = 0x20000002;  // "serviceUnavailable" (answered 503)
constexpr int kInternalError = 0x30000014;       // "internalError"
constexpr int kNotSupport = 0x40000001;          // "notSupport"
constexpr int kBadAuthorization = 0x40000003;    // "badAuthorization"
constexpr int kInvalidOperation = 0x40000006;    // "invalidOperation"
constexpr int kNoRecord = 0x4000109D;            // "noRecord"
constexpr int kTimeRangeError = 0x400010AC;      // "timeRangeError"
constexpr int kIsoTimeFormatError = 0x400010ED;  // "ISO 8601TimeFormatError"
constexpr int kBadDevIndex = 0x4000A001;         // "badDevIndex"
constexpr int kReachDownloadLimit = 0x4000A009;  // "reachDownloadLimit"
constexpr int kReachTalkLimit = 0x4000118A;      // the plug-in's "too many talks", also one user's
constexpr int kBadParameters = 0x60000001;       // "badParameters"
}  // namespace RestError

// What the plug-in expects from the filter chain for a talk request it is to
// handle itself (a module code of the plug-in, not a REST error).
constexpr int kTalkAccepted = 0x1930844;

namespace RtspStatusIndex {
constexpr int kBadRequest = 9;            // 400
constexpr int kUnauthorized = 10;         // 401
constexpr int kForbidden = 12;            // 403
constexpr int kNotFound = 13;             // 404
constexpr int kInternalServerError = 36;  // 500
constexpr int kServiceUnavailable = 39;   // 503
}  // namespace RtspStatusIndex

// One refusal: what the plug-in reports and what the log says.
struct Refusal {
    int restError = 0;
    int statusIndex = 0;
    std::string reason;
};

#endif  // GATEWAY_REST_ERRORS_H
