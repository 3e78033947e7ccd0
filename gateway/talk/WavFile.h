// The little of RIFF/WAVE the talking devices need: reading a sound file's
// format and samples, and writing a capture file that is a valid WAV after
// every write, so it plays even when the talk ends without warning.
#ifndef GATEWAY_WAV_FILE_H
#define GATEWAY_WAV_FILE_H

#include <cstdint>
#include <string>

constexpr uint16_t kWavFormatPcm = 1;
constexpr uint16_t kWavFormatAlaw = 6;   // G.711 A-law
constexpr uint16_t kWavFormatMulaw = 7;  // G.711 mu-law

struct WavAudio {
    uint16_t formatTag = 0;
    uint16_t channels = 0;
    uint32_t sampleRate = 0;
    uint16_t bitsPerSample = 0;
    std::string data;  // the data chunk as stored
};

// False with a message naming the file when it is not a WAV with fmt and data chunks.
bool readWavFile(const std::string& path, WavAudio& audio, std::string& error);

// A file that grows by appends, each written at once. With a format tag it is
// a WAV (8 kHz mono, 8-bit samples, a non-PCM fmt chunk and a fact chunk)
// whose sizes are brought up to date once a second of audio has come since
// the last time, and at the close: a player of an unfinished capture hears all
// but its last second, and a packet costs one write, not two. With tag 0 it
// is the raw bytes.
class CaptureFile {
public:
    CaptureFile() = default;
    ~CaptureFile();
    CaptureFile(const CaptureFile&) = delete;
    CaptureFile& operator=(const CaptureFile&) = delete;

    bool open(const std::string& path, uint16_t formatTag, std::string& error);
    // False when the disk refused the bytes (the capture then stops growing).
    bool append(const void* data, size_t length);
    // False when the disk refused the last sizes.
    bool close();
    uint64_t bytes() const { return m_bytes; }
    const std::string& path() const { return m_path; }

private:
    bool writeHeader();

    int m_fd = -1;
    uint16_t m_formatTag = 0;
    uint64_t m_bytes = 0;
    uint64_t m_bytesInHeader = 0;
    std::string m_path;
};

#endif  // GATEWAY_WAV_FILE_H
