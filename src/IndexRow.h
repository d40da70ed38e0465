#ifndef QUORVEX_INDEX_ROW_H
#define QUORVEX_INDEX_ROW_H

#include "IMeasurable.h"
#include "IndexCell.h"
#include "TypeDefinitions.h"

namespace Lexarium {

// IndexRow: a read-only view over one row record of the table blob, the
// cells of one character. Byte 0 is the cells count N, then N cell records
// of 8 bytes; cell i lists the keys that hold the character at position i.
// Cells handed out are views into the same bytes, valid while they live.
//
// The size is reached through the row's own get_bytes_count(); IMeasurable
// is deliberately a private base.
class QUORVEX_API IndexRow : private IMeasurable {
public:
    Rc<ByteArray> underlying_data;

    // Shares `bytes`, a row record; nothing is validated here.
    explicit IndexRow(Rc<ByteArray> bytes);

    // 8N + 1.
    uint32 get_bytes_count() const override;
    ~IndexRow() override;

    // Byte 0 of the record (0 for a record with no bytes at all).
    virtual uint8 get_cells_count() const;

    // A new cell viewing the 8 bytes of cell `index`. Stops the process with
    // "index < this->get_cells_count()" when there is no such cell.
    virtual Rc<IndexCell> get_cell_at_index(uint8 index);

    // Whether `index` < get_cells_count().
    virtual bool is_cell_has_exists(uint8 index) const;

    // The record's bytes themselves, shared.
    virtual Rc<ByteArray> to_bytes();

    // get_cell_at_index() with `index` cut to its low 8 bits, so 256
    // addresses cell 0 and 257 cell 1.
    Rc<IndexCell> operator[](uint32 index);
};

}  // namespace Lexarium

#endif
