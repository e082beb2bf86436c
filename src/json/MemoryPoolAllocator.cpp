#include "json/MemoryPoolAllocator.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace vlm::json {

namespace {
std::recursive_mutex& statisticsMutex() {
    static std::recursive_mutex mutex;
    return mutex;
}

AllocatorStatistics& statistics() {
    static AllocatorStatistics figures;
    return figures;
}

// The pool hands out multiples of four bytes, computed in 32 bits as it always has been.
std::size_t roundUp(std::size_t size) {
    return static_cast<std::uint32_t>((static_cast<std::uint32_t>(size) + 3u) & ~3u);
}

// The figures are 32-bit counters; they wrap rather than overflow.
std::int32_t add32(std::int32_t figure, std::uint32_t amount) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(figure) + amount);
}

// Value and member tables (multiples of 8 bytes) hold pointers: they start on an 8-byte
// boundary, which the 4-byte rounding alone would not give them.
std::size_t padding(const char* at, std::size_t size) {
    if (size % 8 != 0)
        return 0;
    return (8 - reinterpret_cast<std::uintptr_t>(at) % 8) % 8;
}

void say(const char* format, ...) __attribute__((format(printf, 1, 2)));
void say(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::vprintf(format, args);
    va_end(args);
    std::fflush(stdout);
}
}  // namespace

AllocatorStatistics allocatorStatistics() {
    std::lock_guard<std::recursive_mutex> lock(statisticsMutex());
    return statistics();
}

void setStatisticsEnabled(bool enabled) {
    std::lock_guard<std::recursive_mutex> lock(statisticsMutex());
    statistics().enabled = enabled;
}

void setStatisticsVerbose(bool verbose) {
    std::lock_guard<std::recursive_mutex> lock(statisticsMutex());
    statistics().verbose = verbose;
}

MemoryPoolAllocator::MemoryPoolAllocator(std::size_t chunkSize,
                                         rapidjson::CrtAllocator* baseAllocator)
    : chunkCapacity_(chunkSize), baseAllocator_(baseAllocator) {
    countAllocator();
    if (!baseAllocator_)
        baseAllocator_ = ownBaseAllocator_ = new rapidjson::CrtAllocator();
    addChunk(chunkCapacity_);
}

MemoryPoolAllocator::MemoryPoolAllocator(void* buffer, std::size_t size, std::size_t chunkSize,
                                         rapidjson::CrtAllocator* baseAllocator)
    : chunkCapacity_(chunkSize), userBuffer_(buffer), baseAllocator_(baseAllocator) {
    countAllocator();
    if (!baseAllocator_)
        baseAllocator_ = ownBaseAllocator_ = new rapidjson::CrtAllocator();
    if (buffer && size > kChunkHeaderSize) {
        chunkHead_ = static_cast<ChunkHeader*>(buffer);
        chunkHead_->capacity = size - kChunkHeaderSize;
        chunkHead_->size = 0;
        chunkHead_->next = nullptr;
    }
}

MemoryPoolAllocator::~MemoryPoolAllocator() {
    Clear();
    delete ownBaseAllocator_;
    std::lock_guard<std::recursive_mutex> lock(statisticsMutex());
    AllocatorStatistics& figures = statistics();
    if (figures.enabled) {
        --figures.allocators;
        if (figures.verbose)
            say("[0x%x] rapidJson: MemoryPoolAllocator dtor: %i\n",
                static_cast<unsigned>(allocatorId), figures.allocators);
    }
}

void MemoryPoolAllocator::countAllocator() {
    std::lock_guard<std::recursive_mutex> lock(statisticsMutex());
    AllocatorStatistics& figures = statistics();
    if (figures.enabled) {
        ++figures.allocators;
        if (figures.verbose)
            say("[0x%x] rapidJson: MemoryPoolAllocator ctor: %i\n",
                static_cast<unsigned>(allocatorId), figures.allocators);
    }
}

