#ifndef QUORVEX_BENCH_ITEM_GENERATOR_H
#define QUORVEX_BENCH_ITEM_GENERATOR_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "TypeDefinitions.h"

namespace Lexarium::Bench {

struct Item {
    std::string key;
    Rc<ByteArray> value;
};

struct ItemSet {
    std::vector<Item> items;
    uint64_t key_bytes = 0;
    uint64_t value_bytes = 0;

    uint64_t input_bytes() const { return this->key_bytes + this->value_bytes; }
};

// Dictionary-like items, bounded so that the writer accepts every one.
constexpr uint32_t MIN_KEY_CODE_POINTS = 3;
constexpr uint32_t MAX_KEY_CODE_POINTS = 40;
constexpr uint32_t MAX_KEY_BYTES = 254;
constexpr uint32_t MIN_VALUE_BYTES = 20;
constexpr uint32_t MAX_VALUE_BYTES = 2000;

constexpr uint64_t DEFAULT_SEED = 0x51756f7276657801ULL;

// `count` items with pairwise distinct keys. The same count and seed give
// the same items, byte for byte, on every run.
//
// Keys: 3..40 code points, most of them in one script (ASCII, ASCII with
// Latin-1 letters, Cyrillic or CJK ideographs), a few mixing scripts; long
// alphabetic keys are phrases with single spaces between words.
// Values: text-like ASCII, with lengths log-uniformly distributed over
// 20..2000 bytes (many short entries, few long ones; mean about 430 bytes).
ItemSet generate_items(size_t count, uint64_t seed = DEFAULT_SEED);

// Checks `set` against the bounds above, and that its keys are distinct and
// valid UTF-8 of code points U+0001..U+FFFE. Throws std::logic_error
// describing the first item that is off.
void check_items(const ItemSet& set);

}  // namespace Lexarium::Bench

#endif
