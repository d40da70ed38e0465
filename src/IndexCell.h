#ifndef QUORVEX_INDEX_CELL_H
#define QUORVEX_INDEX_CELL_H

#include "TypeDefinitions.h"

namespace Lexarium {

// IndexCell: a typed view over one 8-byte cell record, which names a posting
// list in index.bin: bytes 0..3 the list's byte offset, bytes 4..7 its number
// of uint32 entries, both little-endian. Getters read and setters write
// `underlying_data` in place, even when it is a view into a table blob.
class QUORVEX_API IndexCell {
public:
    Rc<ByteArray> underlying_data;

    // Shares `bytes` (no copy, no length check here). A cell over fewer than
    // 8 bytes stops the process at its first field access.
    explicit IndexCell(Rc<ByteArray> bytes);

    // A new owned 8-byte record holding `offset` and `count`.
    IndexCell(uint32 offset, uint32 count);

    virtual ~IndexCell();

    // The record's bytes themselves, shared: a new reference, never a copy.
    virtual Rc<ByteArray> to_bytes();

    uint32 get_offset() const;
    uint32 get_count() const;
    void set_offset(uint32 offset);
    void set_count(uint32 count);

    // The size of a cell record: 8.
    static uint8 get_bytes_count();

private:
    uint8* field_bytes(uint32 field_offset) const;
};

}  // namespace Lexarium

#endif
