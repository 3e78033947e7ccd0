// The gateway's talking devices: which device answers a talk on which
// channel, in which codec, with what audio, and where what its clients say is
// kept. Built once at start; the audio is shared by every talk of a device.
//
// The plug-in names a talk by its channel and the HTTP port of its Host: the
// open, close and audio-link requests reach the filter as
// "/QUMEX/System/TwoWayAudio/channels/<n>?indexType=httpPort&httpPort=<p>"
// with the client and user appended (PluginUrl.h), and the device side then
// as a DESCRIBE of "rtsp://<host>:<p>/dac/talk/<n>/TCP?indexType=httpPort&httpPort=<p>".
// Which talk belongs to whom is TalkOwners'.
#ifndef GATEWAY_TALK_DEVICES_H
#define GATEWAY_TALK_DEVICES_H

#include <memory>
#include <string>
#include <vector>

#include "GatewayConfig.h"
#include "TalkAudio.h"
#include "TalkOwners.h"

class Logger;

struct TalkDevice {
    std::string devIndex;
    std::string name;
    int channel = 0;
    const TalkCodec* codec = nullptr;
    std::shared_ptr<const std::string> audio;  // in the codec, looped
    std::string captureFolder;                 // empty: nothing kept
};

// The media URL the filter gives a talk's device side, and the channel in it (0: none).
std::string makeTalkMediaUrl(const TalkDevice& device);
int talkChannelOfMediaUrl(const std::string& mediaUrl);

// ".../TwoWayAudio/channels/<n>" with anything after a "?": the channel, else 0.
int talkChannelOfUrl(const std::string& url);

// The key of the talk a request names, from the client's part of its URL
// (exactly ".../channels/<n>?indexType=httpPort&httpPort=<p>"); false otherwise.
bool talkKeyOfUrl(const std::string& url, TalkKey& key);
// The key a DESCRIBE names: its URL ends in
// "/dac/talk/<n>/TCP?indexType=httpPort&httpPort=<p>" (whatever Host came before).
bool talkKeyOfDescribe(const std::string& url, TalkKey& key);

// What a talk request's target asks for: "/QUMEX/System/TwoWayAudio/channels/<channel>/"
// followed by one of these, then nothing or a query.
enum class TalkVerb { kNone, kOpen, kClose, kAudioData };
TalkVerb talkVerbOfTarget(const std::string& target, int channel);

class TalkDevices {
public:
    // Loads every talking device's audio; false with a message naming the
    // device and the file.
    bool load(const GatewayConfig& config, Logger& log, std::string& error);

    const TalkDevice* byChannel(int channel) const;
    size_t size() const { return m_devices.size(); }

    TalkOwners& owners() { return m_owners; }

private:
    std::vector<TalkDevice> m_devices;  // not changed after load
    TalkOwners m_owners;
};

#endif  // GATEWAY_TALK_DEVICES_H
