// The two fixed blocks that open every download.
//
// STREAM_INFO (data type 10), 1620 bytes: all zero except the length of the
// recording file at bytes 1612..1619, the high 32-bit word first and then the
// low word, each a native 32-bit word. The plug-in announces that length plus
// 40 to the client, because STREAM_HEAD comes first in the body.
//
// A download that asked for a byte range (DownloadRange.h) also gets, in the
// same block, what is served of that body; gateways that know nothing of
// ranges leave these bytes zero, and so does every other download:
//   1520  4  "MGBR"
//   1524  1  record version, 1
//   1525  1  outcome: 0 whole body (If-Range did not match), 1 part, 2 unsatisfiable
//   1526  2  zero
//   1528  8  first body byte served, little-endian (part only)
//   1536  8  last body byte served, little-endian (part only)
//   1544 64  entity tag of the body, quotes included, zero-terminated (at most 63 characters)
// The file length at 1612 stays the whole file's, so the plug-in knows the
// body's total length for Content-Range.
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
#include <string>

#include "download/DownloadRange.h"

constexpr size_t kStreamInfoSize = 1620;
constexpr size_t kStreamHeadSize = 40;

std::array<unsigned char, kStreamInfoSize> buildStreamInfo(uint64_t fileLength);

// Adds the report of a ranged download; a longer tag is cut (the plug-in then refuses it).
void addRangeRecord(std::array<unsigned char, kStreamInfoSize>& info, const ServedPart& part,
                    const std::string& entityTag);

std::array<unsigned char, kStreamHeadSize> buildStreamHead(uint64_t fileLength, int64_t start, int64_t end,
                                                           uint32_t blockSize);

#endif  // GATEWAY_STREAM_BLOCKS_H
