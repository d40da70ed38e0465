#include <gtest/gtest.h>

#include <memory>

#include "TestSupport.h"
#include "TypeDefinitions.h"

using namespace quorvex_test;

TEST(ByteArray, EmptyOwningArraysStillHaveDistinctAllocations) {
    ByteArray first(0u);
    ByteArray second(0u);
    EXPECT_NE(first.data, nullptr);
    EXPECT_NE(first.data, second.data);
    EXPECT_FALSE(first.is_borrowed);
    Rc<ByteArray> view = first.borrow(0, 0);
    EXPECT_EQ(view->data, first.data);
    EXPECT_TRUE(view->is_borrowed);
}

// Views share the source's bytes and are counted on their own: a view keeps
// nothing else alive, and neither it nor a view of it frees the bytes.
TEST(ByteArray, ViewsShareTheSourceBytesAndNeverFreeThem) {
    Rc<ByteArray> source = make_bytes({1, 2, 3, 4, 5, 6});
    Rc<ByteArray> view = source->borrow(2, 3);
    ASSERT_EQ(view->data, source->data + 2);
    EXPECT_EQ(contents(view), (std::vector<uint8>{3, 4, 5}));
    EXPECT_TRUE(view->is_borrowed);
    EXPECT_EQ(view.get_ref_count(), 1u);
    EXPECT_EQ(source.get_ref_count(), 1u);
    source->data[3] = 40;
    EXPECT_EQ(view->data[1], 40);
    ByteArray by_value = source->create_readonly_view(1, 4);
    EXPECT_EQ(by_value.data, source->data + 1);
    EXPECT_EQ(by_value.length, 4u);
    EXPECT_TRUE(by_value.is_borrowed);

    std::unique_ptr<uint8[]> bytes(new uint8[3]{7, 8, 9});
    {
        Rc<ByteArray> borrowed(new ByteArray(bytes.get(), 3));
        borrowed->is_borrowed = true;
        Rc<ByteArray> copy = borrowed;
        Rc<ByteArray> view_of_view = borrowed->borrow(1, 2);
    }
    // Still ours: a free above would make this a use after free under ASan.
    EXPECT_EQ(bytes[0] + bytes[1] + bytes[2], 24);
}

// A range may end exactly at the end. The check sums modulo 2^32, so
// 1 + 0xFFFFFFFF wraps to 0 and passes, as the format always has.
TEST(ByteArray, RangesUpToTheEndAreAccepted) {
    Rc<ByteArray> source = make_bytes({10, 11, 12, 13});
    for (auto range : {std::make_pair(0u, 4u), std::make_pair(4u, 0u), std::make_pair(3u, 1u), std::make_pair(1u, 3u)}) {
        SCOPED_TRACE(testing::Message() << "offset " << range.first << " count " << range.second);
        EXPECT_EQ(source->borrow(range.first, range.second)->length, range.second);
        EXPECT_EQ(source->create_readonly_view(range.first, range.second).length, range.second);
    }
    Rc<ByteArray> wrapped = source->borrow(1, 0xFFFFFFFFu);
    EXPECT_EQ(wrapped->data, source->data + 1);
    EXPECT_EQ(wrapped->length, 0xFFFFFFFFu);
}

TEST(ByteArray, MovingHandsOwnershipOver) {
    ByteArray source(3u);
    uint8* bytes = source.data;
    ByteArray target(std::move(source));
    EXPECT_EQ(target.data, bytes);
    EXPECT_EQ(target.length, 3u);
    EXPECT_FALSE(target.is_borrowed);
    EXPECT_EQ(source.data, nullptr);
    EXPECT_EQ(source.length, 0u);
}

TEST(ByteArrayDeathTest, RangesPastTheEndStopTheProcess) {
    struct Case {
        uint32 length;
        uint32 offset;
        uint32 count;
    };
    const std::string view_failure =
        assertion_failure("src/TypeDefinitions.cpp", 51, "ByteArray ByteArray::create_readonly_view(uint32, uint32)",
                          "offset + count <= this->length");
    for (Case c : {Case{4, 0, 5}, Case{4, 4, 1}, Case{4, 5, 0}, Case{0, 0, 1}, Case{4, 2, 0xFFFFFFF0u}}) {
        SCOPED_TRACE(testing::Message() << "length " << c.length << " offset " << c.offset << " count " << c.count);
        ByteArray source(c.length);
        EXPECT_DEATH(source.borrow(c.offset, c.count), borrow_failure());
        EXPECT_DEATH(source.create_readonly_view(c.offset, c.count), view_failure);
    }
}
