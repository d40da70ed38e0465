#ifndef QUORVEX_WRITER_WRITABLE_INDEX_ROW_H
#define QUORVEX_WRITER_WRITABLE_INDEX_ROW_H

#include <vector>

#include "Format.h"
#include "IndexRow.h"
#include "TypeDefinitions.h"
#include "Writer/WritableIndexCell.h"

namespace Lexarium::Writer {

// WritableIndexRow: the row the writer grows cell by cell. `cells` is dense:
// element i is the cell for character position i. The inherited read
// operations (get_cells_count, get_cell_at_index) see `underlying_data`,
// which starts as the empty record 00 and is rebuilt only by to_bytes(); the
// writable operations work on `cells`.
class QUORVEX_API WritableIndexRow : public IndexRow {
public:
    std::vector<Rc<WritableIndexCell>> cells;

    // An empty row: record 00, no cells.
    WritableIndexRow();

    // An empty row that shares `empty_record`, the one-byte record 00, with
    // other rows; it never writes to it. The writer's 65535 rows share one.
    explicit WritableIndexRow(Rc<ByteArray> empty_record);

    // 1 + 8 x cells.size().
    uint32 get_bytes_count() const override;
    ~WritableIndexRow() override;

    // Whether `index` < cells.size().
    bool is_cell_has_exists(uint8 index) const override;

    // Rebuilds the row record from `cells` (each cell refreshing its count
    // first), makes it `underlying_data` and returns it; a row without cells
    // keeps and returns its empty record. A row of 255 cells or
    // more stops the process with "this->cells.size() < 255".
    Rc<ByteArray> to_bytes() override;

    // The cell at `index`, shared. The cell must exist (is_cell_has_exists).
    Rc<WritableIndexCell> get_writable_cell_at_index(uint8 index);

    // Puts `cell` at `index`, first filling the positions up to `index` that
    // do not exist yet with fresh empty cells.
    void set(uint8 index, Rc<WritableIndexCell> cell);
};

}  // namespace Lexarium::Writer

#endif
