#include "mail/sqlite_memory.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "tests/support/memory.h"
#include "tests/support/process.h"

namespace corvo::test {
namespace {

constexpr int LARGEST_IN_A_POOL = 1016;  // bytes, of 1 KiB

struct Free {
    void operator()(unsigned char* block) const { sqlite3_free(block); }
};
using Block = std::unique_ptr<unsigned char, Free>;

Block take(int size) {
    return Block(static_cast<unsigned char*>(sqlite3_malloc(size)));
}

class SqliteMemoryTest : public testing::Test {
protected:
    // False when a test before, in this process, has used SQLite with other memory.
    void SetUp() override { ASSERT_TRUE(mail::poolSqliteMemory()); }
};

TEST_F(SqliteMemoryTest, BlocksHaveTheSizesOfThePools) {
    for (const auto& [asked, got] : std::vector<std::pair<int, std::uint64_t>>{
             {1, 24}, {24, 24}, {25, 56}, {56, 56}, {57, 120}, {1016, 1016}, {1024, 1024}})
        EXPECT_EQ(sqlite3_msize(take(asked).get()), got) << asked;
}

TEST_F(SqliteMemoryTest, BlocksOfAllSizesAreAlignedAndDoNotMeet) {
    std::vector<Block> blocks;
    for (int size = 1; size < 3000; ++size) {
        blocks.push_back(take(size));
        ASSERT_NE(blocks.back(), nullptr);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(blocks.back().get()) % 8, 0U) << size;
        ASSERT_GE(sqlite3_msize(blocks.back().get()), static_cast<std::uint64_t>(size));
        std::memset(blocks.back().get(), size % 251, sqlite3_msize(blocks.back().get()));
    }
    for (const Block& block : blocks) {
        const std::vector<unsigned char> whole(block.get(),
                                               block.get() + sqlite3_msize(block.get()));
        EXPECT_EQ(whole, std::vector<unsigned char>(whole.size(), whole.front()));
    }
}

TEST_F(SqliteMemoryTest, FreedBlockIsGivenToTheNextThatAsksForItsSize) {
    for (const int size : {1, 24, 100, LARGEST_IN_A_POOL}) {
        Block block = take(size);
        const unsigned char* const place = block.get();
        block.reset();
        EXPECT_EQ(take(size).get(), place) << size;
    }
}

TEST_F(SqliteMemoryTest, GrowingKeepsWhatABlockHolds) {
    Block block = take(1);
    *block = 0;
    for (int size = 2; size < 5000; ++size) {
        block.reset(static_cast<unsigned char*>(sqlite3_realloc(block.release(), size)));
        ASSERT_NE(block, nullptr);
        block.get()[size - 1] = static_cast<unsigned char>(size - 1);
    }
    for (int i = 0; i < 4999; ++i)
        ASSERT_EQ(block.get()[i], static_cast<unsigned char>(i)) << i;
}

TEST_F(SqliteMemoryTest, ShrinkingKeepsABlockWhereItIs) {
    for (const int size : {24, LARGEST_IN_A_POOL, 5000}) {
        Block block = take(size);
        *block = 'x';
        unsigned char* const place = block.get();
        block.reset(static_cast<unsigned char*>(sqlite3_realloc(block.release(), 1)));
        EXPECT_EQ(block.get(), place);
        EXPECT_EQ(*block, 'x');
    }
}

TEST_F(SqliteMemoryTest, SaysThatThereIsNoMemory) {
    if (!canExhaustMemory())
        GTEST_SKIP() << "the sanitizer's allocator never returns null";
    const ProcessResult result = runForked([] {
        auto* const grown = static_cast<unsigned char*>(sqlite3_malloc(LARGEST_IN_A_POOL));
        *grown = 'x';
        exhaustMemory();
        // What the pool still has comes first.
        int taken = 0;
        while (sqlite3_malloc(LARGEST_IN_A_POOL) != nullptr && taken < 1000)
            ++taken;
        const bool isRefused = taken < 1000 && sqlite3_malloc(LARGEST_IN_A_POOL + 1) == nullptr &&
                               sqlite3_realloc(grown, LARGEST_IN_A_POOL + 1) == nullptr;
        ::_exit(isRefused && *grown == 'x' ? 0 : 1);
    });
    EXPECT_EQ(result.status, 0);
}

}  // namespace
}  // namespace corvo::test
