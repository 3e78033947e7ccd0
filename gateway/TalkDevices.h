// The gateway's talking devices: which device answers a talk on which
// channel, in which codec, with what audio, and where what its clients say is
// kept. Built once at start; the audio is shared by every talk of a device.
//
// The plug-in names a talk by channel only: the open, close and audio-link
// requests reach the filter as ".../TwoWayAudio/channels/<n>" with the client
// and user appended, and the device side then as a DESCRIBE of
// "rtsp://<host>:<port>/dac/talk/<n>/TCP". The filter notes who asked last for
// a channel, and the talk stream opened next on it takes that as its client.
#ifndef GATEWAY_TALK_DEVICES_H
#define GATEWAY_TALK_DEVICES_H

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "GatewayConfig.h"
#include "TalkAudio.h"

class Logger;

struct TalkDevice {
    std::string devIndex;
    std::string name;
    int channel = 0;
    const TalkCodec* codec = nullptr;
    std::shared_ptr<const std::string> audio;  // in the codec, looped
    std::string captureFolder;                 // empty: nothing kept
};

struct TalkRequester {
    std::string client;
    std::string user;
};

// The media URL the filter gives a talk's device side, and the channel in it (0: none).
std::string makeTalkMediaUrl(const TalkDevice& device);
int talkChannelOfMediaUrl(const std::string& mediaUrl);

// ".../TwoWayAudio/channels/<n>" with anything after a "?": the channel, else 0.
int talkChannelOfUrl(const std::string& url);
// "rtsp://.../dac/talk/<n>/...": the channel, else 0.
int talkChannelOfDescribe(const std::string& url);

class TalkDevices {
public:
    // Loads every talking device's audio; false with a message naming the
    // device and the file.
    bool load(const GatewayConfig& config, Logger& log, std::string& error);

    const TalkDevice* byChannel(int channel) const;
    size_t size() const { return m_devices.size(); }

    void noteRequester(int channel, const TalkRequester& requester);
    TalkRequester requester(int channel);

private:
    std::vector<TalkDevice> m_devices;  // not changed after load
    std::mutex m_lock;                  // guards m_requesters
    std::map<int, TalkRequester> m_requesters;
};

#endif  // GATEWAY_TALK_DEVICES_H
