#include "session/RtspStatus.h"

namespace HttpWrapper {

// "Invalid parameter" and "Option not support" are the gateway's own phrases.
const RtspStatusEntry g_rtspStatusTable[44] = {
    {100, "Continue"},
    {200, "OK"},
    {201, "Created"},
    {250, "Low on Storage Space"},
    {300, "Multiple Choices"},
    {301, "Moved Permanently"},
    {302, "Moved Temporarily"},
    {303, "See Other"},
    {305, "Use Proxy"},
    {400, "Bad Request"},
    {401, "Unauthorized"},
    {402, "Payment Required"},
    {403, "Forbidden"},
    {404, "Not Found"},
    {405, "Method Not Allowed"},
    {406, "Not Acceptable"},
    {407, "Proxy Authentication Required"},
    {408, "Request Timeout"},
    {410, "Gone"},
    {411, "Length Required"},
    {412, "Precondition Failed"},
    {413, "Request Entity Too Large"},
    {414, "Request-URI Too Long"},
    {415, "Unsupported Media Type"},
    {451, "Invalid parameter"},
    {452, "Illegal Conference Identifier"},
    {453, "Not Enough Bandwidth"},
    {454, "Session Not Found"},
    {455, "Method Not Valid In This State"},
    {456, "Header Field Not Valid"},
    {457, "Invalid Range"},
    {458, "Parameter Is Read-Only"},
    {459, "Aggregate Operation Not Allowed"},
    {460, "Only Aggregate Operation Allowed"},
    {461, "Unsupported Transport"},
    {462, "Destination Unreachable"},
    {500, "Internal Server Error"},
    {501, "Not Implemented"},
    {502, "Bad Gateway"},
    {503, "Service Unavailable"},
    {504, "Gateway Timeout"},
    {505, "RTSP Version Not Supported"},
    {551, "Option not support"},
    {-1, nullptr},
};

int rtspStatusCode(int status)
{
    if (status < 0 || status > 99) {
        return status;
    }
    const int entries = static_cast<int>(sizeof g_rtspStatusTable / sizeof g_rtspStatusTable[0]);
    return status < entries ? g_rtspStatusTable[status].code : -1;
}

}  // namespace HttpWrapper
