#ifndef QUORVEX_WRITER_BLOB_BUFFER_H
#define QUORVEX_WRITER_BLOB_BUFFER_H

#include <cstring>
#include <memory>

#include "TypeDefinitions.h"

namespace Lexarium::Writer {

// _BlobBuffer: one blob under construction, appended to record by record
// and handed over as a single owning ByteArray. Reserve the expected size up
// front; when the estimate is exact the bytes are handed over without a copy.
class _BlobBuffer {
public:
    // Makes room for `capacity` bytes in all. Throws std::length_error when
    // the blob would not fit the format's 32-bit offsets.
    void reserve(uint64_t capacity);

    // Room for `count` more bytes at the end; the caller fills all of them.
    uint8* append(uint32 count) {
        if (this->used + count > this->capacity) {
            this->grow(this->used + count);
        }
        uint8* position = this->bytes.get() + this->used;
        this->used += count;
        return position;
    }

    uint32 size() const { return static_cast<uint32>(this->used); }

    // The bytes appended so far, as an owning array of exactly size() bytes;
    // the buffer is empty afterwards.
    Rc<ByteArray> take();

private:
    void grow(uint64_t needed);

    std::unique_ptr<uint8[]> bytes;
    uint64_t capacity = 0;
    uint64_t used = 0;
};

}  // namespace Lexarium::Writer

#endif
