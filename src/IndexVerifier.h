#ifndef QUORVEX_INDEX_VERIFIER_H
#define QUORVEX_INDEX_VERIFIER_H

#include <string>
#include <vector>

#include "TypeDefinitions.h"

namespace Lexarium {

// One thing wrong with a file set: which blob, where, and what was expected.
struct QUORVEX_API IndexProblem {
    std::string blob;  // "table.bin", "index.bin", "key.bin", "data.bin" or a path
    uint64_t offset;   // byte offset in that blob
    std::string message;
};

// What IndexVerifier found.
struct QUORVEX_API IndexVerification {
    // The first problems found, at most the limit asked for.
    std::vector<IndexProblem> problems;
    // All problems found, including those not kept.
    uint64_t problem_count = 0;
    // Items (key records) seen.
    uint64_t items = 0;

    bool is_sound() const { return this->problem_count == 0; }
};

// IndexVerifier: checks that four blobs form a sound index, one that a
// reader can load and search without ever stopping on a range check. It
// never aborts, throws only std::bad_alloc, and reads nothing outside the
// blobs, whatever they hold.
//
// The checks, all cheap (linear in the blobs):
// - table.bin is exactly 65535 row records, each of at most 254 cells, and
//   row 0 is empty;
// - index.bin starts with the zero sentinel and holds whole entries; every
//   cell's list lies inside it, 4-byte aligned past the sentinel, and empty
//   cells are (0, 0); the lists account for every entry;
// - every posting-list entry is the start of a key record, and entries
//   ascend within a list;
// - key records tile key.bin exactly, with stored lengths of at most 254
//   bytes; value records tile data.bin exactly; key k points at value k.
// With `deep`, also: every key is listed in exactly the cells its stored
// characters call for (a key stored shortened may also be listed at the
// positions past its stored text), and nothing else is listed.
class QUORVEX_API IndexVerifier {
public:
    // Checks the four blobs, given in the order table, index, key, data.
    // Keeps at most `max_problems` problems in the result (all are counted).
    static IndexVerification verify(const ByteArray& table, const ByteArray& index, const ByteArray& key,
                                    const ByteArray& data, bool deep, size_t max_problems = 100);

    // Reads table.bin, index.bin, key.bin and data.bin from `directory` and
    // checks them. A missing or unreadable file is a problem of its own (the
    // path as blob, offset 0), not an abort or an exception.
    static IndexVerification verify_directory(const std::string& directory, bool deep, size_t max_problems = 100);
};

}  // namespace Lexarium

#endif
