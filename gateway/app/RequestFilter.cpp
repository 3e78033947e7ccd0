#include "app/RequestFilter.h"

#include "ops/AccessLog.h"
#include "auth/DigestCredentials.h"
#include "app/RequestTarget.h"
#include "download/DownloadResolver.h"
#include "base/Logger.h"
#include "download/PlaybackUri.h"
#include "download/RequestOrigin.h"
#include "base/SteadyClock.h"
#include "ops/StatusBoard.h"
#include "talk/TalkDevices.h"

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
    case RtspStatusIndex::kForbidden:
        return refusal.restError == RestError::kReachTalkLimit ? RefusalReason::kLimit : RefusalReason::kUnauthorized;
    case RtspStatusIndex::kBadRequest: return RefusalReason::kBadRequest;
    case RtspStatusIndex::kServiceUnavailable:
        return refusal.restError == RestError::kReachDownloadLimit ? RefusalReason::kLimit : RefusalReason::kStopping;
    default: return RefusalReason::kNotFound;
    }
}

Refusal unauthorized(const std::string& reason)
{
    return Refusal{RestError::kBadAuthorization, RtspStatusIndex::kUnauthorized, reason};
}

// The user the credentials name, as the Digest reader reads them (the one
// whose response is checked); empty when they cannot be read.
std::string digestUserOf(const std::string& authorization)
{
    DigestCredentials credentials;
    std::string error;
    return parseDigestCredentials(authorization, credentials, error) ? credentials.get("username") : std::string();
}

// Who was refused and what they asked for, as the access log shows it: what
// the client claims (the user its credentials name, the device and recording
// or the channel its own part of the URL names), true or not. The plug-in
// hands the filter downloads and talks only.
AccessEntry askedFor(const std::string& own, const std::string& client, const std::string& user)
{
    AccessEntry asked;
    asked.client = client;
    asked.user = user;
    if (own.compare(0, 7, "rtsp://") == 0) {
        asked.kind = "download";
        PlaybackUri uri;
        std::string error;
        if (parsePlaybackUri(own, uri, error)) {
            asked.device = !uri.deviceIndex.empty() ? uri.deviceIndex
                           : uri.rtspPort != 0      ? uri.host + ":" + std::to_string(uri.rtspPort)
                                                    : std::string();
            asked.recording = uri.param("name");
        }
    } else {
        asked.kind = "talk";
        asked.channel = talkChannelOfUrl(own);
    }
    return asked;
}

}  // namespace

RequestFilter::RequestFilter(const DigestAuthenticator& authenticator, const MediaCatalog& catalog,
                             GatewayMetrics& metrics, StatusBoard& status, Logger& log, FilterLimits limits,
                             TalkDevices* talks, AccessLog* accessLog)
    : m_authenticator(authenticator),
      m_catalog(catalog),
      m_metrics(metrics),
      m_status(status),
      m_log(log),
      m_limits(limits),
      m_talks(talks),
      m_accessLog(accessLog),
      m_throttle(steadySeconds)
{
}

bool RequestFilter::busy(bool isDownload, Refusal& refusal) const
{
    if (m_status.phase() == GatewayPhase::kStopping) {
        refusal = Refusal{RestError::kServiceUnavailable, RtspStatusIndex::kServiceUnavailable,
                          "the gateway is stopping and takes no new work"};
        return true;
    }
    if (isDownload && m_metrics.openDownloads() >= m_limits.maxDownloads) {
        refusal = Refusal{RestError::kReachDownloadLimit, RtspStatusIndex::kServiceUnavailable,
                          std::to_string(m_limits.maxDownloads) + " downloads are open already"};
        return true;
    }
    return false;
}

