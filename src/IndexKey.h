#ifndef QUORVEX_INDEX_KEY_H
#define QUORVEX_INDEX_KEY_H

#include "Format.h"
#include "IMeasurable.h"
#include "TypeDefinitions.h"

namespace Lexarium {

// IndexKey: a typed view over one key record of key.bin:
//   bytes 0..3  uint32 data pointer, the offset of the value record in data.bin
//   byte  4     uint8 key length L
//   bytes 5..   the L bytes of the key (UTF-8)
// The writer builds one per item (IndexKey(), set_key, set_data_pointer,
// to_bytes); the reader reads records in place.
class QUORVEX_API IndexKey : public IMeasurable {
public:
    Rc<ByteArray> underlying_data;

    // Shares `bytes`, a key record. A record must hold the 5-byte header and
    // at least one key byte, or the process stops with
    // "this->underlying_data->length > 4 + 1". L is not compared with the
    // record's size here; get_key() checks it.
    explicit IndexKey(Rc<ByteArray> bytes);

    // A new owned 5-byte record, zeroed: data pointer 0, empty key.
    IndexKey();

    // The record's size in bytes, 5 + L for a well-formed record.
    uint32 get_bytes_count() const override;
    ~IndexKey() override;

    uint32 get_data_pointer() const;
    void set_data_pointer(uint32 data_pointer);

    // A view (no copy) of the L key bytes; valid while the record's bytes
    // live. A record shorter than 5 + L stops the process with
    // "offset + count <= this->length".
    Rc<ByteArray> get_key() const;

    // Replaces the key, keeping the data pointer. The length byte gets the
    // key's length cut to 8 bits, so a key of 256 bytes or more would leave a
    // record that contradicts itself; the writer shortens keys to at most 254
    // bytes before it gets here.
    void set_key(Rc<ByteArray> key);

    // The record's bytes themselves, shared.
    Rc<ByteArray> to_bytes();
};

}  // namespace Lexarium

#endif
