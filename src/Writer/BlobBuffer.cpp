#include "Assertions.h"
#include "Writer/BlobBuffer.h"

#include <algorithm>
#include <stdexcept>

namespace Lexarium::Writer {

namespace {

// Offsets into a blob are uint32, so no blob may reach 4 GiB.
constexpr uint64_t MAX_BLOB_BYTES = 0xFFFFFFFFu;

}  // namespace

void _BlobBuffer::reserve(uint64_t new_capacity) {
    if (new_capacity > this->capacity) {
        this->grow(new_capacity);
    }
}

void _BlobBuffer::grow(uint64_t needed) {
    if (needed > MAX_BLOB_BYTES) {
        throw std::length_error("index blob would exceed 4 GiB");
    }
    uint64_t new_capacity = std::min<uint64_t>(MAX_BLOB_BYTES, std::max<uint64_t>(needed, this->capacity * 2));
    std::unique_ptr<uint8[]> new_bytes(new uint8[new_capacity]);
    if (this->used != 0) {
        std::memcpy(new_bytes.get(), this->bytes.get(), this->used);
    }
    this->bytes = std::move(new_bytes);
    this->capacity = new_capacity;
}

Rc<ByteArray> _BlobBuffer::take() {
    uint32 length = this->size();
    Rc<ByteArray> blob;
    if (this->used == this->capacity && this->bytes) {
        // Exactly sized: hand the allocation itself over.
        ByteArray* array = new ByteArray(this->bytes.get(), length);
        this->bytes.release();
        blob = Rc<ByteArray>(array);
    } else {
        blob = Rc<ByteArray>(new ByteArray(length));
        if (length != 0) {
            std::memcpy(blob->data, this->bytes.get(), length);
        }
        this->bytes.reset();
    }
    this->capacity = 0;
    this->used = 0;
    return blob;
}

}  // namespace Lexarium::Writer
