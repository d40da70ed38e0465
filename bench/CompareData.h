#ifndef QUORVEX_BENCH_COMPARE_DATA_H
#define QUORVEX_BENCH_COMPARE_DATA_H

// The material of the comparison benchmark: a real dictionary turned into
// items exactly as `quorvex build --skip-invalid --duplicates merge` would
// turn it, and the keywords every contender is asked.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Lexarium::Bench::Compare {

// One dictionary, its items in the index's key order (keys compared as
// unsigned bytes). Key number k is the k-th item in that order; every
// contender answers with key numbers.
struct Dictionary {
    std::string name;                 // "freedict-deu-eng"
    std::vector<std::string> keys;    // whole keys, as added to the writer
    std::vector<std::string> stored;  // the keys as an index stores them (stored_key)
    std::vector<std::string> values;
    uint64_t invalid = 0;  // items the tool would skip as invalid
    uint64_t merged = 0;   // items folded into an earlier one with the same key
    uint64_t key_bytes = 0;
    uint64_t value_bytes = 0;
};

// Reads a dictd database (its .index file, with the .dict or .dict.dz
// beside it) with the tool's own readers and prepares the items with the
// "merge" policy; invalid items are dropped, as --skip-invalid drops them.
// Throws std::runtime_error when the input cannot be read.
Dictionary load_dictd(const std::string& index_path);

// Items given directly (for the self-check): sorted, stored keys derived.
// Keys must be distinct.
Dictionary make_dictionary(std::string name, std::vector<std::string> keys, std::vector<std::string> values);

// `key` as the index stores it: whole, or when it is longer than 254 bytes,
// shortened from the end one whole code point at a time until it fits.
std::string stored_key(const std::string& key);

inline bool is_continuation_byte(char byte) { return (static_cast<unsigned char>(byte) & 0xC0) == 0x80; }

// Number of code points in the valid UTF-8 `text`.
size_t code_point_count(std::string_view text);

enum class KeywordKind { Present, Absent };

struct Keyword {
    std::string text;
    size_t code_points = 0;
    KeywordKind kind = KeywordKind::Present;
};

// `count` keywords, the same on every run for the same keys: a random key, a
// random length of 1..6 code points (at most the key's), a random start
// where that length fits, cut on code point boundaries. Taken from the
// stored keys, so each is found at least once. Draws may repeat.
std::vector<Keyword> present_keywords(const std::vector<std::string>& stored, size_t count, uint64_t seed);

// `count` distinct keywords of 3..6 code points that no key holds anywhere
// (checked against the whole keys): a piece of a random key with one of its
// code points replaced by a code point of another random key, so they look
// like the dictionary's own text. Throws std::runtime_error if they cannot
// be found in a reasonable number of tries.
std::vector<Keyword> absent_keywords(const std::vector<std::string>& keys, size_t count, uint64_t seed);

}  // namespace Lexarium::Bench::Compare

#endif
