#include "Assertions.h"
#include "IndexCell.h"

#include "LittleEndian.h"
#include "Records.h"

namespace Lexarium {

IndexCell::IndexCell(Rc<ByteArray> bytes) : underlying_data(std::move(bytes)) {}

IndexCell::IndexCell(uint32 offset, uint32 count)
    : underlying_data(new ByteArray(Format::CELL_RECORD_SIZE)) {
    this->set_offset(offset);
    this->set_count(count);
}

IndexCell::~IndexCell() = default;

Rc<ByteArray> IndexCell::to_bytes() { return this->underlying_data; }

uint8* IndexCell::field_bytes(uint32 field_offset) const {
    // Cells handed out by rows are always 8 bytes; this stops a cell built by
    // hand over a shorter array before it reads past it.
    assert(this->underlying_data->length >= IndexCell::get_bytes_count());
    return this->underlying_data->data + field_offset;
}

uint32 IndexCell::get_offset() const { return LittleEndian::load_u32(this->field_bytes(0)); }

uint32 IndexCell::get_count() const { return LittleEndian::load_u32(this->field_bytes(4)); }

void IndexCell::set_offset(uint32 offset) { LittleEndian::store_u32(this->field_bytes(0), offset); }

void IndexCell::set_count(uint32 count) { LittleEndian::store_u32(this->field_bytes(4), count); }

uint8 IndexCell::get_bytes_count() { return Format::CELL_RECORD_SIZE; }

}  // namespace Lexarium
