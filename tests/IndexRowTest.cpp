#include <gtest/gtest.h>

#include "IndexRow.h"
#include "TestSupport.h"
#include "Writer/WritableIndexRow.h"

using Lexarium::IndexRow;
using Lexarium::Writer::WritableIndexCell;
using Lexarium::Writer::WritableIndexRow;
using quorvex_test::assertion_failure;
using quorvex_test::borrow_failure;
using quorvex_test::contents;
using quorvex_test::make_bytes;

namespace {

const std::string& missing_cell_failure() {
    static const std::string message =
        assertion_failure("src/IndexRow.cpp", 20, "virtual Rc<Lexarium::IndexCell> Lexarium::IndexRow::get_cell_at_index(uint8)",
                          "index < this->get_cells_count()");
    return message;
}

const std::string& too_many_cells_failure() {
    static const std::string message = assertion_failure(
        "src/Writer/WritableIndexRow.cpp", 8, "virtual Rc<ByteArray> Lexarium::Writer::WritableIndexRow::to_bytes()",
        "this->cells.size() < 255");
    return message;
}

Rc<WritableIndexCell> cell_with(uint32 offset, std::vector<uint32> key_offsets) {
    Rc<WritableIndexCell> cell(new WritableIndexCell());
    cell->set_offset(offset);
    cell->key_offsets = std::move(key_offsets);
    return cell;
}

// A row record of `count` cells where cell i is (offset 100 + i, count i).
Rc<ByteArray> row_record(uint8 count) {
    std::vector<uint8> bytes{count};
    for (uint8 i = 0; i < count; ++i) {
        std::vector<uint8> cell{static_cast<uint8>(100 + i), 0, 0, 0, i, 0, 0, 0};
        bytes.insert(bytes.end(), cell.begin(), cell.end());
    }
    return make_bytes(bytes);
}

}  // namespace

TEST(IndexRow, EmptyRecordHasNoCells) {
    IndexRow row(make_bytes({0}));
    EXPECT_EQ(row.get_cells_count(), 0);
    EXPECT_EQ(row.get_bytes_count(), 1u);
    EXPECT_FALSE(row.is_cell_has_exists(0));
}

TEST(IndexRow, HandsOutCellsAsViewsIntoTheRecord) {
    Rc<ByteArray> record = row_record(3);
    IndexRow row(record);
    EXPECT_EQ(row.get_cells_count(), 3);
    EXPECT_EQ(row.get_bytes_count(), 25u);
    EXPECT_TRUE(row.is_cell_has_exists(2));
    EXPECT_FALSE(row.is_cell_has_exists(3));
    for (uint8 i = 0; i < 3; ++i) {
        Rc<Lexarium::IndexCell> cell = row.get_cell_at_index(i);
        EXPECT_EQ(cell->get_offset(), 100u + i);
        EXPECT_EQ(cell->get_count(), i);
        EXPECT_EQ(cell->underlying_data->data, record->data + 1 + 8 * i);
        EXPECT_TRUE(cell->underlying_data->is_borrowed);
    }
    EXPECT_EQ(row.to_bytes().get(), record.get());
}

TEST(IndexRow, SubscriptKeepsTheLowEightBitsOfTheIndex) {
    IndexRow row(row_record(2));
    EXPECT_EQ(row[257]->get_offset(), 101u);
    EXPECT_EQ(row[256]->get_offset(), 100u);
    EXPECT_EQ(row[1]->get_offset(), 101u);
}

TEST(IndexRowDeathTest, MissingCellStopsTheProcess) {
    IndexRow empty(make_bytes({0}));
    EXPECT_DEATH(empty.get_cell_at_index(0), missing_cell_failure());
    IndexRow two(row_record(2));
    EXPECT_DEATH(two.get_cell_at_index(2), missing_cell_failure());
    EXPECT_DEATH(two[258], missing_cell_failure());
}

TEST(IndexRowDeathTest, RecordShorterThanItsCountStopsInTheRangeCheck) {
    // Claims two cells but holds one.
    IndexRow row(make_bytes({2, 1, 0, 0, 0, 1, 0, 0, 0}));
    EXPECT_EQ(row.get_cell_at_index(0)->get_offset(), 1u);
    EXPECT_DEATH(row.get_cell_at_index(1), borrow_failure());
}

TEST(WritableIndexRow, SetFillsTheMissingPositionsWithEmptyCells) {
    WritableIndexRow row;
    row.set(3, cell_with(40, {5, 9}));
    ASSERT_EQ(row.cells.size(), 4u);
    EXPECT_TRUE(row.is_cell_has_exists(3));
    EXPECT_FALSE(row.is_cell_has_exists(4));
    EXPECT_EQ(row.get_bytes_count(), 33u);

    std::vector<uint8> expected{4};
    expected.resize(1 + 3 * 8, 0);
    for (uint8 b : {40, 0, 0, 0, 2, 0, 0, 0}) {
        expected.push_back(b);
    }
    EXPECT_EQ(contents(row.to_bytes()), expected);
}

TEST(WritableIndexRow, SetReplacesAnExistingCellAndKeepsTheOthers) {
    WritableIndexRow row;
    row.set(1, cell_with(8, {1}));
    Rc<WritableIndexCell> placeholder = row.get_writable_cell_at_index(0);
    row.set(1, cell_with(16, {1, 2, 3}));
    EXPECT_EQ(row.cells.size(), 2u);
    EXPECT_EQ(row.get_writable_cell_at_index(0).get(), placeholder.get());
    EXPECT_EQ(row.get_writable_cell_at_index(1)->key_offsets.size(), 3u);
}

TEST(WritableIndexRow, InheritedReadsSeeOnlyTheLastSerialisedRecord) {
    WritableIndexRow row;
    EXPECT_EQ(contents(row.to_bytes()), std::vector<uint8>{0});
    row.set(1, cell_with(12, {7}));
    // Not serialised yet: the record still says "no cells".
    EXPECT_EQ(row.get_cells_count(), 0);
    EXPECT_TRUE(row.is_cell_has_exists(1));

    Rc<ByteArray> record = row.to_bytes();
    EXPECT_EQ(row.underlying_data.get(), record.get());
    EXPECT_EQ(row.get_cells_count(), 2);
    EXPECT_EQ(row.get_cell_at_index(1)->get_offset(), 12u);
    EXPECT_EQ(row.get_cell_at_index(1)->get_count(), 1u);
}

TEST(WritableIndexRow, HoldsUpTo254Cells) {
    WritableIndexRow row;
    row.set(253, cell_with(4, {0}));
    Rc<ByteArray> record = row.to_bytes();
    EXPECT_EQ(record->length, 2033u);
    EXPECT_EQ(record->data[0], 254);
    EXPECT_EQ(row.get_cells_count(), 254);
}

TEST(WritableIndexRowDeathTest, A255thCellStopsTheProcessWhenSerialised) {
    WritableIndexRow row;
    row.set(254, cell_with(4, {0}));
    EXPECT_EQ(row.cells.size(), 255u);
    EXPECT_DEATH(row.to_bytes(), too_many_cells_failure());
}
