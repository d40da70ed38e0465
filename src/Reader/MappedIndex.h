#ifndef QUORVEX_READER_MAPPED_INDEX_H
#define QUORVEX_READER_MAPPED_INDEX_H

// Where each row of a table blob starts, and the four files of an index
// mapped into memory. Internal to the reader; not installed.

#include <memory>
#include <string>

#include "Format.h"
#include "Records.h"
#include "SuffixArray.h"
#include "TypeDefinitions.h"

namespace Lexarium::Reader {

// The rows of one table blob, found by one walk over it, so that a search
// reaches row `u` in one step. The cells counts are kept here, not read
// again from the blob, so a row never reaches past what the walk measured.
struct RowDirectory {
    const uint8* table = nullptr;
    uint32 offsets[Format::TABLE_ROW_COUNT];
    uint8 counts[Format::TABLE_ROW_COUNT];

    Records::Row row(uint32 code_point) const {
        return Records::Row{this->table + this->offsets[code_point] + Format::ROW_HEADER_SIZE, this->counts[code_point]};
    }

    // Walks `length` bytes at `blob`; false, with `error` saying why, unless
    // they are exactly 65535 row records of at most 254 cells each.
    bool build(const uint8* blob, uint32 length, std::string& error);
};

// The four files of an index directory, mapped read-only, and their table's
// rows. Readers of the same unchanged files share one MappedIndex, and so
// one mapping and one directory, however many of them a process opens.
struct MappedIndex {
    struct File {
        uint8* data;  // never written: the pages are read-only
        uint32 length;
        size_t mapped_length;  // 0 for an empty file, which is not mapped
    };
    File table{}, index{}, key{}, data{};
    RowDirectory rows;
    // The optional suffix.bin, its view when it belongs to these files, and
    // why it is not used when it is there but does not ("" otherwise).
    File suffix{};
    SuffixArray suffixes;
    std::string suffix_problem;

    MappedIndex() = default;
    MappedIndex(const MappedIndex&) = delete;
    MappedIndex& operator=(const MappedIndex&) = delete;
    ~MappedIndex();

    // The files of `directory`, mapped and checked, or nullptr with `error`
    // naming the file and the problem. Never throws.
    static std::shared_ptr<const MappedIndex> open(const std::string& directory, std::string& error) noexcept;
};

}  // namespace Lexarium::Reader

#endif