void MemoryPoolAllocator::Clear() {
    {
        std::lock_guard<std::recursive_mutex> lock(statisticsMutex());
        AllocatorStatistics& figures = statistics();
        if (figures.enabled) {
            std::uint32_t sum = 0;
            for (ChunkHeader* chunk = chunkHead_; chunk && chunk != userBuffer_;
                 chunk = chunk->next)
                sum += static_cast<std::uint32_t>(chunk->capacity);
            figures.memory = add32(figures.memory, 0u - sum);
            figures.lastCleared = figures.memory;
            if (figures.verbose)
                say("[0x%x] rapidJson: MemoryPoolAllocator: clear(%i): memory: %i\n",
                    static_cast<unsigned>(allocatorId), static_cast<std::int32_t>(sum),
                    figures.memory);
        }
    }
    freeChunks();
}

void MemoryPoolAllocator::freeChunks() {
    while (chunkHead_ && chunkHead_ != userBuffer_) {
        ChunkHeader* next = chunkHead_->next;
        std::free(chunkHead_);
        chunkHead_ = next;
    }
    if (chunkHead_)
        chunkHead_->size = 0;
}

std::size_t MemoryPoolAllocator::Capacity() const {
    std::size_t capacity = 0;
    for (ChunkHeader* chunk = chunkHead_; chunk; chunk = chunk->next)
        capacity += chunk->capacity;
    return capacity;
}

std::size_t MemoryPoolAllocator::Size() const {
    std::size_t size = 0;
    for (ChunkHeader* chunk = chunkHead_; chunk; chunk = chunk->next)
        size += chunk->size;
    return size;
}

bool MemoryPoolAllocator::addChunk(std::size_t capacity) {
    {
        std::lock_guard<std::recursive_mutex> lock(statisticsMutex());
        AllocatorStatistics& figures = statistics();
        if (figures.enabled) {
            figures.memory = add32(figures.memory, static_cast<std::uint32_t>(capacity));
            figures.lastAdded = figures.memory;
            if (figures.verbose)
                say("[0x%x] rapidJson: MemoryPoolAllocator: AddChunk: memory: %i\n",
                    static_cast<unsigned>(allocatorId), figures.memory);
        }
    }
    auto* chunk = static_cast<ChunkHeader*>(std::malloc(kChunkHeaderSize + capacity));
    if (!chunk)
        return false;
    chunk->capacity = capacity;
    chunk->size = 0;
    chunk->next = chunkHead_;
    chunkHead_ = chunk;
    return true;
}

void* MemoryPoolAllocator::Malloc(std::size_t size) {
    if (allocationProhibited) {
        say("rapidJson: Malloc: allocation prohibited, size = %i\n", static_cast<int>(size));
        std::lock_guard<std::recursive_mutex> lock(statisticsMutex());
        const AllocatorStatistics& figures = statistics();
        if (figures.enabled)
            say("rapidJson: MemoryPoolAllocator: number of allocator: %i, memory allocated: %i\n",
                figures.allocators, figures.memory);
    }
    if (!size)
        return nullptr;
    size = roundUp(size);
    std::size_t pad = chunkHead_ ? padding(data(chunkHead_) + chunkHead_->size, size) : 0;
    if (!chunkHead_ || chunkHead_->size + pad + size > chunkHead_->capacity) {
        if (!addChunk(chunkCapacity_ > size ? chunkCapacity_ : size))
            return nullptr;
        pad = padding(data(chunkHead_), size);
    }
    chunkHead_->size += pad;
    void* buffer = data(chunkHead_) + chunkHead_->size;
    chunkHead_->size += size;
    return buffer;
}

void* MemoryPoolAllocator::Realloc(void* originalPtr, std::size_t originalSize,
                                   std::size_t newSize) {
    if (!originalPtr)
        return Malloc(newSize);
    if (!newSize)
        return nullptr;
    originalSize = roundUp(originalSize);
    newSize = roundUp(newSize);
    if (originalSize >= newSize)
        return originalPtr;
    // The newest block of the head chunk can grow where it stands.
    if (chunkHead_ && originalPtr == data(chunkHead_) + chunkHead_->size - originalSize) {
        std::size_t increment = newSize - originalSize;
        if (chunkHead_->size + increment <= chunkHead_->capacity) {
            chunkHead_->size += increment;
            return originalPtr;
        }
    }
    void* newBuffer = Malloc(newSize);
    if (newBuffer)
        std::memcpy(newBuffer, originalPtr, originalSize);
    return newBuffer;
}

}  // namespace vlm::json
