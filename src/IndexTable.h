#ifndef QUORVEX_INDEX_TABLE_H
#define QUORVEX_INDEX_TABLE_H

#include <array>

#include "Format.h"
#include "IMeasurable.h"
#include "IndexRow.h"
#include "TypeDefinitions.h"

namespace Lexarium {

// IndexTable: the entry point of an index, one row per code point 0..65534,
// so the row of a character is a single array index. A parsed table keeps
// the table blob and its rows are views into it; the writer's table has no
// blob and holds WritableIndexRows. The object is large (65535 handles), so
// keep it on the heap.
class QUORVEX_API IndexTable : public IMeasurable {
public:
    // The table blob the rows view; null for a table the writer builds.
    Rc<ByteArray> underlying_data;
    // Slot u holds the row of code point u; null until filled.
    std::array<Rc<IndexRow>, Format::TABLE_ROW_COUNT> rows;

    // No blob and every slot null. The writer fills every slot before it
    // measures or serialises the table.
    IndexTable();

    // Parses `bytes`, a table blob, into 65535 row views in one pass, without
    // copying. A blob that ends before its 65535th row stops the process with
    // "offset + count <= this->length"; bytes after that row are ignored.
    explicit IndexTable(Rc<ByteArray> bytes);

    // The sum of the 65535 rows' sizes.
    uint32 get_bytes_count() const override;

    // Releases the rows from the last slot to the first, then the blob.
    ~IndexTable() override;

    // The row of code point `index`, shared; `index` must be below 65535.
    Rc<IndexRow> operator[](uint32 index);

    // A new table blob: the 65535 row records back to back, each row's
    // to_bytes() taken in slot order (a writable row rebuilds its record).
    Rc<ByteArray> to_bytes();
};

}  // namespace Lexarium

#endif
