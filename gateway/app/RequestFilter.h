// The gateway's filter chain as the plug-in sees it. Every download and talk
// request arrives here as an RTSP request: the request line carries the HTTP
// method and the client's playback URI or talk URL with the plug-in's suffix
// (PluginUrl.h), the "Authorization" head the client's raw Digest
// credentials, and "Request-Target" the HTTP request's target. The filter
// checks the credentials (throttling guessers), finds the recording or the
// talk, and tells the plug-in, through the connection context, which media URL
// to open on the server sink. A client's byte range comes as one more head,
// "Download-Range", and travels on in the media URL to the sink, which
// resolves it (DownloadRange.h). The device side of a talk comes as a
// DESCRIBE without credentials, which only the plug-in itself sends.
//
// Every refusal is counted, logged with its cause and, when the gateway keeps
// an access log, written there with what the client claimed: its forwarded
// address, the user its credentials name, the device and recording or the
// channel its URL names (AccessLog.h bounds how many such lines a second).
#ifndef GATEWAY_REQUEST_FILTER_H
#define GATEWAY_REQUEST_FILTER_H

#include <ProtocolFilter.h>

#include "auth/DigestAuthenticator.h"
#include "base/GatewayMetrics.h"
#include "auth/LoginThrottle.h"
#include "media/MediaCatalog.h"
#include "app/PluginUrl.h"
#include "base/RestErrors.h"

class AccessLog;
struct AccessEntry;
class Logger;
class StatusBoard;
class TalkDevices;

// How much work the filter lets in.
struct FilterLimits {
    int maxDownloads = 400;   // open downloads at most (see GatewayConfig)
    int maxTalksPerUser = 4;  // talks one user may hold
};

class RequestFilter : public PROTOCOL_FILTER::IProtocolFilter {
public:
    // Refusals are counted in metrics by reason. While the status board says the
    // gateway is stopping, new downloads and talks are refused so that a proxy
    // tries another gateway. talks: the talking devices; without them every
    // talk request is refused. accessLog: where refusals are written (none: not written).
    RequestFilter(const DigestAuthenticator& authenticator, const MediaCatalog& catalog, GatewayMetrics& metrics,
                  StatusBoard& status, Logger& log, FilterLimits limits, TalkDevices* talks = nullptr,
                  AccessLog* accessLog = nullptr);

    // 0 accepts; a refusal returns its REST error number and sets the context's status.
    int Request(PROTOCOL_FILTER::IProtocolRequest* request, int flags,
                PROTOCOL_FILTER::IConnectContext* context) override;
    int Response(PROTOCOL_FILTER::IProtocolResponse* response, int flags,
                 PROTOCOL_FILTER::IConnectContext* context) override;

private:
    int check(PROTOCOL_FILTER::IProtocolRequest* request, PROTOCOL_FILTER::IConnectContext* context);
    // The credentials, for the user they name and the client the URL names.
    bool authenticate(PROTOCOL_FILTER::IProtocolRequest* request, const std::string& method, const std::string& url,
                      PluginUrl& split, std::string& user, Refusal& refusal);
    int checkDownload(PROTOCOL_FILTER::IProtocolRequest* request, PROTOCOL_FILTER::IConnectContext* context,
                      const std::string& method, const PluginUrl& split, const std::string& user);
    // A talk's open, close or audio link, credentials already checked. A
    // talk that runs may link its audio and be closed even when a reload has
    // taken its channel's device away since it opened.
    int checkTalk(PROTOCOL_FILTER::IConnectContext* context, const std::string& method, const PluginUrl& split,
                  const std::string& target, const std::string& user);
    // The device side of a talk the plug-in accepted (the DESCRIBE).
    int checkTalkDevice(PROTOCOL_FILTER::IConnectContext* context, const std::string& url);
    // asked: who was refused and what they asked for, for the access log.
    int refuse(PROTOCOL_FILTER::IConnectContext* context, const std::string& method, const std::string& url,
               const Refusal& refusal, AccessEntry asked);
    // A refusal when no new work may start now (stopping, or at the limit); false otherwise.
    bool busy(bool isDownload, Refusal& refusal) const;
    // The status board learns a valid client address only; other text is logged as untrusted.
    void noteClient(const ForwardedClient& client);

    const DigestAuthenticator& m_authenticator;
    const MediaCatalog& m_catalog;
    GatewayMetrics& m_metrics;
    StatusBoard& m_status;
    Logger& m_log;
    const FilterLimits m_limits;
    TalkDevices* m_talks;
    AccessLog* m_accessLog;
    LoginThrottle m_throttle;
};

#endif  // GATEWAY_REQUEST_FILTER_H
