// Download blocks are reused most recent first, and the pool keeps no more
// than it was told to.
#include <gtest/gtest.h>

#include "download/BlockPool.h"

TEST(BlockPool, ReusesTheWarmestBlockAndKeepsAtMostItsShare)
{
    BlockPool pool(32 * 1024, 2);
    unsigned char* blocks[3] = {pool.acquire(), pool.acquire(), pool.acquire()};
    for (unsigned char* block : blocks) {
        ASSERT_NE(block, nullptr);
        block[32 * 1024 - 1] = 1;  // the whole block is usable
    }
    pool.release(blocks[0]);
    pool.release(blocks[1]);
    pool.release(blocks[2]);  // over the share: returned to the system
    EXPECT_EQ(pool.freeBlocks(), 2u);
    EXPECT_EQ(pool.acquire(), blocks[1]);
    EXPECT_EQ(pool.acquire(), blocks[0]);
    EXPECT_EQ(pool.freeBlocks(), 0u);
    pool.release(blocks[0]);
    pool.release(blocks[1]);
}
