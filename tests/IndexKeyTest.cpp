#include <gtest/gtest.h>

#include "IndexKey.h"
#include "TestSupport.h"

using Lexarium::IndexKey;
using quorvex_test::assertion_failure;
using quorvex_test::borrow_failure;
using quorvex_test::contents;
using quorvex_test::make_bytes;

TEST(IndexKey, DefaultRecordIsAZeroedHeader) {
    IndexKey key;
    EXPECT_EQ(contents(key.to_bytes()), std::vector<uint8>(5, 0));
    EXPECT_EQ(key.get_bytes_count(), 5u);
    EXPECT_EQ(key.get_key()->length, 0u);
}

TEST(IndexKey, BuildsTheRecordWhicheverFieldIsSetFirst) {
    const std::vector<uint8> expected{7, 0, 0, 0, 3, 0x61, 0x62, 0x63};

    IndexKey pointer_first;
    pointer_first.set_data_pointer(7);
    pointer_first.set_key(make_bytes({0x61, 0x62, 0x63}));
    EXPECT_EQ(contents(pointer_first.to_bytes()), expected);
    EXPECT_EQ(pointer_first.get_bytes_count(), 8u);

    IndexKey key_first;
    key_first.set_key(make_bytes({0x61, 0x62, 0x63}));
    key_first.set_data_pointer(7);
    EXPECT_EQ(contents(key_first.to_bytes()), expected);

    key_first.set_key(make_bytes({0x7A}));
    EXPECT_EQ(key_first.get_data_pointer(), 7u);
    EXPECT_EQ(contents(key_first.get_key()), std::vector<uint8>{0x7A});
}

TEST(IndexKey, ReadsARecordInPlace) {
    Rc<ByteArray> record = make_bytes({0x03, 0x01, 0, 0, 2, 0x62, 0x63});
    IndexKey key(record);
    EXPECT_EQ(key.get_data_pointer(), 259u);
    Rc<ByteArray> text = key.get_key();
    EXPECT_EQ(text->data, record->data + 5);  // a view, not a copy
    EXPECT_TRUE(text->is_borrowed);
    EXPECT_EQ(contents(text), (std::vector<uint8>{0x62, 0x63}));

    key.set_data_pointer(0x01020304u);
    EXPECT_EQ(contents(record), (std::vector<uint8>{4, 3, 2, 1, 2, 0x62, 0x63}));
}

TEST(IndexKey, LengthByteKeepsOnlyTheLowEightBits) {
    struct Case {
        uint32 key_length;
        uint8 length_byte;
    };
    for (Case c : {Case{254, 254}, Case{255, 255}, Case{256, 0}, Case{300, 44}}) {
        SCOPED_TRACE(c.key_length);
        IndexKey key;
        key.set_key(make_bytes(std::vector<uint8>(c.key_length, 0x61)));
        EXPECT_EQ(key.get_bytes_count(), c.key_length + 5);
        EXPECT_EQ(key.to_bytes()->data[4], c.length_byte);
    }
}

TEST(IndexKeyDeathTest, RecordWithoutAKeyByteStopsTheProcess) {
    const std::string failure = assertion_failure("src/IndexKey.cpp", 9, "Lexarium::IndexKey::IndexKey(Rc<ByteArray>)",
                                                  "this->underlying_data->length > 4 + 1");
    EXPECT_DEATH(IndexKey(make_bytes({0, 0, 0, 0, 0})), failure);
    EXPECT_DEATH(IndexKey(make_bytes({})), failure);
    IndexKey accepted(make_bytes({0, 0, 0, 0, 1, 0x61}));
    EXPECT_EQ(accepted.get_key()->length, 1u);
}

TEST(IndexKeyDeathTest, LengthByteClaimingMoreThanTheRecordHoldsStops) {
    IndexKey key(make_bytes({0, 0, 0, 0, 3, 0x61, 0x62}));
    EXPECT_DEATH(key.get_key(), borrow_failure());
}
