#include <gtest/gtest.h>

#include <memory>

#include "TestSupport.h"
#include "TypeDefinitions.h"

using namespace quorvex_test;

// Views share the source's bytes and are counted on their own: a view keeps
// nothing else alive, and neither it nor a view of it frees the bytes. Empty
// owning arrays still have allocations of their own.
TEST(ByteArray, ViewsShareTheSourceBytesAndNeverFreeThem) {
    Rc<ByteArray> source = make_bytes({1, 2, 3, 4, 5, 6});
    Rc<ByteArray> view = source->borrow(2, 3);
    ASSERT_EQ(view->data, source->data + 2);
    EXPECT_TRUE(view->is_borrowed);
    EXPECT_EQ(source.get_ref_count(), 1u);
    source->data[3] = 40;
    EXPECT_EQ(view->data[1], 40);
    EXPECT_EQ(source->create_readonly_view(1, 4).data, source->data + 1);
    EXPECT_NE(ByteArray(0u).data, nullptr);

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

// A range may end exactly at the end; the check sums modulo 2^32, so
// 1 + 0xFFFFFFFF wraps to 0 and passes, as the format always has. Past the
// end, both kinds of view stop the process.
TEST(ByteArrayDeathTest, RangesPastTheEndStopTheProcess) {
    struct Case {
        uint32 length;
        uint32 offset;
        uint32 count;
        bool inside;
    };
    const std::string view_failure =
        assertion_failure("src/TypeDefinitions.cpp", 51, "ByteArray ByteArray::create_readonly_view(uint32, uint32)",
                          "offset + count <= this->length");
    for (Case c : {Case{4, 0, 4, true}, Case{4, 4, 0, true}, Case{4, 1, 0xFFFFFFFFu, true}, Case{4, 0, 5, false},
                   Case{4, 4, 1, false}, Case{4, 5, 0, false}, Case{0, 0, 1, false}, Case{4, 2, 0xFFFFFFF0u, false}}) {
        SCOPED_TRACE(testing::Message() << "length " << c.length << " offset " << c.offset << " count " << c.count);
        ByteArray source(c.length);
        if (c.inside) {
            EXPECT_EQ(source.borrow(c.offset, c.count)->data, source.data + c.offset);
            EXPECT_EQ(source.create_readonly_view(c.offset, c.count).length, c.count);
        } else {
            EXPECT_DEATH(source.borrow(c.offset, c.count), borrow_failure());
            EXPECT_DEATH(source.create_readonly_view(c.offset, c.count), view_failure);
        }
    }
}
