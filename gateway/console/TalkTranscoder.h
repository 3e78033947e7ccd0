// Between the browser's audio (16-bit linear samples at 8 kHz, mono) and a
// talking device's codec, one per talk and direction-aware state (G.726
// adapts as it goes). PCMU, PCMA and G.726 at 16 kbit/s are coded with
// spandsp. G.722.1 is a wideband codec no Debian library codes: the console
// does not talk with such a device (usable() is false and the page says so);
// other clients that bring their own coder still can.
#ifndef GATEWAY_TALK_TRANSCODER_H
#define GATEWAY_TALK_TRANSCODER_H

#include <cstdint>
#include <string>
#include <vector>

#include "talk/TalkAudio.h"

struct g711_state_s;
struct g726_state_s;

class TalkTranscoder {
public:
    explicit TalkTranscoder(const TalkCodec& codec);
    ~TalkTranscoder();
    TalkTranscoder(const TalkTranscoder&) = delete;
    TalkTranscoder& operator=(const TalkTranscoder&) = delete;

    bool usable() const { return m_usable; }
    // The browser's samples in the device's codec.
    std::string encode(const int16_t* samples, size_t count);
    // The device's bytes as samples for the browser.
    std::vector<int16_t> decode(const char* bytes, size_t count);

private:
    bool m_usable = false;
    g711_state_s* m_g711 = nullptr;
    g726_state_s* m_encoder726 = nullptr;
    g726_state_s* m_decoder726 = nullptr;
};

// Why the console cannot talk with a device in this codec; "" when it can.
std::string whyConsoleCannotTalk(const TalkCodec& codec);

#endif  // GATEWAY_TALK_TRANSCODER_H
