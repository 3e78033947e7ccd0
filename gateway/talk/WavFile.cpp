#include "talk/WavFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include "base/RegularFile.h"

namespace {

constexpr size_t kMaxWavFileBytes = 64 * 1024 * 1024;

uint32_t readLe32(const std::string& bytes, size_t at)
{
    return static_cast<uint32_t>(static_cast<uint8_t>(bytes[at])) |
           static_cast<uint32_t>(static_cast<uint8_t>(bytes[at + 1])) << 8 |
           static_cast<uint32_t>(static_cast<uint8_t>(bytes[at + 2])) << 16 |
           static_cast<uint32_t>(static_cast<uint8_t>(bytes[at + 3])) << 24;
}

uint16_t readLe16(const std::string& bytes, size_t at)
{
    return static_cast<uint16_t>(static_cast<uint8_t>(bytes[at]) | static_cast<uint8_t>(bytes[at + 1]) << 8);
}

void putLe32(unsigned char* out, uint32_t value)
{
    for (int i = 0; i < 4; ++i) {
        out[i] = static_cast<unsigned char>(value >> (8 * i));
    }
}

void putLe16(unsigned char* out, uint16_t value)
{
    out[0] = static_cast<unsigned char>(value);
    out[1] = static_cast<unsigned char>(value >> 8);
}

// RIFF(4) size(4) WAVE(4) | "fmt " 18 | tag channels rate byteRate align bits cbSize | "fact" 4 samples | "data" size
constexpr size_t kCaptureHeaderSize = 12 + 8 + 18 + 12 + 8;
// The sizes in the header are brought up to date after this much: one second of 8 kHz 8-bit mono.
constexpr uint64_t kHeaderEveryBytes = 8000;

}  // namespace

bool readWavFile(const std::string& path, WavAudio& audio, std::string& error)
{
    std::string bytes;
    if (!readRegularFile(path, kMaxWavFileBytes, bytes, error)) {
        return false;
    }
    if (bytes.size() < 12 || bytes.compare(0, 4, "RIFF") != 0 || bytes.compare(8, 4, "WAVE") != 0) {
        error = path + ": not a WAV file";
        return false;
    }
    bool haveFormat = false, haveData = false;
    for (size_t at = 12; at + 8 <= bytes.size();) {
        const std::string kind = bytes.substr(at, 4);
        const uint64_t size = readLe32(bytes, at + 4);
        const size_t body = at + 8;
        const size_t available = bytes.size() - body;
        if (kind == "fmt " && size >= 16 && available >= 16) {
            audio.formatTag = readLe16(bytes, body);
            audio.channels = readLe16(bytes, body + 2);
            audio.sampleRate = readLe32(bytes, body + 4);
            audio.bitsPerSample = readLe16(bytes, body + 14);
            haveFormat = true;
        } else if (kind == "data") {
            // A writer that stopped early leaves a size past the end: take what is there.
            audio.data = bytes.substr(body, static_cast<size_t>(std::min<uint64_t>(size, available)));
            haveData = true;
        }
        at = body + static_cast<size_t>(std::min<uint64_t>(size + (size & 1), available));
    }
    if (!haveFormat || !haveData) {
        error = path + ": no fmt or data chunk";
        return false;
    }
    return true;
}

CaptureFile::~CaptureFile()
{
    close();
}

bool CaptureFile::open(const std::string& path, uint16_t formatTag, std::string& error)
{
    m_fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (m_fd < 0) {
        error = path + ": " + strerror(errno);
        return false;
    }
    m_path = path;
    m_formatTag = formatTag;
    m_bytes = 0;
    return m_formatTag == 0 || writeHeader();
}

bool CaptureFile::writeHeader()
{
    m_bytesInHeader = m_bytes;
    unsigned char header[kCaptureHeaderSize];
    const uint32_t data = static_cast<uint32_t>(m_bytes);
    const uint32_t padded = data + (data & 1);
    memcpy(header, "RIFF", 4);
    putLe32(header + 4, static_cast<uint32_t>(kCaptureHeaderSize - 8 + padded));
    memcpy(header + 8, "WAVEfmt ", 8);
    putLe32(header + 16, 18);
    putLe16(header + 20, m_formatTag);
    putLe16(header + 22, 1);     // mono
    putLe32(header + 24, 8000);  // samples per second
    putLe32(header + 28, 8000);  // bytes per second: one byte per sample
    putLe16(header + 32, 1);     // block align
    putLe16(header + 34, 8);     // bits per sample
    putLe16(header + 36, 0);     // no extra format bytes
    memcpy(header + 38, "fact", 4);
    putLe32(header + 42, 4);
    putLe32(header + 46, data);  // samples
    memcpy(header + 50, "data", 4);
    putLe32(header + 54, data);
    return pwrite(m_fd, header, sizeof header, 0) == static_cast<ssize_t>(sizeof header);
}

bool CaptureFile::append(const void* data, size_t length)
{
    if (m_fd < 0) {
        return false;
    }
    const off_t at = static_cast<off_t>((m_formatTag != 0 ? kCaptureHeaderSize : 0) + m_bytes);
    // Written on after a short write: only the next one says why (a full disk, the operator's file size limit).
    const char* bytes = static_cast<const char*>(data);
    for (size_t done = 0; done < length;) {
        const ssize_t put = pwrite(m_fd, bytes + done, length - done, at + static_cast<off_t>(done));
        if (put <= 0) {
            return false;
        }
        done += static_cast<size_t>(put);
    }
    m_bytes += length;
    // Sizes written after the data: a reader never sees a size past the samples.
    return m_formatTag == 0 || m_bytes - m_bytesInHeader < kHeaderEveryBytes || writeHeader();
}

bool CaptureFile::close()
{
    if (m_fd < 0) {
        return true;
    }
    // A failure leaves the sizes of a second ago: still a valid file, a shorter one.
    const bool written = m_formatTag == 0 || m_bytesInHeader == m_bytes || writeHeader();
    if (m_formatTag != 0 && (m_bytes & 1) != 0) {
        // RIFF chunks are padded to an even length.
        const char pad = 0;
        if (pwrite(m_fd, &pad, 1, static_cast<off_t>(kCaptureHeaderSize + m_bytes)) != 1) {
            // The file stays valid without the pad byte for every reader we know.
        }
    }
    ::close(m_fd);
    m_fd = -1;
    return written;
}
