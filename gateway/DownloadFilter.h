// The gateway's filter chain as the plug-in sees it. Every download arrives
// here as an RTSP request: the request line carries the HTTP method and the
// playback URI (with "&clientIP=" and "&username=" appended by the plug-in),
// the "Authorization" head carries the client's raw Digest credentials. The
// filter checks the credentials, finds the recording and tells the plug-in,
// through the connection context, which media URL to open on the server sink.
// A client's byte range comes as one more head, "Download-Range", and travels
// on in the media URL to the sink, which resolves it (DownloadRange.h).
// Two-way audio comes through here too: the talk requests, whose credentials
// are checked the same way, and the device side of each talk.
#ifndef GATEWAY_DOWNLOAD_FILTER_H
#define GATEWAY_DOWNLOAD_FILTER_H

#include <ProtocolFilter.h>

#include "ClientAddress.h"
#include "DigestAuthenticator.h"
#include "MediaLibrary.h"
#include "RestErrors.h"

class Logger;
class StatusBoard;
class TalkDevices;

class DownloadFilter : public PROTOCOL_FILTER::IProtocolFilter {
public:
    // talks: the talking devices; without them every talk request is refused.
    DownloadFilter(const DigestAuthenticator& authenticator, const MediaLibrary& library, StatusBoard& status,
                   Logger& log, TalkDevices* talks = nullptr);

    // 0 accepts; a refusal returns its REST error number and sets the context's status.
    int Request(PROTOCOL_FILTER::IProtocolRequest* request, int flags,
                PROTOCOL_FILTER::IConnectContext* context) override;
    int Response(PROTOCOL_FILTER::IProtocolResponse* response, int flags,
                 PROTOCOL_FILTER::IConnectContext* context) override;

private:
    int check(PROTOCOL_FILTER::IProtocolRequest* request, PROTOCOL_FILTER::IConnectContext* context);
    int refuse(PROTOCOL_FILTER::IConnectContext* context, const std::string& method, const std::string& url,
               const Refusal& refusal);
    // A talk's open, close or audio link (credentials already checked), or its
    // device side (the DESCRIBE); returns what the plug-in expects or a refusal.
    int checkTalk(PROTOCOL_FILTER::IConnectContext* context, const std::string& method, const std::string& url,
                  const std::string& user);
    // The status board learns a valid client address only; other text is logged as untrusted.
    void noteClient(const ForwardedClient& client);

    const DigestAuthenticator& m_authenticator;
    const MediaLibrary& m_library;
    StatusBoard& m_status;
    Logger& m_log;
    TalkDevices* m_talks;
};

#endif  // GATEWAY_DOWNLOAD_FILTER_H
