#include "Assertions.h"
#include "Writer/WritableIndexRow.h"
#include <cstring>

namespace Lexarium::Writer {

Rc<ByteArray> WritableIndexRow::to_bytes() {
    assert(this->cells.size() < 255);
    if (this->cells.empty() && this->get_cells_count() == 0) {
        return this->underlying_data;  // already the empty record 00
    }
    Rc<ByteArray> record(new ByteArray(this->get_bytes_count()));
    record->data[0] = static_cast<uint8>(this->cells.size());
    uint32 position = Format::ROW_HEADER_SIZE;
    for (Rc<WritableIndexCell>& cell : this->cells) {
        Rc<ByteArray> cell_bytes = cell->to_bytes();
        std::memcpy(record->data + position, cell_bytes->data, cell_bytes->length);
        position += cell_bytes->length;
    }
    this->underlying_data = record;
    return record;
}

static Rc<ByteArray> make_empty_row_record() {
    Rc<ByteArray> record(new ByteArray(Format::ROW_HEADER_SIZE));
    record->data[0] = 0;
    return record;
}

WritableIndexRow::WritableIndexRow() : IndexRow(make_empty_row_record()) {}

WritableIndexRow::WritableIndexRow(Rc<ByteArray> empty_record) : IndexRow(std::move(empty_record)) {
    assert(this->underlying_data->length == Format::ROW_HEADER_SIZE && this->underlying_data->data[0] == 0);
}

WritableIndexRow::~WritableIndexRow() = default;

uint32 WritableIndexRow::get_bytes_count() const {
    uint32 total = Format::ROW_HEADER_SIZE;
    for (size_t i = 0; i < this->cells.size(); ++i) {
        total += IndexCell::get_bytes_count();
    }
    return total;
}

bool WritableIndexRow::is_cell_has_exists(uint8 index) const { return index < this->cells.size(); }

Rc<WritableIndexCell> WritableIndexRow::get_writable_cell_at_index(uint8 index) {
    assert(index < this->cells.size());
    return this->cells[index];
}

void WritableIndexRow::set(uint8 index, Rc<WritableIndexCell> cell) {
    while (this->cells.size() <= index) {
        this->cells.emplace_back(new WritableIndexCell());
    }
    this->cells[index] = std::move(cell);
}

}  // namespace Lexarium::Writer
