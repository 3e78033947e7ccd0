// The RTSP status table. A session's status field holds either an HTTP status
// or, while 0..99, an index into this table: the gateway's filter chain may set
// such an index through IConnectContext::SetStatusCode.
#ifndef HTTPWRAPPER_SESSION_RTSPSTATUS_H
#define HTTPWRAPPER_SESSION_RTSPSTATUS_H

namespace HttpWrapper {

struct RtspStatusEntry {
    int code;
    const char* phrase;
};

// Rows 0..42, then the terminator {-1, nullptr} at index 43.
extern const RtspStatusEntry g_rtspStatusTable[44];

// Maps a session status to a status code: 0..99 through the table (indices past
// the table's end give -1), anything else unchanged.
int rtspStatusCode(int status);

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_SESSION_RTSPSTATUS_H
