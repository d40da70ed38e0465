// The C interface from C++: what a C caller cannot observe (exceptions).
#include <gtest/gtest.h>

#include <stdexcept>

#include "CApi.h"
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
