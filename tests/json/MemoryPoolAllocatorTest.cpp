#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "StdoutCapture.h"
#include "json/Json.h"
#include "json/MemoryPoolAllocator.h"

namespace {

using vlm::json::allocatorStatistics;
using vlm::json::AllocatorStatistics;
using vlm::json::MemoryPoolAllocator;
using vlm::test::capturedOutput;

TEST(MemoryPoolAllocatorTest, RequestsTakeMultiplesOfFourBytes) {
    const std::pair<std::size_t, std::size_t> cases[] = {{1, 4},  {4, 4},         {5, 8},
                                                         {9, 12}, {65536, 65536}, {70001, 70004}};
    for (const auto& [request, taken] : cases) {
        MemoryPoolAllocator pool;
        EXPECT_NE(pool.Malloc(request), nullptr);
        EXPECT_EQ(pool.Size(), taken) << request;
    }
    MemoryPoolAllocator pool;
    char* first = static_cast<char*>(pool.Malloc(5));
    char* second = static_cast<char*>(pool.Malloc(5));
    EXPECT_EQ(second - first, 8);
    EXPECT_EQ(pool.Malloc(0), nullptr);
}

TEST(MemoryPoolAllocatorTest, ChunksFollowTheCapacityAndTheStatistics) {
    const AllocatorStatistics before = allocatorStatistics();
    {
        MemoryPoolAllocator pool(1024);
        AllocatorStatistics now = allocatorStatistics();
        EXPECT_EQ(now.allocators, before.allocators + 1);
        EXPECT_EQ(now.memory, before.memory + 1024);  // the first chunk is taken at once
        EXPECT_EQ(now.lastAdded, now.memory);
        EXPECT_EQ(pool.Capacity(), 1024u);

        pool.Malloc(1000);
        pool.Malloc(100);   // no room left: another chunk of the capacity
        pool.Malloc(5000);  // bigger than the capacity: a chunk of its own size
        now = allocatorStatistics();
        EXPECT_EQ(now.memory, before.memory + 1024 + 1024 + 5000);
        EXPECT_EQ(now.lastAdded, now.memory);
        EXPECT_EQ(pool.Capacity(), 1024u + 1024u + 5000u);
        EXPECT_EQ(pool.Size(), 1000u + 100u + 5000u);

        pool.Clear();
        now = allocatorStatistics();
        EXPECT_EQ(now.memory, before.memory);
        EXPECT_EQ(now.lastCleared, before.memory);
        EXPECT_EQ(pool.Capacity(), 0u);

        EXPECT_NE(pool.Malloc(8), nullptr);
        EXPECT_EQ(allocatorStatistics().memory, before.memory + 1024);
    }
    const AllocatorStatistics after = allocatorStatistics();
    EXPECT_EQ(after.allocators, before.allocators);
    EXPECT_EQ(after.memory, before.memory);
    EXPECT_EQ(after.lastCleared, before.memory);
}

TEST(MemoryPoolAllocatorTest, SeventyThousandByteStringAddsAChunkOfItsRoundedSize) {
    vlm::json::Document document;
    const AllocatorStatistics before = allocatorStatistics();
    const std::string text = "\"" + std::string(70000, 's') + "\"";
    ASSERT_TRUE(vlm::json::parseString(document, text.c_str()));
    const AllocatorStatistics after = allocatorStatistics();
    EXPECT_EQ(after.memory, before.memory + 70004);
    EXPECT_EQ(after.lastAdded, after.memory);
    EXPECT_EQ(document.GetAllocator().Capacity(), 65536u + 70004u);
    EXPECT_EQ(document.GetStringLength(), 70000u);
    EXPECT_EQ(document.GetString()[69999], 's');
}

TEST(MemoryPoolAllocatorTest, ReallocGrowsTheNewestBlockInPlaceAndCopiesOthers) {
    MemoryPoolAllocator pool(256);
    char* block = static_cast<char*>(pool.Malloc(8));
    std::memcpy(block, "1234567", 8);
    EXPECT_EQ(pool.Realloc(block, 8, 20), block);
    EXPECT_EQ(pool.Size(), 20u);
    EXPECT_EQ(pool.Realloc(block, 20, 4), block);

    pool.Malloc(4);
    char* moved = static_cast<char*>(pool.Realloc(block, 20, 40));
    EXPECT_NE(moved, block);
    EXPECT_STREQ(moved, "1234567");

    // No room left in the chunk: the block moves to a new one.
    char* last = static_cast<char*>(pool.Malloc(180));
    std::memcpy(last, "tail", 5);
    char* grown = static_cast<char*>(pool.Realloc(last, 180, 400));
    EXPECT_NE(grown, last);
    EXPECT_STREQ(grown, "tail");
    EXPECT_EQ(pool.Capacity(), 256u + 400u);
}

TEST(MemoryPoolAllocatorTest, UserBufferServesFirstAndIsKept) {
    const AllocatorStatistics before = allocatorStatistics();
    alignas(8) char buffer[1024];
    {
        MemoryPoolAllocator pool(buffer, sizeof buffer, 4096);
        EXPECT_EQ(allocatorStatistics().memory, before.memory);
        EXPECT_EQ(pool.Capacity(), sizeof buffer - MemoryPoolAllocator::kChunkHeaderSize);
        char* inside = static_cast<char*>(pool.Malloc(100));
        EXPECT_TRUE(inside > buffer && inside < buffer + sizeof buffer);
        pool.Malloc(2000);
        EXPECT_EQ(allocatorStatistics().memory, before.memory + 4096);

        pool.Clear();
        EXPECT_EQ(allocatorStatistics().memory, before.memory);
        EXPECT_EQ(pool.Size(), 0u);
        EXPECT_EQ(pool.Malloc(100), inside);
    }
    EXPECT_EQ(allocatorStatistics().allocators, before.allocators);
}

TEST(MemoryPoolAllocatorTest, ProhibitedMallocReportsAndStillAllocates) {
    MemoryPoolAllocator pool;
    pool.allocationProhibited = true;
    const AllocatorStatistics figures = allocatorStatistics();
    void* block = nullptr;
    std::string out = capturedOutput([&] { block = pool.Malloc(5); });
    EXPECT_EQ(out,
              "rapidJson: Malloc: allocation prohibited, size = 5\n"
              "rapidJson: MemoryPoolAllocator: number of allocator: " +
                  std::to_string(figures.allocators) +
                  ", memory allocated: " + std::to_string(figures.memory) + "\n");
    ASSERT_NE(block, nullptr);
    std::memset(block, 0x5a, 5);
    EXPECT_EQ(pool.Size(), 8u);

    vlm::json::setStatisticsEnabled(false);
    out = capturedOutput([&] { pool.Malloc(70); });
    vlm::json::setStatisticsEnabled(true);
    EXPECT_EQ(out, "rapidJson: Malloc: allocation prohibited, size = 70\n");
}

TEST(MemoryPoolAllocatorTest, VerboseStatisticsTraceEachChunk) {
    const AllocatorStatistics before = allocatorStatistics();
    vlm::json::setStatisticsVerbose(true);
    std::string out = capturedOutput([] {
        MemoryPoolAllocator pool(1000);
        pool.Clear();
    });
    vlm::json::setStatisticsVerbose(false);
    const std::string memory = std::to_string(before.memory);
    EXPECT_EQ(out, "[0xffffffff] rapidJson: MemoryPoolAllocator ctor: " +
                       std::to_string(before.allocators + 1) +
                       "\n"
                       "[0xffffffff] rapidJson: MemoryPoolAllocator: AddChunk: memory: " +
                       std::to_string(before.memory + 1000) +
                       "\n"
                       "[0xffffffff] rapidJson: MemoryPoolAllocator: clear(1000): memory: " +
                       memory +
                       "\n"
                       "[0xffffffff] rapidJson: MemoryPoolAllocator: clear(0): memory: " +
                       memory +
                       "\n"
                       "[0xffffffff] rapidJson: MemoryPoolAllocator dtor: " +
                       std::to_string(before.allocators) + "\n");
}

TEST(MemoryPoolAllocatorTest, StatisticsStayExactAcrossThreads) {
    const AllocatorStatistics before = allocatorStatistics();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < 200; ++i) {
                vlm::json::Document document;
                vlm::json::parseString(document, R"({"name":"a.dll","list":[1,2,3]})");
                document.GetAllocator().Malloc(70000);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    const AllocatorStatistics after = allocatorStatistics();
    EXPECT_EQ(after.allocators, before.allocators);
    EXPECT_EQ(after.memory, before.memory);
}

}  // namespace
