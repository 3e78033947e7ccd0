#include "DownloadFilter.h"

#include "DownloadResolver.h"
#include "Logger.h"
#include "PlaybackUri.h"
#include "RequestOrigin.h"
#include "StatusBoard.h"
#include "TalkDevices.h"

namespace {

std::string text(const char* value)
{
    return value ? value : "";
}

std::string headValue(PROTOCOL_FILTER::IProtocolRequest* request, const char* name)
{
    PROTOCOL_FILTER::IProtocolHead* head = request->GetHeadByName(name);
    return head ? text(head->GetHeadValue()) : std::string();
}

RefusalReason reasonOf(const Refusal& refusal)
{
    switch (refusal.statusIndex) {
    case RtspStatusIndex::kUnauthorized: return RefusalReason::kUnauthorized;
    case RtspStatusIndex::kBadRequest: return RefusalReason::kBadRequest;
    case RtspStatusIndex::kServiceUnavailable:
        return refusal.restError == RestError::kReachDownloadLimit ? RefusalReason::kLimit : RefusalReason::kStopping;
    default: return RefusalReason::kNotFound;
    }
}

}  // namespace

DownloadFilter::DownloadFilter(const DigestAuthenticator& authenticator, const MediaCatalog& catalog,
                               GatewayMetrics& metrics, StatusBoard& status, Logger& log, int maxDownloads,
                               TalkDevices* talks)
    : m_authenticator(authenticator),
      m_catalog(catalog),
      m_metrics(metrics),
      m_status(status),
      m_log(log),
      m_maxDownloads(maxDownloads),
      m_talks(talks)
{
}

bool DownloadFilter::busy(bool isDownload, Refusal& refusal) const
{
    if (m_status.phase() == GatewayPhase::kStopping) {
        refusal = Refusal{RestError::kServiceUnavailable, RtspStatusIndex::kServiceUnavailable,
                          "the gateway is stopping and takes no new work"};
        return true;
    }
    if (isDownload && m_metrics.openDownloads() >= m_maxDownloads) {
        refusal = Refusal{RestError::kReachDownloadLimit, RtspStatusIndex::kServiceUnavailable,
                          std::to_string(m_maxDownloads) + " downloads are open already"};
        return true;
    }
    return false;
}

int DownloadFilter::Request(PROTOCOL_FILTER::IProtocolRequest* request, int flags,
                            PROTOCOL_FILTER::IConnectContext* context)
{
    // Nothing may be thrown into the plug-in.
    try {
        return check(request, context);
    } catch (const std::exception& failure) {
        m_log.logf(kLogError, "filter failed: %s", failure.what());
        if (context) {
            context->SetStatusCode(RtspStatusIndex::kInternalServerError);
        }
        return RestError::kInternalError;
    }
}

