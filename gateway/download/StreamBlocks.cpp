#include "download/StreamBlocks.h"

#include <algorithm>
#include <cstring>

namespace {

void putLittleEndian(unsigned char* at, uint64_t value, int bytes)
{
    for (int i = 0; i < bytes; ++i) {
        at[i] = static_cast<unsigned char>(value >> (8 * i));
    }
}

}  // namespace

std::array<unsigned char, kStreamInfoSize> buildStreamInfo(uint64_t fileLength)
{
    std::array<unsigned char, kStreamInfoSize> info{};
    // Native words: the plug-in reads them back as 32-bit integers of this machine.
    uint32_t high = static_cast<uint32_t>(fileLength >> 32);
    uint32_t low = static_cast<uint32_t>(fileLength);
    memcpy(info.data() + 1612, &high, sizeof(high));
    memcpy(info.data() + 1616, &low, sizeof(low));
    return info;
}

void addRangeRecord(std::array<unsigned char, kStreamInfoSize>& info, const ServedPart& part,
                    const std::string& entityTag)
{
    const size_t kRecord = 1520;
    const size_t kTagSlot = 64;
    memcpy(info.data() + kRecord, "MGBR", 4);
    info[kRecord + 4] = 1;
    info[kRecord + 5] = static_cast<unsigned char>(part.outcome);
    putLittleEndian(info.data() + kRecord + 8, part.first, 8);
    putLittleEndian(info.data() + kRecord + 16, part.last, 8);
    memcpy(info.data() + kRecord + 24, entityTag.data(), std::min(entityTag.size(), kTagSlot));
}

std::array<unsigned char, kStreamHeadSize> buildStreamHead(uint64_t fileLength, int64_t start, int64_t end,
                                                           uint32_t blockSize)
{
    std::array<unsigned char, kStreamHeadSize> head{};
    memcpy(head.data(), "MGRH", 4);
    putLittleEndian(head.data() + 4, 1, 2);
    putLittleEndian(head.data() + 6, kStreamHeadSize, 2);
    putLittleEndian(head.data() + 8, fileLength, 8);
    putLittleEndian(head.data() + 16, static_cast<uint64_t>(start), 8);
    putLittleEndian(head.data() + 24, static_cast<uint64_t>(end), 8);
    putLittleEndian(head.data() + 32, blockSize, 4);
    return head;
}
