// The gateway's talking devices: which device answers a talk on which
// channel, in which codec, with what audio, and where what its clients say is
// kept. Built at start and again by each reload, as a whole new set; the audio
// is shared by every talk of a device.
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
#include <mutex>
#include <string>
#include <vector>

#include "config/GatewayConfig.h"
#include "talk/TalkAudio.h"
#include "talk/TalkOwners.h"

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

// The talking devices of one configuration; not changed once loaded, so any
// thread may read it.
class TalkDeviceSet {
public:
    // Loads every talking device's audio; false with a message naming the
    // device and the file.
    bool load(const GatewayConfig& config, Logger& log, std::string& error);

    const TalkDevice* byChannel(int channel) const;
    size_t size() const { return m_devices.size(); }

private:
    std::vector<TalkDevice> m_devices;
};

// The set the gateway talks with now, and who holds which talk. A reload puts
// a new set here whole; whoever took the previous one keeps it for as long as
// it holds it. A running talk has its own copy of what it plays (TalkStream),
// and its owner stays in owners() across reloads, so a talk whose device is
// removed runs on, and may be closed, until it ends.
class TalkDevices {
public:
    TalkDevices() : m_devices(std::make_shared<const TalkDeviceSet>()) {}

    // Loads the configuration's set and puts it in place; false (nothing
    // changed) with a message naming the device and the file.
    bool load(const GatewayConfig& config, Logger& log, std::string& error);

    std::shared_ptr<const TalkDeviceSet> current() const;
    void replace(std::shared_ptr<const TalkDeviceSet> devices);

    TalkOwners& owners() { return m_owners; }

private:
    mutable std::mutex m_lock;  // guards the pointer, not the set, which never changes
    std::shared_ptr<const TalkDeviceSet> m_devices;
    TalkOwners m_owners;
};

#endif  // GATEWAY_TALK_DEVICES_H
