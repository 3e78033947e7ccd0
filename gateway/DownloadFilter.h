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
#include "GatewayMetrics.h"
#include "MediaCatalog.h"
#include "RestErrors.h"

class Logger;
class StatusBoard;
class TalkDevices;

class DownloadFilter : public PROTOCOL_FILTER::IProtocolFilter {
public:
    // Refusals are counted in metrics by reason. While the status board says the
    // gateway is stopping, new downloads and talks are refused so that a proxy
    // tries another gateway. maxDownloads: open downloads at most (see GatewayConfig).
    // talks: the talking devices; without them every talk request is refused.
    DownloadFilter(const DigestAuthenticator& authenticator, const MediaCatalog& catalog, GatewayMetrics& metrics,
                   StatusBoard& status, Logger& log, int maxDownloads, TalkDevices* talks = nullptr);

    // 0 accepts; a refusal returns its REST error number and sets the context's status.
    int Request(PROTOCOL_FILTER::IProtocolRequest* request, int flags,
                PROTOCOL_FILTER::IConnectContext* context) override;
    int Response(PROTOCOL_FILTER::IProtocolResponse* response, int flags,
                 PROTOCOL_FILTER::IConnectContext* context) override;

private:
    int check(PROTOCOL_FILTER::IProtocolRequest* request, PROTOCOL_FILTER::IConnectContext* context);
    int refuse(PROTOCOL_FILTER::IConnectContext* context, const std::string& method, const std::string& url,
               const Refusal& refusal);
    // A refusal when no new work may start now (stopping, or at the limit); false otherwise.
    bool busy(bool isDownload, Refusal& refusal) const;
    // A talk's open, close or audio link (credentials already checked), or its
    // device side (the DESCRIBE); returns what the plug-in expects or a refusal.
    int checkTalk(PROTOCOL_FILTER::IConnectContext* context, const std::string& method, const std::string& url,
                  const std::string& user);
    // The status board learns a valid client address only; other text is logged as untrusted.
    void noteClient(const ForwardedClient& client);

    const DigestAuthenticator& m_authenticator;
    const MediaCatalog& m_catalog;
    GatewayMetrics& m_metrics;
    StatusBoard& m_status;
    Logger& m_log;
    const int m_maxDownloads;
    TalkDevices* m_talks;
};

#endif  // GATEWAY_DOWNLOAD_FILTER_H
