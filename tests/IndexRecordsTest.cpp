// The record classes over the blobs' bytes: cells, rows, the table and key
// records, as readers see them and as the writer builds them.
#include <gtest/gtest.h>

#include <memory>

#include "IndexCell.h"
#include "IndexKey.h"
#include "IndexRow.h"
#include "IndexTable.h"
#include "WriterTestSupport.h"
#include "Writer/WritableIndexCell.h"
#include "Writer/WritableIndexRow.h"

using Lexarium::IndexCell;
using Lexarium::IndexKey;
using Lexarium::IndexRow;
using Lexarium::IndexTable;
using Lexarium::Writer::WritableIndexCell;
using Lexarium::Writer::WritableIndexRow;
using namespace quorvex_test;

namespace {

// A row record of `count` cells where cell i is (offset 100 + i, count i).
Rc<ByteArray> row_record(uint8 count) {
    std::vector<uint8> bytes{count};
    for (uint8 i = 0; i < count; ++i) {
        std::vector<uint8> cell = words({100u + i, i});
        bytes.insert(bytes.end(), cell.begin(), cell.end());
    }
    return make_bytes(bytes);
}

Rc<WritableIndexCell> cell_with(uint32 offset, std::vector<uint32> key_offsets) {
    Rc<WritableIndexCell> cell(new WritableIndexCell());
    cell->set_offset(offset);
    cell->key_offsets = std::move(key_offsets);
    return cell;
}

const std::string short_cell_failure = assertion_condition("this->underlying_data->length >= IndexCell::get_bytes_count()");

}  // namespace

// A cell is its offset then its count, little-endian. A writable cell's
// count is its list's length, brought up to date only by to_bytes(); its
// offset is whatever was set.
TEST(IndexCell, SerialisesOffsetThenCountLittleEndian) {
    IndexCell cell(258, 5);
    EXPECT_EQ(contents(cell.to_bytes()), words({258, 5}));
    cell.set_offset(0xA1B2C3D4u);
    cell.set_count(0xFFFFFFFFu);
    EXPECT_EQ(cell.get_offset(), 0xA1B2C3D4u);
    EXPECT_EQ(contents(cell.to_bytes()), (std::vector<uint8>{0xD4, 0xC3, 0xB2, 0xA1, 0xFF, 0xFF, 0xFF, 0xFF}));

    WritableIndexCell writable;
    EXPECT_EQ(contents(writable.to_bytes()), std::vector<uint8>(8, 0));
    writable.key_offsets = {0, 7, 19};
    writable.set_offset(12);
    EXPECT_EQ(writable.get_count(), 0u);
    EXPECT_EQ(contents(writable.to_bytes()), words({12, 3}));
}

// Rows hand out their cells as views into the record: reads see the bytes
// and writes change them.
TEST(IndexRow, HandsOutCellsAsViewsIntoTheRecord) {
    IndexRow empty(make_bytes({0}));
    EXPECT_EQ(empty.get_cells_count(), 0);
    EXPECT_EQ(empty.get_bytes_count(), 1u);
    EXPECT_FALSE(empty.is_cell_has_exists(0));

    Rc<ByteArray> record = row_record(3);
    IndexRow row(record);
    EXPECT_EQ(row.get_cells_count(), 3);
    EXPECT_EQ(row.get_bytes_count(), 25u);
    EXPECT_TRUE(row.is_cell_has_exists(2));
    EXPECT_FALSE(row.is_cell_has_exists(3));
    for (uint8 i = 0; i < 3; ++i) {
        Rc<IndexCell> cell = row.get_cell_at_index(i);
        EXPECT_EQ(cell->get_offset(), 100u + i);
        EXPECT_EQ(cell->get_count(), i);
        EXPECT_EQ(cell->to_bytes()->data, record->data + 1 + 8 * i);
        EXPECT_TRUE(cell->to_bytes()->is_borrowed);
    }
    row.get_cell_at_index(1)->set_count(9);
    EXPECT_EQ(record->data[1 + 8 + 4], 9);
    EXPECT_EQ(row.to_bytes().get(), record.get());
    // The subscript keeps the low eight bits of its index.
    EXPECT_EQ(row[257]->get_offset(), 101u);
    EXPECT_EQ(row[256]->get_offset(), 100u);
}

TEST(IndexRowDeathTest, MissingOrShortCellsStopTheProcess) {
    const std::string missing_cell = assertion_failure(
        "src/IndexRow.cpp", 20, "virtual Rc<Lexarium::IndexCell> Lexarium::IndexRow::get_cell_at_index(uint8)",
        "index < this->get_cells_count()");
    IndexRow empty(make_bytes({0}));
    EXPECT_DEATH(empty.get_cell_at_index(0), missing_cell);
    IndexRow two(row_record(2));
    EXPECT_DEATH(two.get_cell_at_index(2), missing_cell);
    EXPECT_DEATH(two[258], missing_cell);
    // Claims two cells but holds one: the range check stops the second.
    IndexRow short_row(make_bytes({2, 1, 0, 0, 0, 1, 0, 0, 0}));
    EXPECT_EQ(short_row.get_cell_at_index(0)->get_offset(), 1u);
    EXPECT_DEATH(short_row.get_cell_at_index(1), borrow_failure());
    // A cell made by hand over fewer than eight bytes.
    IndexCell cell(make_bytes({1, 2, 3, 4}));
    EXPECT_DEATH(cell.get_count(), short_cell_failure);
    EXPECT_DEATH(cell.set_offset(1), short_cell_failure);
}

