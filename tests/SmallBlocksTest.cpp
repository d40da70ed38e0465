#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <thread>
#include <vector>

#include "SmallBlocks.h"
#include "TypeDefinitions.h"

// 16- and 32-byte blocks taken turn about, several chunks' worth: each is
// distinct and writable to its last byte without touching another, and each
// size comes back to its own kind, the last released first. Larger requests
// are served too, and records made on one thread may be released on another.
TEST(SmallBlocks, BlocksAreDistinctWritableAndReused) {
    std::vector<std::pair<unsigned char*, size_t>> blocks;
    std::set<void*> seen;
    for (int i = 0; i < 10000; ++i) {
        size_t size = i % 3 == 0 ? 32 : 16;
        auto* block = static_cast<unsigned char*>(quorvex_small_block_allocate(size));
        std::memset(block, i & 0xFF, size);
        EXPECT_TRUE(seen.insert(block).second);
        blocks.emplace_back(block, size);
    }
    for (size_t i = 0; i < blocks.size(); ++i) {
        EXPECT_EQ(blocks[i].first[0], i & 0xFF);
        EXPECT_EQ(blocks[i].first[blocks[i].second - 1], i & 0xFF);
        quorvex_small_block_release(blocks[i].first, blocks[i].second);
    }
    void* small = quorvex_small_block_allocate(8);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_EQ(small, blocks[9998].first);
#endif
    quorvex_small_block_release(small, 8);
    void* large = quorvex_small_block_allocate(100);
    std::memset(large, 1, 100);
    quorvex_small_block_release(large, 100);

    std::vector<ByteArray*> made;
    std::thread maker([&] {
        for (int i = 0; i < 1000; ++i) {
            made.push_back(new ByteArray(4u));
        }
    });
    maker.join();
    for (ByteArray* array : made) {
        delete array;
    }
    EXPECT_EQ(Rc<ByteArray>(new ByteArray(1u))->length, 1u);
}
