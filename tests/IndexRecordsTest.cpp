// The record classes over the blobs' bytes: cells, rows, the table and key
// records, as readers see them and as the writer builds them.
#include <gtest/gtest.h>

#include <functional>
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

}  // namespace

// Cells are offset then count, little-endian; a writable cell's count is its
// list's length once serialised. Rows hand out cells as views into the
// record (writes change it), and the subscript keeps the low eight bits.
TEST(IndexRow, CellsAreViewsIntoTheRecord) {
    EXPECT_EQ(contents(IndexCell(0xA1B2C3D4u, 0xFFFFFFFFu).to_bytes()),
              (std::vector<uint8>{0xD4, 0xC3, 0xB2, 0xA1, 0xFF, 0xFF, 0xFF, 0xFF}));
    WritableIndexCell writable;
    writable.key_offsets = {0, 7, 19};
    writable.set_offset(12);
    EXPECT_EQ(contents(writable.to_bytes()), words({12, 3}));

    Rc<ByteArray> record = row_record(3);
    IndexRow row(record);
    EXPECT_EQ(row.get_bytes_count(), 25u);
    EXPECT_FALSE(row.is_cell_has_exists(3));
    for (uint8 i = 0; i < 3; ++i) {
        EXPECT_EQ(row.get_cell_at_index(i)->get_count(), i);
        EXPECT_EQ(row.get_cell_at_index(i)->to_bytes()->data, record->data + 1 + 8 * i);
    }
    row.get_cell_at_index(1)->set_count(9);
    EXPECT_EQ(record->data[1 + 8 + 4], 9);
    EXPECT_EQ(row[257]->get_offset(), 101u);
}

// set() fills the positions before it with empty cells; the inherited reads
// see the record as last serialised.
TEST(WritableIndexRow, SetFillsGapsAndReadsSeeTheLastSerialisedRecord) {
    WritableIndexRow row;
    row.set(3, cell_with(40, {5}));
    row.set(3, cell_with(40, {5, 9}));
    EXPECT_EQ(row.get_cells_count(), 0);  // not serialised yet
    std::vector<uint8> expected(1 + 3 * 8, 0);
    expected[0] = 4;
    for (uint8 b : words({40, 2})) expected.push_back(b);
    EXPECT_EQ(contents(row.to_bytes()), expected);
    EXPECT_EQ(row.get_cell_at_index(3)->get_count(), 2u);
}

// A table blob parses into row views over it and serialises back; bytes
// after the last row are ignored.
TEST(IndexTable, ParsesRowsAsViewsAndSerialisesThemBack) {
    std::vector<uint8> bytes = table_blob({{97, {{4, 1}}}, {98, {{8, 1}, {12, 1}}}});
    std::vector<uint8> with_tail = bytes;
    with_tail.insert(with_tail.end(), {9, 9, 9});
    Rc<ByteArray> blob = make_bytes(with_tail);
    std::unique_ptr<IndexTable> table(new IndexTable(blob));
    EXPECT_EQ((*table)[98]->get_cell_at_index(1)->get_offset(), 12u);
    for (uint32 code_point : {0u, 96u, 99u, 65534u}) {
        EXPECT_EQ((*table)[code_point]->to_bytes()->data, blob->data + code_point + (code_point > 98 ? 24 : 0));
    }
    EXPECT_EQ(contents(table->to_bytes()), bytes);
}

// A key record is its data pointer, a length byte (the low eight bits of
// the length) and the key's bytes, whichever is set first; read in place.
TEST(IndexKey, BuildsAndReadsTheRecord) {
    IndexKey key_first;
    key_first.set_key(make_bytes({0x61, 0x62, 0x63}));
    key_first.set_data_pointer(7);
    EXPECT_EQ(contents(key_first.to_bytes()), (std::vector<uint8>{7, 0, 0, 0, 3, 0x61, 0x62, 0x63}));
    IndexKey long_key;
    long_key.set_key(make_bytes(std::vector<uint8>(300, 0x61)));
    EXPECT_EQ(long_key.to_bytes()->data[4], static_cast<uint8>(300));

    Rc<ByteArray> record = make_bytes({0x03, 0x01, 0, 0, 2, 0x62, 0x63});
    IndexKey key(record);
    EXPECT_EQ(key.get_data_pointer(), 259u);
    EXPECT_EQ(key.get_key()->data, record->data + 5);
    key.set_data_pointer(0x01020304u);
    EXPECT_EQ(contents(record), (std::vector<uint8>{4, 3, 2, 1, 2, 0x62, 0x63}));
}

// Each record's assertions, and records that claim more bytes than they have.
TEST(IndexRecordsDeathTest, RecordsThatDoNotHoldWhatTheyClaimStopTheProcess) {
    const std::string missing_cell = assertion_failure(
        "src/IndexRow.cpp", 20, "virtual Rc<Lexarium::IndexCell> Lexarium::IndexRow::get_cell_at_index(uint8)",
        "index < this->get_cells_count()");
    const std::string short_key = assertion_failure("src/IndexKey.cpp", 9, "Lexarium::IndexKey::IndexKey(Rc<ByteArray>)",
                                                    "this->underlying_data->length > 4 + 1");
    std::vector<uint8> wide_table(65535, 0);
    wide_table[0] = 1;
    const std::vector<std::pair<std::function<void()>, std::string>> cases = {
        {[] { IndexRow(row_record(2)).get_cell_at_index(2); }, missing_cell},
        {[] { IndexRow(make_bytes({2, 1, 0, 0, 0, 1, 0, 0, 0})).get_cell_at_index(1); }, borrow_failure()},
        {[] { IndexCell(make_bytes({1, 2, 3, 4})).get_count(); },
         assertion_condition("this->underlying_data->length >= IndexCell::get_bytes_count()")},
        {[] {
             WritableIndexRow row;
             row.set(254, cell_with(4, {0}));
             row.to_bytes();
         },
         assertion_failure("src/Writer/WritableIndexRow.cpp", 8,
                           "virtual Rc<ByteArray> Lexarium::Writer::WritableIndexRow::to_bytes()",
                           "this->cells.size() < 255")},
        {[] { IndexTable(make_zeros(65534)); }, borrow_failure()},
        {[&] { IndexTable(make_bytes(wide_table)); }, borrow_failure()},
        {[] { IndexKey(make_bytes({0, 0, 0, 0, 0})); }, short_key},
        {[] { IndexKey(make_bytes({0, 0, 0, 0, 3, 0x61, 0x62})).get_key(); }, borrow_failure()},
    };
    for (size_t i = 0; i < cases.size(); ++i) {
        EXPECT_DEATH(cases[i].first(), cases[i].second) << "case " << i;
    }
}
