#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <thread>
#include <vector>

#include "SmallBlocks.h"
#include "TypeDefinitions.h"

// 16- and 32-byte blocks taken turn about, several chunks' worth: each is
// distinct and writable to its last byte without touching another, and
// each size comes back to its own kind, the last released first, before
// new memory is taken.
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
    }
    for (auto& block : blocks) {
        quorvex_small_block_release(block.first, block.second);
    }
    void* small = quorvex_small_block_allocate(8);
    void* large = quorvex_small_block_allocate(32);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_EQ(small, blocks[9998].first);
    EXPECT_EQ(large, blocks[9999].first);
#endif
    quorvex_small_block_release(small, 8);
    quorvex_small_block_release(large, 32);
    quorvex_small_block_release(nullptr, 16);
}

TEST(SmallBlocks, LargerRequestsAndOtherThreadsAreServed) {
    void* large = quorvex_small_block_allocate(100);
    std::memset(large, 1, 100);
    quorvex_small_block_release(large, 100);

    // Records made on one thread and released on another, as result handles
    // may be: both threads go on allocating without a fault.
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
    std::thread user([] {
        for (int i = 0; i < 1000; ++i) {
            Rc<ByteArray> array(new ByteArray(4u));
            array->data[3] = 7;
        }
    });
    user.join();
    Rc<ByteArray> here(new ByteArray(1u));
    EXPECT_EQ(here->length, 1u);
}
