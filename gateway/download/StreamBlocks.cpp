#include "download/StreamBlocks.h"

#include <algorithm>
#include <cstring>

using namespace StreamBlock;

std::array<unsigned char, kStreamInfoSize> buildStreamInfo(uint64_t fileLength)
{
    std::array<unsigned char, kStreamInfoSize> info{};
    writeFileLength(info.data(), fileLength);
    return info;
}

void addRangeRecord(std::array<unsigned char, kStreamInfoSize>& info, const ServedPart& part,
                    const std::string& entityTag)
{
    memcpy(info.data() + kRangeOffset, kRangeMagic, kRangeMagicSize);
    info[kRangeVersionOffset] = kRangeVersion;
    info[kRangeOutcomeOffset] = static_cast<unsigned char>(part.outcome);
    writeLittleEndian(info.data() + kRangeFirstOffset, part.first, 8);
    writeLittleEndian(info.data() + kRangeLastOffset, part.last, 8);
    memcpy(info.data() + kRangeTagOffset, entityTag.data(), std::min(entityTag.size(), kRangeTagSize));
}

std::array<unsigned char, kStreamHeadSize> buildStreamHead(uint64_t fileLength, int64_t start, int64_t end,
                                                           uint32_t blockSize)
{
    std::array<unsigned char, kStreamHeadSize> head{};
    memcpy(head.data(), kHeadMagic, sizeof kHeadMagic - 1);
    writeLittleEndian(head.data() + kHeadVersionOffset, kHeadVersion, 2);
    writeLittleEndian(head.data() + kHeadLengthOffset, kHeadSize, 2);
    writeLittleEndian(head.data() + kHeadFileLengthOffset, fileLength, 8);
    writeLittleEndian(head.data() + kHeadStartOffset, static_cast<uint64_t>(start), 8);
    writeLittleEndian(head.data() + kHeadEndOffset, static_cast<uint64_t>(end), 8);
    writeLittleEndian(head.data() + kHeadBlockSizeOffset, blockSize, 4);
    return head;
}
