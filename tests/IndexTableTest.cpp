#include <gtest/gtest.h>

#include <memory>

#include "IndexTable.h"
#include "TestSupport.h"
#include "Writer/WritableIndexRow.h"

using Lexarium::IndexRow;
using Lexarium::IndexTable;
using Lexarium::Writer::WritableIndexCell;
using Lexarium::Writer::WritableIndexRow;
using quorvex_test::borrow_failure;
using quorvex_test::contents;
using quorvex_test::make_bytes;
using quorvex_test::make_zeros;

namespace {

void append_cell(std::vector<uint8>& bytes, uint8 offset, uint8 count) {
    for (uint8 b : {offset, uint8{0}, uint8{0}, uint8{0}, count, uint8{0}, uint8{0}, uint8{0}}) {
        bytes.push_back(b);
    }
}

// The table blob of the two items ("ab" -> 58, "b" -> 59 5A): row 'a' (97)
// has cell 0 = (4, 1); row 'b' (98) has cells (8, 1) and (12, 1).
std::vector<uint8> two_item_table_blob() {
    std::vector<uint8> blob(97, 0);
    blob.push_back(1);
    append_cell(blob, 4, 1);
    blob.push_back(2);
    append_cell(blob, 8, 1);
    append_cell(blob, 12, 1);
    blob.resize(blob.size() + 65436, 0);
    return blob;
}

// The writer's starting point: every slot holds an empty writable row.
std::unique_ptr<IndexTable> writable_table() {
    std::unique_ptr<IndexTable> table(new IndexTable());
    for (auto& slot : table->rows) {
        slot = Rc<IndexRow>(new WritableIndexRow());
    }
    return table;
}

WritableIndexRow& writable_row(IndexTable& table, uint32 code_point) {
    return static_cast<WritableIndexRow&>(*table.rows[code_point]);
}

}  // namespace

TEST(IndexTable, ParsesAZeroBlobIntoEmptyRowViews) {
    Rc<ByteArray> blob = make_zeros(65535);
    std::unique_ptr<IndexTable> table(new IndexTable(blob));
    EXPECT_EQ(table->get_bytes_count(), 65535u);
    for (uint32 code_point : {0u, 1u, 97u, 65534u}) {
        Rc<IndexRow> row = (*table)[code_point];
        EXPECT_EQ(row->get_cells_count(), 0);
        EXPECT_EQ(row->underlying_data->data, blob->data + code_point);
        EXPECT_TRUE(row->underlying_data->is_borrowed);
    }
}

TEST(IndexTable, ParsesRowsWithCellsAndSerialisesThemBack) {
    std::vector<uint8> bytes = two_item_table_blob();
    ASSERT_EQ(bytes.size(), 65559u);
    std::unique_ptr<IndexTable> table(new IndexTable(make_bytes(bytes)));
    EXPECT_EQ(table->get_bytes_count(), 65559u);

    Rc<IndexRow> a = (*table)[97];
    ASSERT_EQ(a->get_cells_count(), 1);
    EXPECT_EQ(a->get_cell_at_index(0)->get_offset(), 4u);
    Rc<IndexRow> b = (*table)[98];
    ASSERT_EQ(b->get_cells_count(), 2);
    EXPECT_EQ(b->get_cell_at_index(1)->get_offset(), 12u);
    EXPECT_EQ(b->get_cell_at_index(1)->get_count(), 1u);
    EXPECT_EQ((*table)[99]->get_cells_count(), 0);

    EXPECT_EQ(contents(table->to_bytes()), bytes);
}

TEST(IndexTable, IgnoresBytesAfterTheLastRow) {
    std::vector<uint8> bytes = two_item_table_blob();
    std::vector<uint8> with_tail = bytes;
    for (uint8 b : {9, 9, 9}) {
        with_tail.push_back(b);
    }
    std::unique_ptr<IndexTable> table(new IndexTable(make_bytes(with_tail)));
    EXPECT_EQ(table->get_bytes_count(), 65559u);
    EXPECT_EQ(contents(table->to_bytes()), bytes);
}

TEST(IndexTable, WriterTableWithoutCellsSerialisesToEmptyRows) {
    std::unique_ptr<IndexTable> table = writable_table();
    EXPECT_EQ(table->get_bytes_count(), 65535u);
    EXPECT_EQ(contents(table->to_bytes()), std::vector<uint8>(65535, 0));
}

TEST(IndexTable, WriterTableSerialisesRowsInCodePointOrder) {
    std::unique_ptr<IndexTable> table = writable_table();
    auto cell = [](uint32 offset, uint32 keys) {
        Rc<WritableIndexCell> c(new WritableIndexCell());
        c->set_offset(offset);
        c->key_offsets.assign(keys, 0);
        return c;
    };
    writable_row(*table, 98).set(1, cell(12, 1));
    writable_row(*table, 98).get_writable_cell_at_index(0)->set_offset(8);
    writable_row(*table, 98).get_writable_cell_at_index(0)->key_offsets.push_back(7);
    writable_row(*table, 97).set(0, cell(4, 1));

    EXPECT_EQ(table->get_bytes_count(), 65559u);
    EXPECT_EQ(contents(table->to_bytes()), two_item_table_blob());
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
