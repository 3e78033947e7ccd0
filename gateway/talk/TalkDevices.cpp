#include "talk/TalkDevices.h"

#include <cstdlib>

#include "base/Logger.h"

namespace {

// The channel number at the start of text, or 0; digits only, no sign, no zero.
int leadingChannel(const std::string& text, size_t at, size_t& end)
{
    end = at;
    while (end < text.size() && end - at < 6 && text[end] >= '0' && text[end] <= '9') {
        ++end;
    }
    if (end == at || text[at] == '0') {
        return 0;
    }
    return atoi(text.substr(at, end - at).c_str());
}

}  // namespace

std::string makeTalkMediaUrl(const TalkDevice& device)
{
    return "talk://" + device.devIndex + "/" + std::to_string(device.channel);
}

int talkChannelOfMediaUrl(const std::string& mediaUrl)
{
    if (mediaUrl.compare(0, 7, "talk://") != 0) {
        return 0;
    }
    size_t slash = mediaUrl.rfind('/');
    size_t end = 0;
    int channel = leadingChannel(mediaUrl, slash + 1, end);
    return end == mediaUrl.size() ? channel : 0;
}

int talkChannelOfUrl(const std::string& url)
{
    static const std::string kPrefix = "/QUMEX/System/TwoWayAudio/channels/";
    if (url.compare(0, kPrefix.size(), kPrefix) != 0) {
        return 0;
    }
    size_t end = 0;
    int channel = leadingChannel(url, kPrefix.size(), end);
    return end == url.size() || url[end] == '?' || url[end] == '&' ? channel : 0;
}

namespace {

// "?indexType=httpPort&httpPort=<p>" from at to the end of url: the port, else -1.
int httpPortQuery(const std::string& url, size_t at)
{
    static const std::string kQuery = "?indexType=httpPort&httpPort=";
    if (url.compare(at, kQuery.size(), kQuery) != 0) {
        return -1;
    }
    const size_t digits = at + kQuery.size();
    if (url.size() == digits || url.size() - digits > 5 ||
        url.find_first_not_of("0123456789", digits) != std::string::npos) {
        return -1;
    }
    const int port = atoi(url.c_str() + digits);
    return port <= 65535 ? port : -1;
}

}  // namespace

bool talkKeyOfUrl(const std::string& url, TalkKey& key)
{
    static const std::string kPrefix = "/QUMEX/System/TwoWayAudio/channels/";
    if (url.compare(0, kPrefix.size(), kPrefix) != 0) {
        return false;
    }
    size_t end = 0;
    const int channel = leadingChannel(url, kPrefix.size(), end);
    const int port = channel != 0 ? httpPortQuery(url, end) : -1;
    key = TalkKey(channel, port);
    return port >= 0;
}

bool talkKeyOfDescribe(const std::string& url, TalkKey& key)
{
    static const std::string kMarker = "/dac/talk/";
    static const std::string kTransport = "/TCP";
    const size_t at = url.compare(0, 7, "rtsp://") == 0 ? url.rfind(kMarker) : std::string::npos;
    if (at == std::string::npos) {
        return false;
    }
    size_t end = 0;
    const int channel = leadingChannel(url, at + kMarker.size(), end);
    if (channel == 0 || url.compare(end, kTransport.size(), kTransport) != 0) {
        return false;
    }
    const int port = httpPortQuery(url, end + kTransport.size());
    key = TalkKey(channel, port);
    return port >= 0;
}

TalkVerb talkVerbOfTarget(const std::string& target, int channel)
{
    const std::string prefix = "/QUMEX/System/TwoWayAudio/channels/" + std::to_string(channel) + "/";
    if (channel == 0 || target.compare(0, prefix.size(), prefix) != 0) {
        return TalkVerb::kNone;
    }
    const std::string verb = target.substr(prefix.size(), target.find('?', prefix.size()) - prefix.size());
    if (verb == "open") {
        return TalkVerb::kOpen;
    }
    if (verb == "close") {
        return TalkVerb::kClose;
    }
    return verb == "audioData" ? TalkVerb::kAudioData : TalkVerb::kNone;
}

bool TalkDeviceSet::load(const GatewayConfig& config, Logger& log, std::string& error)
{
    m_devices.clear();
    for (const DeviceConfig& device : config.devices) {
        if (!device.talk.enabled) {
            continue;
        }
        TalkDevice talk;
        talk.devIndex = device.devIndex;
        talk.name = device.name;
        talk.channel = device.talk.channel;
        talk.codec = findTalkCodec(device.talk.codec);
        if (talk.codec == nullptr) {
            error = "device " + device.devIndex + ": unknown talk codec \"" + device.talk.codec + "\"";
            return false;
        }
        auto audio = std::make_shared<std::string>();
        std::string problem;
        if (!loadTalkSource(device.talk.source, *talk.codec, *audio, problem)) {
            error = "device " + device.devIndex + ": " + problem;
            return false;
        }
        talk.audio = audio;
        if (device.talk.capture) {
            talk.captureFolder = config.mediaFolder + "/" + device.folder;
        }
        log.logf(kLogInfo, "device %s talks on channel %d in %s (%s, %.1f s looped)%s%s", device.devIndex.c_str(),
                 talk.channel, talk.codec->name,
                 device.talk.source.empty() ? "built-in tone" : device.talk.source.c_str(),
                 static_cast<double>(audio->size()) / talk.codec->bytesPerSecond,
                 talk.captureFolder.empty() ? "" : ", keeps what it hears in ", talk.captureFolder.c_str());
        m_devices.push_back(talk);
    }
    return true;
}

const TalkDevice* TalkDeviceSet::byChannel(int channel) const
{
    for (const TalkDevice& device : m_devices) {
        if (device.channel == channel) {
            return &device;
        }
    }
    return nullptr;
}

bool TalkDevices::load(const GatewayConfig& config, Logger& log, std::string& error)
{
    auto devices = std::make_shared<TalkDeviceSet>();
    if (!devices->load(config, log, error)) {
        return false;
    }
    replace(std::move(devices));
    return true;
}

std::shared_ptr<const TalkDeviceSet> TalkDevices::current() const
{
    std::lock_guard<std::mutex> guard(m_lock);
    return m_devices;
}

void TalkDevices::replace(std::shared_ptr<const TalkDeviceSet> devices)
{
    std::lock_guard<std::mutex> guard(m_lock);
    m_devices.swap(devices);
}  // the previous set is released here, outside the lock, when nobody else holds it
