#include <gtest/gtest.h>

#include "IndexCell.h"
#include "IndexRow.h"
#include "TestSupport.h"
#include "Writer/WritableIndexCell.h"

using Lexarium::IndexCell;
using Lexarium::IndexRow;
using Lexarium::Writer::WritableIndexCell;
using quorvex_test::assertion_condition;
using quorvex_test::contents;
using quorvex_test::make_bytes;

TEST(IndexCell, SerialisesOffsetThenCountLittleEndian) {
    IndexCell cell(258, 5);
    EXPECT_EQ(contents(cell.to_bytes()), (std::vector<uint8>{0x02, 0x01, 0, 0, 0x05, 0, 0, 0}));
    EXPECT_EQ(cell.get_offset(), 258u);
    EXPECT_EQ(cell.get_count(), 5u);
    EXPECT_EQ(IndexCell::get_bytes_count(), 8);

    cell.set_offset(0xA1B2C3D4u);
    cell.set_count(0xFFFFFFFFu);
    EXPECT_EQ(contents(cell.to_bytes()), (std::vector<uint8>{0xD4, 0xC3, 0xB2, 0xA1, 0xFF, 0xFF, 0xFF, 0xFF}));
}

TEST(IndexCell, ReadsAndWritesTheSharedBytesInPlace) {
    Rc<ByteArray> bytes = make_bytes({4, 0, 0, 0, 1, 0, 0, 0});
    IndexCell cell(bytes);
    EXPECT_EQ(cell.get_offset(), 4u);
    EXPECT_EQ(cell.get_count(), 1u);
    EXPECT_EQ(cell.to_bytes().get(), bytes.get());  // the same record, not a copy

    cell.set_count(3);
    EXPECT_EQ(bytes->data[4], 3);
}

TEST(IndexCell, SettingACellViewChangesTheRowItCameFrom) {
    Rc<ByteArray> record = make_bytes({1, 4, 0, 0, 0, 1, 0, 0, 0});
    IndexRow row(record);
    row.get_cell_at_index(0)->set_count(9);
    EXPECT_EQ(row.get_cell_at_index(0)->get_count(), 9u);
    EXPECT_EQ(record->data[5], 9);
}

TEST(WritableIndexCell, StartsAsEightZeroBytes) {
    WritableIndexCell cell;
    EXPECT_TRUE(cell.key_offsets.empty());
    EXPECT_EQ(contents(cell.to_bytes()), std::vector<uint8>(8, 0));
}

TEST(WritableIndexCell, ToBytesRefreshesTheCountButNeverTheOffset) {
    WritableIndexCell cell;
    cell.key_offsets = {0, 7, 19};
    cell.set_offset(12);
    EXPECT_EQ(cell.get_count(), 0u);  // only to_bytes() brings the count up to date
    EXPECT_EQ(contents(cell.to_bytes()), (std::vector<uint8>{12, 0, 0, 0, 3, 0, 0, 0}));

    cell.key_offsets.push_back(30);
    cell.to_bytes();
    EXPECT_EQ(cell.get_count(), 4u);
    EXPECT_EQ(cell.get_offset(), 12u);
}

TEST(IndexCellDeathTest, ACellOverTooFewBytesStopsBeforeReadingPastThem) {
    IndexCell cell(make_bytes({1, 2, 3, 4}));
    EXPECT_DEATH(cell.get_count(), assertion_condition("this->underlying_data->length >= IndexCell::get_bytes_count()"));
    EXPECT_DEATH(cell.set_offset(1), assertion_condition("this->underlying_data->length >= IndexCell::get_bytes_count()"));
}
