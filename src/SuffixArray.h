#ifndef QUORVEX_SUFFIX_ARRAY_H
#define QUORVEX_SUFFIX_ARRAY_H

#include <string>
#include <string_view>
#include <vector>

#include "Export.h"
#include "Records.h"

namespace Lexarium {

// The optional fifth file of an index, suffix.bin: every character of every
// key stored in key.bin, as the suffix of the key's text that begins there,
// sorted by those suffixes (bytes compared as unsigned, a suffix before any
// longer one it begins; equal suffixes by key.bin offset). The entries
// whose suffix begins with a keyword are one run, found in a few binary
// search steps, so a search can count a keyword's occurrences before
// choosing how to collect them (docs/FORMAT.md has the layout).
//
// Files of 2^18 entries or more carry a table of where the entries of each
// first two bytes begin, which takes a search's first 16 steps at once.
//
// A view of a blob that stays owned elsewhere; copying it copies the view.
class QUORVEX_API SuffixArray {
public:
    // The suffix.bin of the key blob `keys` (all of key.bin), with a bucket
    // table when it has `buckets_from` entries or more.
    static std::string build(const uint8* keys, uint32 key_length,
                             uint32 buckets_from = Format::SUFFIX_BUCKETS_FROM_ENTRIES);

    // A view of the suffix.bin `blob`, when it belongs to a key blob of
    // `key_length` bytes (its header says so and its size fits the
    // header); otherwise an empty view and, when `error` is not null, why
    // not. Reads the header only.
    static SuffixArray open(const uint8* blob, uint64_t length, uint32 key_length, std::string* error);

    bool empty() const { return this->entries == nullptr; }
    uint32 size() const { return this->count; }
    Records::Suffix at(uint32 i) const {
        return Records::Suffix::decode(this->entries + uint64_t{i} * Format::SUFFIX_ENTRY_SIZE);
    }

    // The entries [first, last) whose suffix begins with `keyword` (not
    // empty). False when an entry it reads does not lie inside `keys` (a
    // damaged file): the answer is then unknown.
    bool range(const uint8* keys, uint64_t key_length, std::string_view keyword, uint32& first, uint32& last) const;

    // Whether the entries are exactly the characters of the keys of `keys`
    // in order: as many as the stored keys have characters, each at a key
    // record's start and a character's first byte, with that character's
    // position, and each after the one before (so none twice). False with
    // the first fault in `error`.
    bool check(const uint8* keys, uint32 key_length, std::string* error) const;

private:
    // Where the entries of `bucket` (a text's first two bytes, the second 0
    // for a one-byte text) begin; within the entries, as a damaged table
    // may say anything.
    uint32 bucket_start(uint32 bucket) const;

    const uint8* entries = nullptr;
    const uint8* buckets = nullptr;  // the bucket table, in large files only
    uint32 count = 0;
};

}  // namespace Lexarium

#endif
