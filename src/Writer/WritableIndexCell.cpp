#include "Assertions.h"
#include "Writer/WritableIndexCell.h"

namespace Lexarium::Writer {

WritableIndexCell::WritableIndexCell() : IndexCell(0, 0) {}

WritableIndexCell::~WritableIndexCell() = default;

Rc<ByteArray> WritableIndexCell::to_bytes() {
    this->set_count(static_cast<uint32>(this->key_offsets.size()));
    return this->underlying_data;
}

}  // namespace Lexarium::Writer
