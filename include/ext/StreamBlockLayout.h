/*
 * The fixed blocks a gateway sends into a stream besides its data, as both the
 * plug-in and the gateway read and write them. ProtocolWrapper.h names their
 * data types; their layout lives here, once.
 *
 * STREAM_INFO (data type 10), 1620 bytes, zero wherever nothing is said:
 *    300  ...  talk: the codec's name, zero-terminated ASCII ("PCMU", "PCMA", "G7221", "G726-16")
 *   1520   88  download: what is served of a byte range (below); only when the
 *              request carried Download-Range, zero otherwise
 *   1612    4  download: high 32-bit word of the recording file's length, a native word
 *   1616    4  download: low 32-bit word of that length
 * The plug-in announces the file's length plus the stream head's 40 bytes to
 * the client, because the stream head comes first in the body.
 *
 * The range report (little-endian):
 *   1520  4  "MGBR"
 *   1524  1  record version, 1
 *   1525  1  outcome: 0 whole body (If-Range did not match), 1 part, 2 unsatisfiable
 *   1526  2  zero
 *   1528  8  first body byte served (part only)
 *   1536  8  last body byte served (part only)
 *   1544 64  entity tag of the body, quotes included, zero-terminated (at most 63 characters)
 * Byte offsets count in the reply body: the stream head, then the file. The
 * length at 1612 stays the whole file's, so the plug-in knows the body's total
 * length for Content-Range.
 *
 * STREAM_HEAD of a download (data type 1), 40 bytes, little-endian, the first
 * bytes of the body:
 *    0  4  magic "MGRH"
 *    4  2  head version, 1
 *    6  2  head length, 40
 *    8  8  length of the recording file in bytes
 *   16  8  start time of the recording, seconds since 1970-01-01 UTC
 *   24  8  end time of the recording, seconds since 1970-01-01 UTC
 *   32  4  block size the gateway sends the file in
 *   36  4  reserved, 0
 */
#ifndef HPW_EXT_STREAM_BLOCK_LAYOUT_H
#define HPW_EXT_STREAM_BLOCK_LAYOUT_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace StreamBlock {

constexpr size_t kInfoSize = 1620;

constexpr size_t kCodecNameOffset = 300;
constexpr size_t kCodecNameRoom = kInfoSize - kCodecNameOffset;  // what the plug-in reads at most

constexpr size_t kFileLengthHighOffset = 1612;
constexpr size_t kFileLengthLowOffset = 1616;

constexpr size_t kRangeOffset = 1520;
constexpr char kRangeMagic[] = "MGBR";
constexpr size_t kRangeMagicSize = sizeof kRangeMagic - 1;
constexpr unsigned char kRangeVersion = 1;
constexpr size_t kRangeVersionOffset = kRangeOffset + 4;
constexpr size_t kRangeOutcomeOffset = kRangeOffset + 5;
constexpr size_t kRangeFirstOffset = kRangeOffset + 8;
constexpr size_t kRangeLastOffset = kRangeOffset + 16;
constexpr size_t kRangeTagOffset = kRangeOffset + 24;
constexpr size_t kRangeTagSize = 64;
constexpr size_t kRangeEnd = kRangeTagOffset + kRangeTagSize;

constexpr size_t kHeadSize = 40;
constexpr char kHeadMagic[] = "MGRH";
constexpr uint16_t kHeadVersion = 1;
constexpr size_t kHeadVersionOffset = 4;
constexpr size_t kHeadLengthOffset = 6;
constexpr size_t kHeadFileLengthOffset = 8;
constexpr size_t kHeadStartOffset = 16;
constexpr size_t kHeadEndOffset = 24;
constexpr size_t kHeadBlockSizeOffset = 32;
constexpr size_t kHeadReservedOffset = 36;

static_assert(kFileLengthHighOffset + 4 == kFileLengthLowOffset && kFileLengthLowOffset + 4 == kInfoSize,
              "the file length is the block's last eight bytes");
static_assert(kRangeEnd <= kFileLengthHighOffset, "the range report ends before the file length");
static_assert(kCodecNameOffset < kRangeOffset, "a codec name starts before the range report");
static_assert(kHeadReservedOffset + 4 == kHeadSize, "the stream head's fields fill its 40 bytes");

// How much of a block the gateway gave is kept: never more than a block.
inline size_t infoCopyLength(const void* data, int length)
{
    if (data == nullptr || length <= 0) {
        return 0;
    }
    return static_cast<size_t>(length) < kInfoSize ? static_cast<size_t>(length) : kInfoSize;
}

// Native words: the plug-in reads them back as 32-bit integers of the same machine.
inline uint64_t readFileLength(const void* info)
{
    uint32_t high = 0;
    uint32_t low = 0;
    memcpy(&high, static_cast<const unsigned char*>(info) + kFileLengthHighOffset, sizeof high);
    memcpy(&low, static_cast<const unsigned char*>(info) + kFileLengthLowOffset, sizeof low);
    return (static_cast<uint64_t>(high) << 32) | low;
}

inline void writeFileLength(void* info, uint64_t length)
{
    uint32_t high = static_cast<uint32_t>(length >> 32);
    uint32_t low = static_cast<uint32_t>(length);
    memcpy(static_cast<unsigned char*>(info) + kFileLengthHighOffset, &high, sizeof high);
    memcpy(static_cast<unsigned char*>(info) + kFileLengthLowOffset, &low, sizeof low);
}

inline std::string readCodecName(const void* info)
{
    const char* name = static_cast<const char*>(info) + kCodecNameOffset;
    return std::string(name, strnlen(name, kCodecNameRoom));
}

// A longer name is cut so that the block still ends in a zero byte.
inline void writeCodecName(void* info, const char* name)
{
    strncpy(static_cast<char*>(info) + kCodecNameOffset, name, kCodecNameRoom - 1);
}

inline uint64_t readLittleEndian(const void* at, size_t bytes)
{
    const unsigned char* byte = static_cast<const unsigned char*>(at);
    uint64_t value = 0;
    for (size_t i = bytes; i-- > 0;) {
        value = (value << 8) | byte[i];
    }
    return value;
}

inline void writeLittleEndian(void* at, uint64_t value, size_t bytes)
{
    unsigned char* byte = static_cast<unsigned char*>(at);
    for (size_t i = 0; i < bytes; ++i) {
        byte[i] = static_cast<unsigned char>(value >> (8 * i));
    }
}

}  // namespace StreamBlock

#endif  // HPW_EXT_STREAM_BLOCK_LAYOUT_H
