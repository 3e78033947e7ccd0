#include "HandleTable.h"

#include <gtest/gtest.h>

#include <memory>

TEST(HandleTable, NumbersGrowAndWrapAroundPastThoseInUse)
{
    netutils::HandleTable<int> table(1, 4);
    for (int expected = 1; expected <= 4; ++expected) {
        EXPECT_EQ(table.insert(std::make_shared<int>(expected)), expected);
    }
    EXPECT_EQ(table.insert(std::make_shared<int>(0)), -1) << "every number is in use";
    table.remove(3);
    EXPECT_EQ(table.insert(std::make_shared<int>(33)), 3) << "1 and 2 are still held";
    table.remove(1);
    table.remove(4);
    EXPECT_EQ(table.insert(std::make_shared<int>(44)), 4) << "the counter goes on before it wraps";
    EXPECT_EQ(table.insert(std::make_shared<int>(11)), 1);
    EXPECT_EQ(*table.find(3), 33);
    EXPECT_EQ(table.remove(2).use_count(), 1);
    EXPECT_EQ(table.find(2), nullptr);
}
