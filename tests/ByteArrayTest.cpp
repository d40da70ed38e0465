#include <gtest/gtest.h>

#include <memory>

#include "TestSupport.h"
#include "TypeDefinitions.h"

using quorvex_test::assertion_failure;
using quorvex_test::borrow_failure;
using quorvex_test::contents;
using quorvex_test::make_bytes;

TEST(ByteArray, EmptyOwningArraysStillHaveDistinctAllocations) {
    ByteArray first(0u);
    ByteArray second(0u);
    EXPECT_NE(first.data, nullptr);
    EXPECT_NE(first.data, second.data);
    EXPECT_FALSE(first.is_borrowed);

    Rc<ByteArray> view = first.borrow(0, 0);
    EXPECT_EQ(view->length, 0u);
    EXPECT_EQ(view->data, first.data);
    EXPECT_TRUE(view->is_borrowed);
}

TEST(ByteArray, ViewsShareTheSourceBytes) {
    Rc<ByteArray> source = make_bytes({1, 2, 3, 4, 5, 6});
    Rc<ByteArray> view = source->borrow(2, 3);
    ASSERT_EQ(view->data, source->data + 2);
    EXPECT_EQ(contents(view), (std::vector<uint8>{3, 4, 5}));
    EXPECT_TRUE(view->is_borrowed);
    // The view is counted on its own and keeps nothing else alive.
    EXPECT_EQ(view.get_ref_count(), 1u);
    EXPECT_EQ(source.get_ref_count(), 1u);

    source->data[3] = 40;
    EXPECT_EQ(view->data[1], 40);

    ByteArray by_value = source->create_readonly_view(1, 4);
    EXPECT_EQ(by_value.data, source->data + 1);
    EXPECT_EQ(by_value.length, 4u);
    EXPECT_TRUE(by_value.is_borrowed);
}

TEST(ByteArray, RangesEndingExactlyAtTheEndAreAccepted) {
    struct Case {
        uint32 offset;
        uint32 count;
    };
    Rc<ByteArray> source = make_bytes({10, 11, 12, 13});
    for (Case c : {Case{0, 4}, Case{4, 0}, Case{3, 1}, Case{1, 3}, Case{2, 2}}) {
        SCOPED_TRACE(testing::Message() << "offset " << c.offset << " count " << c.count);
        EXPECT_EQ(source->borrow(c.offset, c.count)->length, c.count);
        EXPECT_EQ(source->create_readonly_view(c.offset, c.count).length, c.count);
    }
}

TEST(ByteArray, RangeCheckSumsModulo2To32) {
    // 1 + 0xFFFFFFFF wraps to 0 and passes, as the format always has.
    Rc<ByteArray> source = make_bytes({1, 2, 3, 4});
    Rc<ByteArray> view = source->borrow(1, 0xFFFFFFFFu);
    EXPECT_EQ(view->data, source->data + 1);
    EXPECT_EQ(view->length, 0xFFFFFFFFu);
}

TEST(ByteArray, BorrowedArraysNeverFreeTheirBytes) {
    std::unique_ptr<uint8[]> bytes(new uint8[3]{7, 8, 9});
    {
        Rc<ByteArray> view(new ByteArray(bytes.get(), 3));
        view->is_borrowed = true;
        Rc<ByteArray> view_of_view = view->borrow(1, 2);
    }
    // Still ours: a free above would make this a use after free under ASan.
    EXPECT_EQ(bytes[0] + bytes[1] + bytes[2], 24);
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
