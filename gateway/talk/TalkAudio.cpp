#include "talk/TalkAudio.h"

#include <spandsp.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <vector>

#include "base/RegularFile.h"
#include "talk/WavFile.h"

namespace {

// A device's sound is held in memory for as long as the gateway runs.
constexpr size_t kMaxTalkSourceBytes = 64 * 1024 * 1024;

const TalkCodec kCodecs[] = {
    {"PCMU", 8000, 160, kWavFormatMulaw, ".wav"},  // 20 ms packets
    {"PCMA", 8000, 160, kWavFormatAlaw, ".wav"},
    {"G726-16", 2000, 80, 0, ".g726"},  // 40 ms packets at 16 kbit/s
    {"G7221", 4000, 80, 0, ".g7221"},   // 20 ms frames at 32 kbit/s
};

constexpr int kSampleRate = 8000;

// Linear samples to the codec, with the G.711 and G.726 coders of spandsp.
// G.722.1 is a wideband codec spandsp does not offer: such a device plays a
// raw source file, which is checked before this is reached.
bool encode(const std::vector<int16_t>& samples, const TalkCodec& codec, std::string& out)
{
    std::vector<uint8_t> bytes(samples.size());
    int length = 0;
    if (codec.wavFormatTag != 0) {
        g711_state_t* coder = g711_init(nullptr, codec.wavFormatTag == kWavFormatAlaw ? G711_ALAW : G711_ULAW);
        if (coder == nullptr) {
            return false;
        }
        length = g711_encode(coder, bytes.data(), samples.data(), static_cast<int>(samples.size()));
        g711_free(coder);
    } else if (strcmp(codec.name, "G726-16") == 0) {
        g726_state_t* coder = g726_init(nullptr, 16000, G726_ENCODING_LINEAR, G726_PACKING_LEFT);
        if (coder == nullptr) {
            return false;
        }
        length = g726_encode(coder, bytes.data(), samples.data(), static_cast<int>(samples.size()));
        g726_free(coder);
    } else {
        return false;
    }
    out.assign(reinterpret_cast<const char*>(bytes.data()), static_cast<size_t>(length));
    return true;
}

// Half a second of 440 Hz, half a second of silence: a listener hears at once
// that the device is live and that nothing is lost.
std::vector<int16_t> builtInTone()
{
    std::vector<int16_t> samples(kSampleRate, 0);
    const double pi = std::acos(-1.0);
    for (int i = 0; i < kSampleRate / 2; ++i) {
        samples[i] = static_cast<int16_t>(std::lround(8000.0 * std::sin(2.0 * pi * 440.0 * i / kSampleRate)));
    }
    return samples;
}

bool readRawFile(const std::string& path, std::string& bytes, std::string& error)
{
    return readRegularFile(path, kMaxTalkSourceBytes, bytes, error);
}

}  // namespace

const TalkCodec* findTalkCodec(const std::string& name)
{
    for (const TalkCodec& codec : kCodecs) {
        if (name == codec.name) {
            return &codec;
        }
    }
    return nullptr;
}

bool loadTalkSource(const std::string& path, const TalkCodec& codec, std::string& audio, std::string& error)
{
    const bool wavCodec = codec.wavFormatTag != 0;
    const std::string convert = std::string(" (sox in.wav -r 8000 -c 1 -e ") +
                                (codec.wavFormatTag == kWavFormatAlaw ? "a-law" : "mu-law") + " out.wav)";
    if (path.empty()) {
        if (strcmp(codec.name, "G7221") == 0) {
            error = "a G7221 device needs a source: a raw file of G.722.1 frames";
            return false;
        }
        if (!encode(builtInTone(), codec, audio)) {
            error = std::string("the built-in tone cannot be encoded as ") + codec.name;
            return false;
        }
        return true;
    }
    const bool isWav = path.size() > 4 && path.compare(path.size() - 4, 4, ".wav") == 0;
    if (!isWav) {
        if (wavCodec) {
            error = path + ": a " + codec.name + " device plays a WAV file" + convert;
            return false;
        }
        if (!readRawFile(path, audio, error)) {
            return false;
        }
    } else {
        WavAudio wav;
        if (!readWavFile(path, wav, error)) {
            return false;
        }
        if (wav.channels != 1 || wav.sampleRate != kSampleRate) {
            error = path + ": " + std::to_string(wav.sampleRate) + " Hz, " + std::to_string(wav.channels) +
                    " channel(s); a talking device plays 8000 Hz mono" + convert;
            return false;
        }
        if (wav.formatTag == codec.wavFormatTag && wavCodec) {
            audio = wav.data;
        } else if (wav.formatTag == kWavFormatPcm && wav.bitsPerSample == 16 && strcmp(codec.name, "G7221") != 0) {
            std::vector<int16_t> samples(wav.data.size() / 2);
            memcpy(samples.data(), wav.data.data(), samples.size() * 2);  // little-endian, as the host is
            if (!encode(samples, codec, audio)) {
                error = path + ": cannot be encoded to " + codec.name;
                return false;
            }
        } else {
            error = path + ": format " + std::to_string(wav.formatTag) + " with " + std::to_string(wav.bitsPerSample) +
                    "-bit samples cannot be played as " + codec.name + convert;
            return false;
        }
    }
    if (audio.size() < static_cast<size_t>(codec.packetBytes)) {
        error = path + ": less than one packet of audio";
        return false;
    }
    return true;
}
