#include "Assertions.h"
#include "IndexRow.h"

#include "Records.h"

namespace Lexarium {

IndexRow::IndexRow(Rc<ByteArray> bytes) : underlying_data(std::move(bytes)) {}

IndexRow::~IndexRow() = default;

uint8 IndexRow::get_cells_count() const {
    return this->underlying_data->length == 0 ? 0 : Records::Row::decode(this->underlying_data->data).cells_count;
}

// Cell i starts at byte 1 + 8i. The count byte is checked first; borrow()
// then rejects a record that is cut short.
Rc<IndexCell> IndexRow::get_cell_at_index(uint8 index) {
    uint32 start = static_cast<uint32>(index) * IndexCell::get_bytes_count() + Format::ROW_HEADER_SIZE;
    assert(index < this->get_cells_count());
    Rc<ByteArray> view = this->underlying_data->borrow(start, IndexCell::get_bytes_count());
    return Rc<IndexCell>(new IndexCell(std::move(view)));
}

uint32 IndexRow::get_bytes_count() const {
    return static_cast<uint32>(this->get_cells_count()) * IndexCell::get_bytes_count() + Format::ROW_HEADER_SIZE;
}

bool IndexRow::is_cell_has_exists(uint8 index) const { return index < this->get_cells_count(); }

Rc<ByteArray> IndexRow::to_bytes() { return this->underlying_data; }

Rc<IndexCell> IndexRow::operator[](uint32 index) { return this->get_cell_at_index(static_cast<uint8>(index)); }

}  // namespace Lexarium