// set() fills the positions before it with empty cells and replaces only
// its own; the inherited reads see the record as last serialised.
TEST(WritableIndexRow, SetFillsGapsAndReadsSeeTheLastSerialisedRecord) {
    WritableIndexRow row;
    EXPECT_EQ(contents(row.to_bytes()), std::vector<uint8>{0});
    row.set(3, cell_with(40, {5}));
    Rc<WritableIndexCell> placeholder = row.get_writable_cell_at_index(0);
    row.set(3, cell_with(40, {5, 9}));
    ASSERT_EQ(row.cells.size(), 4u);
    EXPECT_EQ(row.get_writable_cell_at_index(0).get(), placeholder.get());
    EXPECT_TRUE(row.is_cell_has_exists(3));
    EXPECT_FALSE(row.is_cell_has_exists(4));
    EXPECT_EQ(row.get_bytes_count(), 33u);
    EXPECT_EQ(row.get_cells_count(), 0);  // not serialised yet

    std::vector<uint8> expected{4};
    expected.resize(1 + 3 * 8, 0);
    for (uint8 b : words({40, 2})) expected.push_back(b);
    Rc<ByteArray> record = row.to_bytes();
    EXPECT_EQ(contents(record), expected);
    EXPECT_EQ(row.underlying_data.get(), record.get());
    EXPECT_EQ(row.get_cells_count(), 4);
    EXPECT_EQ(row.get_cell_at_index(3)->get_count(), 2u);
}

TEST(WritableIndexRowDeathTest, A255thCellStopsTheProcessWhenSerialised) {
    WritableIndexRow row;
    row.set(254, cell_with(4, {0}));
    EXPECT_EQ(row.cells.size(), 255u);
    EXPECT_DEATH(row.to_bytes(), assertion_failure("src/Writer/WritableIndexRow.cpp", 8,
                                                   "virtual Rc<ByteArray> Lexarium::Writer::WritableIndexRow::to_bytes()",
                                                   "this->cells.size() < 255"));
}

// A table blob parses into row views over it and serialises back; bytes
// after the last row are ignored.
TEST(IndexTable, ParsesRowsAsViewsAndSerialisesThemBack) {
    std::vector<uint8> bytes = table_blob({{97, {{4, 1}}}, {98, {{8, 1}, {12, 1}}}});
    std::vector<uint8> with_tail = bytes;
    with_tail.insert(with_tail.end(), {9, 9, 9});
    Rc<ByteArray> blob = make_bytes(with_tail);
    std::unique_ptr<IndexTable> table(new IndexTable(blob));
    EXPECT_EQ(table->get_bytes_count(), 65559u);
    ASSERT_EQ((*table)[97]->get_cells_count(), 1);
    EXPECT_EQ((*table)[97]->get_cell_at_index(0)->get_offset(), 4u);
    ASSERT_EQ((*table)[98]->get_cells_count(), 2);
    EXPECT_EQ((*table)[98]->get_cell_at_index(1)->get_offset(), 12u);
    EXPECT_EQ((*table)[98]->get_cell_at_index(1)->get_count(), 1u);
    for (uint32 code_point : {0u, 96u, 99u, 65534u}) {
        EXPECT_EQ((*table)[code_point]->get_cells_count(), 0);
        EXPECT_EQ((*table)[code_point]->to_bytes()->data, blob->data + code_point + (code_point > 98 ? 24 : 0));
    }
    EXPECT_EQ(contents(table->to_bytes()), bytes);
}

TEST(IndexTableDeathTest, BlobEndingBeforeTheLastRowStopsTheProcess) {
    // One byte short: the count byte of row 65534 is missing.
    EXPECT_DEATH(IndexTable(make_zeros(65534)), borrow_failure());
    EXPECT_DEATH(IndexTable(make_zeros(0)), borrow_failure());
    // Row 0 claims a cell, so the rows run out of blob before slot 65534.
    std::vector<uint8> bytes(65535, 0);
    bytes[0] = 1;
    EXPECT_DEATH(IndexTable(make_bytes(bytes)), borrow_failure());
    // The last row claims a cell that is not there.
    std::vector<uint8> last(65535 + 4, 0);
    last[65534] = 1;
    EXPECT_DEATH(IndexTable(make_bytes(last)), borrow_failure());
}

// A key record is its data pointer, a length byte and the key's bytes,
// whichever is set first; the length byte keeps only the low eight bits.
TEST(IndexKey, BuildsTheRecordWhicheverFieldIsSetFirst) {
    IndexKey empty;
    EXPECT_EQ(contents(empty.to_bytes()), std::vector<uint8>(5, 0));
    EXPECT_EQ(empty.get_key()->length, 0u);

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

    for (uint32 length : {254u, 255u, 256u, 300u}) {
        IndexKey key;
        key.set_key(make_bytes(std::vector<uint8>(length, 0x61)));
        EXPECT_EQ(key.get_bytes_count(), length + 5);
        EXPECT_EQ(key.to_bytes()->data[4], static_cast<uint8>(length)) << length;
    }
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

TEST(IndexKeyDeathTest, RecordsTooShortForTheirKeyStopTheProcess) {
    const std::string failure = assertion_failure("src/IndexKey.cpp", 9, "Lexarium::IndexKey::IndexKey(Rc<ByteArray>)",
                                                  "this->underlying_data->length > 4 + 1");
    EXPECT_DEATH(IndexKey(make_bytes({0, 0, 0, 0, 0})), failure);
    EXPECT_DEATH(IndexKey(make_bytes({})), failure);
    EXPECT_EQ(IndexKey(make_bytes({0, 0, 0, 0, 1, 0x61})).get_key()->length, 1u);
    // The length byte claims more than the record holds.
    IndexKey key(make_bytes({0, 0, 0, 0, 3, 0x61, 0x62}));
    EXPECT_DEATH(key.get_key(), borrow_failure());
}
