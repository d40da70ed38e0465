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

// Two sizes of block: 16 bytes (a byte array record, a search result, the
// shared state of an Rc) and 32 (an Rc state together with its object, as
// make_rc() builds them). Each size has its own free list; both are carved
// from the same chunks.
constexpr std::size_t SMALL_BLOCK = 16;
constexpr std::size_t LARGE_BLOCK = 32;
constexpr std::size_t CHUNK_SIZE = 64 * 1024;

struct FreeBlock {
    FreeBlock* next;
};

struct ThreadBlocks {
    FreeBlock* free[2] = {nullptr, nullptr};  // 16-byte and 32-byte blocks
    char* next_fresh = nullptr;
    std::size_t fresh_bytes = 0;
};

// The general TLS model, so that the library can be loaded late with
// dlopen() (ctypes, plugins): initial-exec would need room in the static
// TLS block that such a process may no longer have. The build uses TLS
// descriptors, which make the access nearly as cheap.
thread_local ThreadBlocks blocks;

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
    if (size > LARGE_BLOCK) {
        return ::operator new(size);
    }
    ThreadBlocks& mine = blocks;
    std::size_t kind = size > SMALL_BLOCK ? 1 : 0;
    if (mine.free[kind] != nullptr) {
        FreeBlock* block = mine.free[kind];
        mine.free[kind] = block->next;
        return block;
    }
    std::size_t bytes = kind == 1 ? LARGE_BLOCK : SMALL_BLOCK;
    if (mine.fresh_bytes < bytes) {
        // What is left of the old chunk (at most 16 bytes) goes to the
        // small blocks.
        if (mine.fresh_bytes == SMALL_BLOCK) {
            quorvex_small_block_release(mine.next_fresh, SMALL_BLOCK);
        }
        mine.next_fresh = new_chunk();
        mine.fresh_bytes = CHUNK_SIZE;
    }
    void* block = mine.next_fresh;
    mine.next_fresh += bytes;
    mine.fresh_bytes -= bytes;
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
    if (size > LARGE_BLOCK) {
        ::operator delete(block);
        return;
    }
    std::size_t kind = size > SMALL_BLOCK ? 1 : 0;
    FreeBlock* freed = static_cast<FreeBlock*>(block);
    freed->next = blocks.free[kind];
    blocks.free[kind] = freed;
#endif
}
