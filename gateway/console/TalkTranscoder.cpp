#include "console/TalkTranscoder.h"

#include <spandsp.h>

#include <cstring>

#include "talk/WavFile.h"

TalkTranscoder::TalkTranscoder(const TalkCodec& codec)
{
    if (codec.wavFormatTag != 0) {
        m_g711 = g711_init(nullptr, codec.wavFormatTag == kWavFormatAlaw ? G711_ALAW : G711_ULAW);
        m_usable = m_g711 != nullptr;
    } else if (strcmp(codec.name, "G726-16") == 0) {
        // The packing the gateway's devices use for their own G.726 audio.
        m_encoder726 = g726_init(nullptr, 16000, G726_ENCODING_LINEAR, G726_PACKING_LEFT);
        m_decoder726 = g726_init(nullptr, 16000, G726_ENCODING_LINEAR, G726_PACKING_LEFT);
        m_usable = m_encoder726 != nullptr && m_decoder726 != nullptr;
    }
}

TalkTranscoder::~TalkTranscoder()
{
    if (m_g711) {
        g711_free(m_g711);
    }
    if (m_encoder726) {
        g726_free(m_encoder726);
    }
    if (m_decoder726) {
        g726_free(m_decoder726);
    }
}

std::string TalkTranscoder::encode(const int16_t* samples, size_t count)
{
    std::string out(count, '\0');
    int length = 0;
    if (m_g711) {
        length = g711_encode(m_g711, reinterpret_cast<uint8_t*>(&out[0]), samples, static_cast<int>(count));
    } else if (m_encoder726) {
        length = g726_encode(m_encoder726, reinterpret_cast<uint8_t*>(&out[0]), samples, static_cast<int>(count));
    }
    out.resize(static_cast<size_t>(length > 0 ? length : 0));
    return out;
}

std::vector<int16_t> TalkTranscoder::decode(const char* bytes, size_t count)
{
    // G.726 at 16 kbit/s carries four samples a byte.
    std::vector<int16_t> samples(count * 4);
    int length = 0;
    const auto* in = reinterpret_cast<const uint8_t*>(bytes);
    if (m_g711) {
        length = g711_decode(m_g711, samples.data(), in, static_cast<int>(count));
    } else if (m_decoder726) {
        length = g726_decode(m_decoder726, samples.data(), in, static_cast<int>(count));
    }
    samples.resize(static_cast<size_t>(length > 0 ? length : 0));
    return samples;
}

std::string whyConsoleCannotTalk(const TalkCodec& codec)
{
    if (TalkTranscoder(codec).usable()) {
        return "";
    }
    return std::string("the console has no coder for ") + codec.name +
           " (a wideband codec no library here codes): use a client with its own coder";
}
