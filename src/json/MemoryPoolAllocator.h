#pragma once
// The pool every JSON document of the program allocates from. Whole chunks are freed at once;
// a flag makes every allocation report itself, and process-wide figures follow the chunks.

#include <cstddef>
#include <cstdint>

#include "rapidjson/allocators.h"

namespace vlm::json {

/// \brief Process-wide figures of all pools.
struct AllocatorStatistics {
    bool enabled = true;
    bool verbose = false;
    std::int32_t allocators = 0;   // pools alive
    std::int32_t memory = 0;       // bytes in chunks
    std::int32_t lastAdded = 0;    // memory after the latest chunk was added
    std::int32_t lastCleared = 0;  // memory after the latest clear
};

AllocatorStatistics allocatorStatistics();
void setStatisticsEnabled(bool enabled);
void setStatisticsVerbose(bool verbose);

/// \brief RapidJSON allocator: a chain of chunks from the C heap, freed all together.
class MemoryPoolAllocator {
public:
    static const bool kNeedFree = false;
    static constexpr std::size_t kDefaultChunkCapacity = 65536;
    static constexpr std::size_t kChunkHeaderSize = 24;

    explicit MemoryPoolAllocator(std::size_t chunkSize = kDefaultChunkCapacity,
                                 rapidjson::CrtAllocator* baseAllocator = nullptr);
    /// The caller's buffer serves as the first chunk and is never freed.
    MemoryPoolAllocator(void* buffer, std::size_t size,
                        std::size_t chunkSize = kDefaultChunkCapacity,
                        rapidjson::CrtAllocator* baseAllocator = nullptr);
    ~MemoryPoolAllocator();
    MemoryPoolAllocator(const MemoryPoolAllocator&) = delete;
    MemoryPoolAllocator& operator=(const MemoryPoolAllocator&) = delete;

    void Clear();
    std::size_t Capacity() const;
    std::size_t Size() const;

    void* Malloc(std::size_t size);
    void* Realloc(void* originalPtr, std::size_t originalSize, std::size_t newSize);
    static void Free(void*) {}

private:
    struct ChunkHeader {
        std::uint64_t capacity;
        std::uint64_t size;
        ChunkHeader* next;
    };
    static_assert(sizeof(ChunkHeader) == kChunkHeaderSize, "three 64-bit words");

    static char* data(ChunkHeader* chunk) {
        return reinterpret_cast<char*>(chunk) + kChunkHeaderSize;
    }
    void countAllocator();
    bool addChunk(std::size_t capacity);
    void freeChunks();

    ChunkHeader* chunkHead_ = nullptr;
    std::size_t chunkCapacity_;
    void* userBuffer_ = nullptr;
    rapidjson::CrtAllocator* baseAllocator_;
    rapidjson::CrtAllocator* ownBaseAllocator_ = nullptr;

public:
    /// Allocation still succeeds; every allocation then reports itself.
    bool allocationProhibited = false;
    std::int32_t allocatorId = -1;
};

}  // namespace vlm::json
