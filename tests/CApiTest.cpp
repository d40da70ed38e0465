// The C interface from C++: what a C caller cannot observe (exceptions,
// reference counts) and the internal helpers behind it.
#include <gtest/gtest.h>

#include <stdexcept>

#include "CApi.h"
#include "CApiInternal.h"
#include "WriterTestSupport.h"

using namespace quorvex_test;

namespace {

std::vector<uint8> contents_of(ByteArrayHandle* array) {
    uint8_t* bytes = nullptr;
    uint32_t length = byte_array_get_bytes(array, &bytes);
    return std::vector<uint8>(bytes, bytes + length);
}

}  // namespace

TEST(CApiWriter, NullKeyThrowsTheStandardLogicErrorAndChangesNothing) {
    IndexWriterHandle* writer = index_writer_new();
    ByteArrayHandle* value = byte_array_new_clone_from(reinterpret_cast<const uint8_t*>("v"), 1);
    try {
        index_writer_add_item(writer, nullptr, value);
        ADD_FAILURE() << "no exception";
    } catch (const std::logic_error& error) {
        EXPECT_STREQ(error.what(), "basic_string::_M_construct null not valid");
    }
    index_writer_add_item(writer, "k", value);
    byte_array_free(value);

    IndexWriterBytesResult* result = index_writer_to_bytes_result(writer);
    EXPECT_EQ(contents_of(result->data), (std::vector<uint8>{1, 0, 'v'}));
    EXPECT_EQ(contents_of(result->key), (std::vector<uint8>{0, 0, 0, 0, 1, 'k'}));
    index_writer_bytes_result_free(result);
    index_writer_free(writer);
}

// Chunks are joined in order into an owning array; a single owning chunk is
// handed back as it is, a borrowed one copied.
TEST(JoinByteArrays, ConcatenatesChunksInOrder) {
    std::vector<Rc<ByteArray>> none;
    EXPECT_EQ(joinByteArrays(&none)->length, 0u);
    std::vector<Rc<ByteArray>> several{make_bytes({1, 2}), make_bytes({}), make_bytes({3})};
    Rc<ByteArray> joined = joinByteArrays(&several);
    EXPECT_EQ(contents(joined), (std::vector<uint8>{1, 2, 3}));
    EXPECT_FALSE(joined->is_borrowed);
    EXPECT_EQ(several[0].get_ref_count(), 1u);  // chunks untouched

    std::vector<Rc<ByteArray>> owning{make_bytes({4, 5})};
    EXPECT_EQ(joinByteArrays(&owning).get(), owning[0].get());
    Rc<ByteArray> source = make_bytes({6, 7, 8});
    std::vector<Rc<ByteArray>> borrowed{source->borrow(1, 2)};
    joined = joinByteArrays(&borrowed);
    EXPECT_NE(joined->data, source->data + 1);
    EXPECT_FALSE(joined->is_borrowed);
    EXPECT_EQ(contents(joined), (std::vector<uint8>{7, 8}));
}
