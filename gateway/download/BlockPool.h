// The block buffers downloads read recordings into, kept for the next download
// instead of being unmapped. Each stream holds one block while it runs; a
// freed block goes to the front of the list and is taken first, so the next
// stream reads into memory that is still in the cache. Unmapping a block on
// every stream's end cost a TLB flush on every core each time, and leaving
// blocks to malloc kept whole bursts of them in its per-thread arenas.
#ifndef GATEWAY_BLOCK_POOL_H
#define GATEWAY_BLOCK_POOL_H

#include <cstddef>
#include <mutex>
#include <vector>

class BlockPool {
public:
    // Blocks of blockSize bytes; at most keep free ones are held for reuse.
    BlockPool(size_t blockSize, size_t keep);
    ~BlockPool();
    BlockPool(const BlockPool&) = delete;
    BlockPool& operator=(const BlockPool&) = delete;

    size_t blockSize() const { return m_blockSize; }
    // A block, or null when memory is short.
    unsigned char* acquire();
    void release(unsigned char* block);
    size_t freeBlocks();

private:
    const size_t m_blockSize;
    const size_t m_keep;
    std::mutex m_lock;
    std::vector<unsigned char*> m_free;  // the most recently freed last
};

#endif  // GATEWAY_BLOCK_POOL_H
