// The audio of a talking device: its codec (name, rate and packet size as the
// plug-in and the clients know them) and the sound it plays to a talk's
// client, read from a source file or made as a built-in tone, in that codec.
#ifndef GATEWAY_TALK_AUDIO_H
#define GATEWAY_TALK_AUDIO_H

#include <cstdint>
#include <string>

struct TalkCodec {
    const char* name;  // as the stream header names it: "PCMU", "PCMA", "G726-16", "G7221"
    int bytesPerSecond;
    int packetBytes;        // one packet to the client every packetBytes / bytesPerSecond seconds
    uint16_t wavFormatTag;  // G.711 tag of a capture WAV; 0: captured as raw bytes
    const char* rawExtension;
};

// Null for a name the gateway does not know.
const TalkCodec* findTalkCodec(const std::string& name);

// The device's audio in its codec, ready to loop: the source file, or the
// built-in tone when path is empty. A source is a WAV at 8 kHz mono in G.711
// or 16-bit PCM (encoded here), or, for the codecs that have no WAV form, a
// raw file of that codec's bytes. False with a message naming the file.
bool loadTalkSource(const std::string& path, const TalkCodec& codec, std::string& audio, std::string& error);

#endif  // GATEWAY_TALK_AUDIO_H
