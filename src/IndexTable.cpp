#include "Assertions.h"
#include "IndexTable.h"

#include <cstring>

namespace Lexarium {

IndexTable::IndexTable() = default;

IndexTable::IndexTable(Rc<ByteArray> bytes) : underlying_data(std::move(bytes)) {
    const ByteArray& blob = *this->underlying_data;
    uint32 offset = 0;
    for (uint32 slot = 0; slot < Format::TABLE_ROW_COUNT; ++slot) {
        // A blob that ends exactly here has no count byte to read: let the
        // same range check that guards every row report it.
        if (offset >= blob.length) {
            blob.borrow(offset, Format::ROW_HEADER_SIZE);
        }
        uint32 cells_count = blob.data[offset];
        uint32 row_size = cells_count * IndexCell::get_bytes_count() + Format::ROW_HEADER_SIZE;
        this->rows[slot] = Rc<IndexRow>(new IndexRow(blob.borrow(offset, row_size)));
        offset += row_size;
    }
}

IndexTable::~IndexTable() {
    for (uint32 slot = Format::TABLE_ROW_COUNT; slot-- > 0;) {
        this->rows[slot] = Rc<IndexRow>();
    }
}

uint32 IndexTable::get_bytes_count() const {
    uint32 total = 0;
    for (const Rc<IndexRow>& row : this->rows) {
        assert(!row.is_null());
        total += row->get_bytes_count();
    }
    return total;
}

Rc<IndexRow> IndexTable::operator[](uint32 index) {
    assert(index < Format::TABLE_ROW_COUNT);
    return this->rows[index];
}

Rc<ByteArray> IndexTable::to_bytes() {
    Rc<ByteArray> blob(new ByteArray(this->get_bytes_count()));
    uint32 position = 0;
    for (Rc<IndexRow>& row : this->rows) {
        Rc<ByteArray> record = row->to_bytes();
        uint32 size = row->get_bytes_count();
        // A row's record is exactly as long as the row says it is.
        assert(record->length == size);
        std::memcpy(blob->data + position, record->data, size);
        position += record->length;
    }
    return blob;
}

}  // namespace Lexarium
