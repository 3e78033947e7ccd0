#include "TalkDevices.h"

#include <cstdlib>

#include "Logger.h"

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

int talkChannelOfDescribe(const std::string& url)
{
    static const std::string kMarker = "/dac/talk/";
    size_t at = url.compare(0, 7, "rtsp://") == 0 ? url.find(kMarker) : std::string::npos;
    if (at == std::string::npos) {
        return 0;
    }
    size_t end = 0;
    int channel = leadingChannel(url, at + kMarker.size(), end);
    return end < url.size() && url[end] == '/' ? channel : 0;
}

bool TalkDevices::load(const GatewayConfig& config, Logger& log, std::string& error)
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

const TalkDevice* TalkDevices::byChannel(int channel) const
{
    for (const TalkDevice& device : m_devices) {
        if (device.channel == channel) {
            return &device;
        }
    }
    return nullptr;
}

void TalkDevices::noteRequester(int channel, const TalkRequester& requester)
{
    std::lock_guard<std::mutex> guard(m_lock);
    m_requesters[channel] = requester;
}

TalkRequester TalkDevices::requester(int channel)
{
    std::lock_guard<std::mutex> guard(m_lock);
    auto found = m_requesters.find(channel);
    return found == m_requesters.end() ? TalkRequester() : found->second;
}
