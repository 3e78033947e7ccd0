// The two fixed blocks that open every download.
//
// STREAM_INFO (data type 10), 1620 bytes: all zero except the length of the
// recording file at bytes 1612..1619, the high 32-bit word first and then the
// low word, each a native 32-bit word. The plug-in announces that length plus
// 40 to the client, because STREAM_HEAD comes first in the body.
//
// STREAM_HEAD (data type 1), 40 bytes, little-endian, the first bytes of the body:
//   0  4  magic "MGRH"
//   4  2  head version, 1
//   6  2  head length, 40
//   8  8  length of the recording file in bytes
//  16  8  start time of the recording, seconds since 1970-01-01 UTC
//  24  8  end time of the recording, seconds since 1970-01-01 UTC
//  32  4  block size the gateway sends the file in
//  36  4  reserved, 0
#ifndef GATEWAY_STREAM_BLOCKS_H
#define GATEWAY_STREAM_BLOCKS_H

#include <array>
#include <cstddef>
#include <cstdint>

constexpr size_t kStreamInfoSize = 1620;
constexpr size_t kStreamHeadSize = 40;

std::array<unsigned char, kStreamInfoSize> buildStreamInfo(uint64_t fileLength);

std::array<unsigned char, kStreamHeadSize> buildStreamHead(uint64_t fileLength, int64_t start, int64_t end,
                                                           uint32_t blockSize);

#endif  // GATEWAY_STREAM_BLOCKS_H
