#ifndef QUORVEX_SMALL_BLOCKS_H
#define QUORVEX_SMALL_BLOCKS_H

#include <cstddef>

#include "Export.h"

// Memory for the library's small fixed-size objects: byte array records,
// search results and the shared states of Rc handles, of which a search
// makes a handful per result. Blocks of up to 16 and of up to 32 bytes come
// from per-thread free lists carved out of 64 KiB chunks; larger requests go
// to the usual allocator. A block is released with the `size` it was asked
// for, on any thread. Released blocks are kept for reuse rather than given
// back to the system. Builds with a sanitizer use the usual allocator
// throughout, so that it keeps watching every object.
extern "C" {
QUORVEX_API void* quorvex_small_block_allocate(std::size_t size);
QUORVEX_API void quorvex_small_block_release(void* block, std::size_t size) noexcept;
}

#endif
