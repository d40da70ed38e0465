#include "Assertions.h"
#include "IndexKey.h"
#include "Records.h"
#include <cstring>
namespace Lexarium {

IndexKey::IndexKey(Rc<ByteArray> bytes) : underlying_data(std::move(bytes)) {
    // The 4 + 1 header bytes and at least one byte of key.
    assert(this->underlying_data->length > 4 + 1);
}

IndexKey::IndexKey() : underlying_data(new ByteArray(Format::KEY_RECORD_HEADER_SIZE)) {
    std::memset(this->underlying_data->data, 0, Format::KEY_RECORD_HEADER_SIZE);
}

IndexKey::~IndexKey() = default;

uint32 IndexKey::get_bytes_count() const { return this->underlying_data->length; }

uint32 IndexKey::get_data_pointer() const { return Records::Key::decode(this->underlying_data->data).data_pointer; }

void IndexKey::set_data_pointer(uint32 data_pointer) {
    LittleEndian::store_u32(this->underlying_data->data, data_pointer);
}

Rc<ByteArray> IndexKey::get_key() const {
    uint8 key_length = Records::Key::decode(this->underlying_data->data).length;
    return this->underlying_data->borrow(Format::KEY_RECORD_HEADER_SIZE, key_length);
}

void IndexKey::set_key(Rc<ByteArray> key) {
    uint8* current = this->underlying_data->data;
    current[Format::KEY_DATA_POINTER_SIZE] = static_cast<uint8>(key->length);
    Rc<ByteArray> record(new ByteArray(key->length + Format::KEY_RECORD_HEADER_SIZE));
    std::memcpy(record->data, current, Format::KEY_RECORD_HEADER_SIZE);
    if (key->length != 0) {
        std::memcpy(record->data + Format::KEY_RECORD_HEADER_SIZE, key->data, key->length);
    }
    this->underlying_data = std::move(record);
}

Rc<ByteArray> IndexKey::to_bytes() { return this->underlying_data; }

}  // namespace Lexarium
