#ifndef QUORVEX_WRITER_WRITABLE_INDEX_CELL_H
#define QUORVEX_WRITER_WRITABLE_INDEX_CELL_H

#include <vector>

#include "IndexCell.h"
#include "TypeDefinitions.h"

namespace Lexarium::Writer {

// WritableIndexCell: the cell the writer grows while it indexes items. It
// owns its 8-byte record and collects, in `key_offsets`, the key.bin offsets
// of the keys that hold its character at its position. The record's count is
// brought up to date only by to_bytes(); its offset is set by the build when
// the posting list is laid out.
class QUORVEX_API WritableIndexCell : public IndexCell {
public:
    std::vector<uint32> key_offsets;

    // An owned record (offset 0, count 0) and no key offsets.
    WritableIndexCell();
    ~WritableIndexCell() override;

    // Sets the count to key_offsets.size() (leaving the offset alone), then
    // returns the record's bytes, shared.
    Rc<ByteArray> to_bytes() override;
};

}  // namespace Lexarium::Writer

#endif
