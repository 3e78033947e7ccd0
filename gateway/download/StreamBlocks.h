// The two fixed blocks that open every download.
//
// STREAM_INFO carries the length of the recording file and, for a download
// that asked for a byte range (DownloadRange.h), what is served of it;
// STREAM_HEAD opens the body. Their layout: ext/StreamBlockLayout.h.
#ifndef GATEWAY_STREAM_BLOCKS_H
#define GATEWAY_STREAM_BLOCKS_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include <ext/StreamBlockLayout.h>

#include "download/DownloadRange.h"

constexpr size_t kStreamInfoSize = StreamBlock::kInfoSize;
constexpr size_t kStreamHeadSize = StreamBlock::kHeadSize;

std::array<unsigned char, kStreamInfoSize> buildStreamInfo(uint64_t fileLength);

// Adds the report of a ranged download; a longer tag is cut (the plug-in then refuses it).
void addRangeRecord(std::array<unsigned char, kStreamInfoSize>& info, const ServedPart& part,
                    const std::string& entityTag);

std::array<unsigned char, kStreamHeadSize> buildStreamHead(uint64_t fileLength, int64_t start, int64_t end,
                                                           uint32_t blockSize);

#endif  // GATEWAY_STREAM_BLOCKS_H
