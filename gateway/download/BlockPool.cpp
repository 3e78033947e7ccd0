#include "download/BlockPool.h"

#include <sys/mman.h>

BlockPool::BlockPool(size_t blockSize, size_t keep) : m_blockSize(blockSize), m_keep(keep)
{
    m_free.reserve(keep);
}

BlockPool::~BlockPool()
{
    for (unsigned char* block : m_free) {
        munmap(block, m_blockSize);
    }
}

unsigned char* BlockPool::acquire()
{
    {
        std::lock_guard<std::mutex> guard(m_lock);
        if (!m_free.empty()) {
            unsigned char* block = m_free.back();
            m_free.pop_back();
            return block;
        }
    }
    // Straight from the system: a block is returned to it whole when the pool is full.
    void* block = mmap(nullptr, m_blockSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return block == MAP_FAILED ? nullptr : static_cast<unsigned char*>(block);
}

void BlockPool::release(unsigned char* block)
{
    if (block == nullptr) {
        return;
    }
    {
        std::lock_guard<std::mutex> guard(m_lock);
        if (m_free.size() < m_keep) {
            m_free.push_back(block);
            return;
        }
    }
    munmap(block, m_blockSize);
}

size_t BlockPool::freeBlocks()
{
    std::lock_guard<std::mutex> guard(m_lock);
    return m_free.size();
}