int RequestFilter::Request(PROTOCOL_FILTER::IProtocolRequest* request, int flags,
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

int RequestFilter::check(PROTOCOL_FILTER::IProtocolRequest* request, PROTOCOL_FILTER::IConnectContext* context)
{
    if (!request || !context || !request->GetProtocolRequestLine()) {
        m_log.logf(kLogError, "filter called without a request or a context");
        return RestError::kInternalError;
    }
    PROTOCOL_FILTER::IProtocolRequestLine* line = request->GetProtocolRequestLine();
    const std::string method = text(line->GetProtocolMethod());
    const std::string url = text(line->GetProtocolURL());
    if (!request->bNeedAuth()) {
        // Only the plug-in's own DESCRIBE of a talk's device side comes without credentials.
        if (method != "DESCRIBE") {
            return refuse(context, method, url, unauthorized("a request without credentials to check"),
                          askedFor(url, std::string(), std::string()));
        }
        return checkTalkDevice(context, url);
    }
    PluginUrl split;
    std::string user;
    Refusal refusal;
    if (!authenticate(request, method, url, split, user, refusal)) {
        // A URL that could not be split is all the client's: its claims are read from the whole.
        return refuse(context, method, url, refusal,
                      askedFor(split.own.empty() ? url : split.own, split.client.address, user));
    }
    noteClient(split.client);
    if (split.own.compare(0, 7, "rtsp://") == 0) {
        return checkDownload(request, context, method, split, user);
    }
    return checkTalk(context, method, split, headValue(request, "Request-Target"), user);
}

bool RequestFilter::authenticate(PROTOCOL_FILTER::IProtocolRequest* request, const std::string& method,
                                 const std::string& url, PluginUrl& split, std::string& user, Refusal& refusal)
{
    const std::string authorization = headValue(request, "Authorization");
    const std::string target = headValue(request, "Request-Target");
    user = digestUserOf(authorization);
    std::string error;
    if (!splitPluginUrl(url, user, split, error)) {
        refusal = unauthorized(error);
        return false;
    }
    if (m_throttle.locked(split.client.address, user)) {
        refusal = unauthorized("user \"" + user + "\" from \"" + split.client.address +
                               "\": too many failed logins, credentials not checked for now");
        return false;
    }
    const AuthDecision auth = m_authenticator.verify(method, authorization, target);
    if (!auth.accepted) {
        const std::string lockedNow = auth.guessed ? m_throttle.failed(split.client.address, user) : std::string();
        if (!lockedNow.empty()) {
            m_log.logf(kLogWarn,
                       "login throttled: %s failed %d times within %lld s; its credentials are not checked "
                       "for %lld s",
                       lockedNow.c_str(), LoginThrottle::kMaxFailures,
                       static_cast<long long>(LoginThrottle::kWindowSeconds),
                       static_cast<long long>(LoginThrottle::kLockSeconds));
        }
        refusal = unauthorized("user \"" + user + "\": " + auth.reason);
        return false;
    }
    if (!requestTargetMatches(target, split.own, error)) {
        refusal = unauthorized(error);
        return false;
    }
    return true;
}

int RequestFilter::checkDownload(PROTOCOL_FILTER::IProtocolRequest* request, PROTOCOL_FILTER::IConnectContext* context,
                                 const std::string& method, const PluginUrl& split, const std::string& user)
{
    PlaybackUri uri;
    std::string error;
    if (!parsePlaybackUri(split.own, uri, error)) {
        return refuse(context, method, split.own,
                      Refusal{RestError::kBadParameters, RtspStatusIndex::kBadRequest, error},
                      askedFor(split.own, split.client.address, user));
    }
    ResolvedDownload download;
    Refusal refusal;
    const std::shared_ptr<const MediaLibrary> library = m_catalog.current();
    if (!resolveDownload(*library, uri, download, refusal) || busy(true, refusal)) {
        return refuse(context, method, split.own, refusal, askedFor(split.own, split.client.address, user));
    }
    const std::string mediaUrl =
        makeMediaUrl(*download.device, *download.recording, headValue(request, "Download-Range"));
    context->SetFilterURL(makeFilterUrl(split.own, RequestOrigin{split.client.address, user}).c_str());
    context->SetMediaURL(mediaUrl.c_str());
    m_log.logf(kLogInfo, "accepted %s from user \"%s\" client \"%s\": %s", method.c_str(), user.c_str(),
               split.client.address.c_str(), mediaUrl.c_str());
    return 0;
}

int RequestFilter::checkTalk(PROTOCOL_FILTER::IConnectContext* context, const std::string& method,
                             const PluginUrl& split, const std::string& target, const std::string& user)
{
    AccessEntry asked = askedFor(split.own, split.client.address, user);
    TalkKey key;
    if (!talkKeyOfUrl(split.own, key)) {
        return refuse(context, method, split.own,
                      Refusal{RestError::kBadParameters, RtspStatusIndex::kBadRequest, "neither a download nor a talk"},
                      asked);
    }
    const int channel = key.first;
    const TalkVerb verb = talkVerbOfTarget(target, channel);
    const std::shared_ptr<const TalkDeviceSet> devices = m_talks != nullptr ? m_talks->current() : nullptr;
    const TalkDevice* device = devices != nullptr ? devices->byChannel(channel) : nullptr;
    const bool runsWithoutDevice = device == nullptr && (verb == TalkVerb::kClose || verb == TalkVerb::kAudioData) &&
                                   m_talks != nullptr && m_talks->owners().running(key);
    if (device == nullptr && !runsWithoutDevice) {
        return refuse(context, method, split.own,
                      Refusal{RestError::kNotSupport, RtspStatusIndex::kNotFound,
                              "no device talks on channel " + std::to_string(channel)},
                      asked);
    }
    asked.device = device != nullptr ? device->devIndex : std::string();
    Refusal refusal;
    const std::string which =
        "the talk on channel " + std::to_string(channel) + " (port " + std::to_string(key.second) + ")";
    if (verb == TalkVerb::kNone) {
        refusal = Refusal{RestError::kBadParameters, RtspStatusIndex::kBadRequest,
                          "request target \"" + target + "\" is no talk request"};
    } else if (verb == TalkVerb::kOpen && !busy(false, refusal)) {
        switch (m_talks->owners().beginOpen(key, TalkRequester{split.client.address, user}, m_limits.maxTalksPerUser)) {
        case TalkOwners::Open::kAccepted: break;
        case TalkOwners::Open::kTaken:
            refusal = Refusal{RestError::kInvalidOperation, RtspStatusIndex::kForbidden, which + " is open already"};
            break;
        case TalkOwners::Open::kUserLimit:
            refusal =
                Refusal{RestError::kReachTalkLimit, RtspStatusIndex::kForbidden,
                        "user \"" + user + "\" holds " + std::to_string(m_limits.maxTalksPerUser) + " talks already"};
            break;
        }
    } else if (verb != TalkVerb::kOpen && !m_talks->owners().mayUse(key, user)) {
        refusal =
            Refusal{RestError::kInvalidOperation, RtspStatusIndex::kForbidden, which + " belongs to another user"};
    }
    if (refusal.restError != 0) {
        return refuse(context, method, split.own, refusal, asked);
    }
    m_log.logf(kLogInfo, "accepted talk %s %s of channel %d (device %s) from user \"%s\" client \"%s\"", method.c_str(),
               target.c_str(), channel, device != nullptr ? device->devIndex.c_str() : "removed by a reload",
               user.c_str(), split.client.address.c_str());
    return kTalkAccepted;
}

int RequestFilter::checkTalkDevice(PROTOCOL_FILTER::IConnectContext* context, const std::string& url)
{
    TalkKey key;
    const bool named = talkKeyOfDescribe(url, key);
    const std::shared_ptr<const TalkDeviceSet> devices = m_talks != nullptr ? m_talks->current() : nullptr;
    const TalkDevice* device = named && devices != nullptr ? devices->byChannel(key.first) : nullptr;
    if (device == nullptr) {
        AccessEntry asked;
        asked.kind = "talk";
        asked.channel = named ? key.first : 0;
        return refuse(context, "DESCRIBE", url,
                      Refusal{RestError::kNotSupport, RtspStatusIndex::kNotFound, "no talking device for this URL"},
                      asked);
    }
    // The sink plays it, for the user whose open is waiting (TalkOwners).
    context->SetFilterURL(url.c_str());
    context->SetMediaURL(makeTalkMediaUrl(*device).c_str());
    return 0;
}

void RequestFilter::noteClient(const ForwardedClient& client)
{
    if (!client.untrusted.empty()) {
        m_log.logf(kLogWarn, "forwarded client address \"%s\" is not an address; untrusted, not used",
                   client.untrusted.c_str());
    }
    m_status.requestAccepted(client.address);
}

int RequestFilter::Response(PROTOCOL_FILTER::IProtocolResponse* response, int flags,
                            PROTOCOL_FILTER::IConnectContext* context)
{
    return 0;
}

int RequestFilter::refuse(PROTOCOL_FILTER::IConnectContext* context, const std::string& method, const std::string& url,
                          const Refusal& refusal, AccessEntry asked)
{
    context->SetStatusCode(refusal.statusIndex);
    context->SetErrorCode(refusal.restError);
    context->SetErrorDescribe(refusal.reason.c_str());
    m_metrics.requestRefused(reasonOf(refusal));
    m_log.logf(kLogWarn, "refused %s %s: %s (0x%08x)", method.c_str(), url.c_str(), refusal.reason.c_str(),
               static_cast<unsigned>(refusal.restError));
    if (m_accessLog != nullptr) {
        asked.time = std::chrono::system_clock::now();
        asked.outcome = std::string("refused_") + refusalReasonName(reasonOf(refusal));
        m_accessLog->recordRefusal(std::move(asked));
    }
    return refusal.restError;
}