int DownloadFilter::check(PROTOCOL_FILTER::IProtocolRequest* request, PROTOCOL_FILTER::IConnectContext* context)
{
    if (!request || !context || !request->GetProtocolRequestLine()) {
        m_log.logf(kLogError, "filter called without a request or a context");
        return RestError::kInternalError;
    }
    PROTOCOL_FILTER::IProtocolRequestLine* line = request->GetProtocolRequestLine();
    const std::string method = text(line->GetProtocolMethod());
    const std::string url = text(line->GetProtocolURL());

    AuthDecision auth;
    if (request->bNeedAuth()) {
        auth = m_authenticator.verify(method, headValue(request, "Authorization"));
        std::string mismatch;
        if (auth.accepted && !digestUriMatches(auth.uri, url, mismatch)) {
            auth.accepted = false;
            auth.reason = mismatch;
        }
        if (!auth.accepted) {
            return refuse(context, method, url,
                          Refusal{RestError::kBadAuthorization, RtspStatusIndex::kUnauthorized,
                                  "user \"" + auth.user + "\": " + auth.reason});
        }
    }
    // Two-way audio reaches the filter with a plain path, and its device side
    // as a DESCRIBE of a "/dac/talk/" URL.
    if ((url.compare(0, 7, "rtsp://") != 0 && url.find("/TwoWayAudio/") != std::string::npos) || method == "DESCRIBE") {
        return checkTalk(context, method, url, auth.user);
    }
    PlaybackUri uri;
    std::string error;
    if (!parsePlaybackUri(url, uri, error)) {
        return refuse(context, method, url, Refusal{RestError::kBadParameters, RtspStatusIndex::kBadRequest, error});
    }
    ResolvedDownload download;
    Refusal refusal;
    const std::shared_ptr<const MediaLibrary> library = m_catalog.current();
    if (!resolveDownload(*library, uri, download, refusal) || busy(true, refusal)) {
        return refuse(context, method, url, refusal);
    }
    const std::string mediaUrl =
        makeMediaUrl(*download.device, *download.recording, headValue(request, "Download-Range"));
    ForwardedClient client;
    const std::string requestUrl = splitForwardedClient(url, client);
    context->SetFilterURL(makeFilterUrl(requestUrl, RequestOrigin{client.address, auth.user}).c_str());
    context->SetMediaURL(mediaUrl.c_str());
    noteClient(uri.client);
    m_log.logf(kLogInfo, "accepted %s from user \"%s\" client \"%s\": %s", method.c_str(), auth.user.c_str(),
               uri.client.address.c_str(), mediaUrl.c_str());
    return 0;
}

int DownloadFilter::checkTalk(PROTOCOL_FILTER::IConnectContext* context, const std::string& method,
                              const std::string& url, const std::string& user)
{
    const int channel = method == "DESCRIBE" ? talkChannelOfDescribe(url) : talkChannelOfUrl(url);
    const TalkDevice* device = m_talks != nullptr && channel != 0 ? m_talks->byChannel(channel) : nullptr;
    if (device == nullptr) {
        return refuse(
            context, method, url,
            Refusal{RestError::kNotSupport, RtspStatusIndex::kNotFound,
                    channel == 0 ? "not a talk URL" : "no device talks on channel " + std::to_string(channel)});
    }
    if (method == "DESCRIBE") {
        // The device side of a talk the plug-in accepted: the sink plays it.
        context->SetFilterURL(url.c_str());
        context->SetMediaURL(makeTalkMediaUrl(*device).c_str());
        return 0;
    }
    Refusal refusal;
    if (url.find("/open") != std::string::npos && busy(false, refusal)) {
        return refuse(context, method, url, refusal);
    }
    // Open, close, and the audio links all name the channel alike; who asked
    // last is who the next talk on it belongs to.
    ForwardedClient client;
    splitForwardedClient(url, client);
    m_talks->noteRequester(channel, TalkRequester{client.address, user});
    noteClient(client);
    m_log.logf(kLogInfo, "accepted talk %s of channel %d (device %s) from user \"%s\" client \"%s\"", method.c_str(),
               channel, device->devIndex.c_str(), user.c_str(), client.address.c_str());
    return kTalkAccepted;
}

void DownloadFilter::noteClient(const ForwardedClient& client)
{
    if (!client.untrusted.empty()) {
        m_log.logf(kLogWarn, "forwarded client address \"%s\" is not an address; untrusted, not used",
                   client.untrusted.c_str());
    }
    m_status.requestAccepted(client.address);
}

int DownloadFilter::Response(PROTOCOL_FILTER::IProtocolResponse* response, int flags,
                             PROTOCOL_FILTER::IConnectContext* context)
{
    return 0;
}

int DownloadFilter::refuse(PROTOCOL_FILTER::IConnectContext* context, const std::string& method, const std::string& url,
                           const Refusal& refusal)
{
    context->SetStatusCode(refusal.statusIndex);
    context->SetErrorCode(refusal.restError);
    context->SetErrorDescribe(refusal.reason.c_str());
    m_metrics.requestRefused(reasonOf(refusal));
    m_log.logf(kLogWarn, "refused %s %s: %s (0x%08x)", method.c_str(), url.c_str(), refusal.reason.c_str(),
               static_cast<unsigned>(refusal.restError));
    return refusal.restError;
}
