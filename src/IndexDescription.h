#ifndef QUORVEX_INDEX_DESCRIPTION_H
#define QUORVEX_INDEX_DESCRIPTION_H

#include <string>
#include <utility>
#include <vector>

#include "Export.h"
#include "TypeDefinitions.h"

namespace Lexarium {

// What an index says about itself: named texts stored as the value of the
// index's empty key. The writer files that key first (key.bin offset 0) and
// no keyword can reach it, so every reader of the format keeps working and
// every copy of the four files carries the description. See docs/FORMAT.md.
//
// Names the library itself writes and reads:
//   "folding"      the folding version the keys were folded with, in decimal;
//                  "0" (or no field) for an index of exact keys
//   "items"        the number of items put in, in decimal
//   "name", "description", "source", "tool"
//                  free text from whoever built the index
// Other names are kept as they are.
struct QUORVEX_API IndexDescription {
    std::vector<std::pair<std::string, std::string>> fields;  // in stored order

    // The text of field `name`, or "" when there is none.
    std::string get(const std::string& name) const;
    // Replaces field `name`, or adds it at the end.
    void set(const std::string& name, const std::string& text);
    // The folding version of the keys, 0 for exact keys (and for a field
    // that is not a number).
    uint32 folding() const;

    // The value that stores this description. Names must be 1 to 255 bytes
    // and texts below 65536 bytes; longer ones are cut (a name or text is
    // never split inside a UTF-8 character).
    std::string encode() const;
    // Reads a stored description; false when `bytes` is not one (then
    // `description` is left empty). Reads nothing outside the bytes.
    static bool decode(const uint8* bytes, uint64_t length, IndexDescription& description);
};

}  // namespace Lexarium

#endif
