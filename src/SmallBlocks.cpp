#include "Assertions.h"
#include "SmallBlocks.h"

#include <mutex>
#include <new>
#include <vector>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QUORVEX_PLAIN_ALLOCATION 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define QUORVEX_PLAIN_ALLOCATION 1
#endif
#endif

#ifndef QUORVEX_PLAIN_ALLOCATION
namespace {

constexpr std::size_t BLOCK_SIZE = 16;
constexpr std::size_t CHUNK_SIZE = 64 * 1024;

struct FreeBlock {
    FreeBlock* next;
};

struct ThreadBlocks {
    FreeBlock* free = nullptr;
    char* next_fresh = nullptr;
    std::size_t fresh_left = 0;
};

// Initial-exec: the library is linked, not loaded late with dlopen(), so
// its few bytes of thread-local state can live in the threads' static TLS
// and be reached without a call to __tls_get_addr on every allocation.
thread_local ThreadBlocks blocks __attribute__((tls_model("initial-exec")));

// Every chunk stays listed here for the life of the process, so the memory
// is never lost to a leak checker even after the thread that carved it ends.
std::mutex chunks_mutex;
std::vector<void*>* chunks = nullptr;

char* new_chunk() {
    void* chunk = ::operator new(CHUNK_SIZE);
    std::lock_guard<std::mutex> lock(chunks_mutex);
    if (chunks == nullptr) {
        chunks = new std::vector<void*>();
    }
    chunks->push_back(chunk);
    return static_cast<char*>(chunk);
}

}  // namespace
#endif

void* quorvex_small_block_allocate(std::size_t size) {
#ifdef QUORVEX_PLAIN_ALLOCATION
    return ::operator new(size);
#else
    if (size > BLOCK_SIZE) {
        return ::operator new(size);
    }
    ThreadBlocks& mine = blocks;
    if (mine.free != nullptr) {
        FreeBlock* block = mine.free;
        mine.free = block->next;
        return block;
    }
    if (mine.fresh_left == 0) {
        mine.next_fresh = new_chunk();
        mine.fresh_left = CHUNK_SIZE / BLOCK_SIZE;
    }
    void* block = mine.next_fresh;
    mine.next_fresh += BLOCK_SIZE;
    --mine.fresh_left;
    return block;
#endif
}

void quorvex_small_block_release(void* block, std::size_t size) noexcept {
#ifdef QUORVEX_PLAIN_ALLOCATION
    (void)size;
    ::operator delete(block);
#else
    if (block == nullptr) {
        return;
    }
    if (size > BLOCK_SIZE) {
        ::operator delete(block);
        return;
    }
    FreeBlock* freed = static_cast<FreeBlock*>(block);
    freed->next = blocks.free;
    blocks.free = freed;
#endif
}
