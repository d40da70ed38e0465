// The posting-list intersections against std::set_intersection, at every
// block width the processor offers, on lists of many shapes: equal and very
// different lengths, dense and sparse overlap, runs of neighbours, and
// stretches that end inside a block.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "LittleEndian.h"
#include "Reader/PostingList.h"

using namespace Lexarium::Reader;

namespace {

struct Bytes {
    std::vector<uint8> bytes;
    PostingList list() const { return PostingList{bytes.data(), static_cast<uint32>(bytes.size() / 4)}; }
};

Bytes encode(const std::vector<uint32>& entries) {
    Bytes encoded;
    encoded.bytes.resize(entries.size() * 4);
    for (size_t i = 0; i < entries.size(); ++i) {
        Lexarium::LittleEndian::store_u32(encoded.bytes.data() + 4 * i, entries[i]);
    }
    return encoded;
}

// `count` distinct ascending values below `range`, sometimes in runs of
// neighbours (as keys that share letters sit together in key order).
std::vector<uint32> ascending(std::mt19937& random, size_t count, uint32 range) {
    std::vector<uint32> values;
    while (values.size() < count) {
        uint32 start = random() % range;
        for (uint32 run = 1 + random() % 6; run > 0 && values.size() < count; --run) {
            values.push_back(std::min(range - 1, start++));
        }
    }
    std::sort(values.begin(), values.end());
    values.erase(std::unique(values.begin(), values.end()), values.end());
    return values;
}

class WidthRestorer {
public:
    ~WidthRestorer() { limit_vector_width(VectorWidth::Eight); }
};

}  // namespace

TEST(PostingList, IntersectionsAgreeWithTheStandardLibraryAtEveryWidth) {
    WidthRestorer restore;
    for (VectorWidth width : {VectorWidth::Eight, VectorWidth::Four, VectorWidth::One}) {
        limit_vector_width(width);
        std::mt19937 random(77);
        for (int round = 0; round < 400; ++round) {
            SCOPED_TRACE(testing::Message() << "width " << static_cast<int>(width) << ", round " << round);
            uint32 range = 64u << (random() % 12);
            std::vector<uint32> a = ascending(random, 1 + random() % 300, range);
            std::vector<uint32> b = ascending(random, 1 + random() % (random() % 4 == 0 ? 5000 : 300), range);
            std::vector<uint32> expected;
            std::set_intersection(a.begin(), a.end(), b.begin(), b.end(), std::back_inserter(expected));
            Bytes a_bytes = encode(a);
            Bytes b_bytes = encode(b);
            PostingList la = a_bytes.list();
            PostingList lb = b_bytes.list();

            std::vector<uint32> out(MAX_CANDIDATES + 8);
            uint32 merged = intersect_by_merging(la, 0, la.count, lb, 0, lb.count, out.data(), MAX_CANDIDATES + 8);
            EXPECT_EQ(std::vector<uint32>(out.begin(), out.begin() + merged), expected);

            uint32 cursor = 0;
            uint32 sought = intersect_by_seeking(la, 0, la.count, lb, cursor, out.data(), MAX_CANDIDATES + 8);
            EXPECT_EQ(std::vector<uint32>(out.begin(), out.begin() + sought), expected);

            // keep_common, a batch of a at a time against b, its cursor
            // carried from batch to batch as the search carries it.
            std::vector<uint32> kept;
            uint32 b_cursor = 0;
            bool exhausted = false;
            for (size_t from = 0; from < a.size() && !exhausted; from += MAX_CANDIDATES) {
                std::vector<uint32> batch(a.begin() + from, a.begin() + std::min(a.size(), from + MAX_CANDIDATES));
                uint32 left = keep_common(lb, b_cursor, batch.data(), static_cast<uint32>(batch.size()), exhausted);
                kept.insert(kept.end(), batch.begin(), batch.begin() + left);
            }
            EXPECT_EQ(kept, expected);
        }
    }
}

TEST(PostingList, SeekFindsTheFirstEntryNotBelowAndStopsAtTheEnd) {
    Bytes bytes = encode({3, 5, 9, 200, 201, 4000000000u});
    PostingList list = bytes.list();
    uint32 cursor = 0;
    EXPECT_TRUE(list.seek(cursor, 0));
    EXPECT_EQ(cursor, 0u);
    EXPECT_TRUE(list.seek(cursor, 6));
    EXPECT_EQ(cursor, 2u);
    EXPECT_TRUE(list.seek(cursor, 5));  // never moves back
    EXPECT_EQ(cursor, 2u);
    list.seek_past(cursor, 200);
    EXPECT_EQ(cursor, 4u);
    list.seek_past(cursor, UINT32_MAX);
    EXPECT_EQ(cursor, list.count);
    EXPECT_FALSE(list.seek(cursor, 0));
}
