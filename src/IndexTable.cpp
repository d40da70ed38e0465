#include "Assertions.h"
#include "IndexTable.h"

#include <cstring>

#include "Records.h"

namespace Lexarium {

IndexTable::IndexTable() = default;

IndexTable::IndexTable(Rc<ByteArray> bytes) : underlying_data(std::move(bytes)) {
    const ByteArray& blob = *this->underlying_data;
    Records::TableWalk walk =
        Records::walk_table(blob.data, blob.length, [&](uint32 slot, Records::Row row, uint64_t offset) {
            this->rows[slot] =
                Rc<IndexRow>(new IndexRow(blob.borrow(static_cast<uint32>(offset), static_cast<uint32>(row.size()))));
        });
    if (!walk.complete) {
        // The first row that does not fit (or has no count byte to read)
        // fails the same range check that guards every row.
        uint64_t size = walk.end < blob.length ? Records::Row::decode(blob.data + walk.end).size()
                                               : uint64_t{Format::ROW_HEADER_SIZE};
        blob.borrow(static_cast<uint32>(walk.end), static_cast<uint32>(size));
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
