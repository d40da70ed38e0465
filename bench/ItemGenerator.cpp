#include "ItemGenerator.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <stdexcept>
#include <functional>
#include <string_view>

#include "Utf8.h"

namespace Lexarium::Bench {

namespace {

std::string hex(uint32_t value) {
    static const char digits[] = "0123456789ABCDEF";
    std::string text = "U+";
    for (int shift = 12; shift >= 0; shift -= 4) {
        text.push_back(digits[(value >> shift) & 0xF]);
    }
    return text;
}

enum class Script { Ascii, Latin1, Cyrillic, Cjk };

constexpr uint32_t CJK_FIRST = 0x4E00;
constexpr uint32_t CJK_LAST = 0x9FFF;
// Real CJK text draws most of its characters from a few thousand common
// ones; keys here take 4 in 5 ideographs from a fixed pool of this size.
constexpr size_t COMMON_CJK_COUNT = 3000;
// Values are slices of one pseudo-text of this many bytes.
constexpr size_t CORPUS_BYTES = size_t(1) << 20;

class Generator {
public:
    explicit Generator(uint64_t seed) : rng(seed) {
        this->common_cjk.reserve(COMMON_CJK_COUNT);
        for (size_t i = 0; i < COMMON_CJK_COUNT; ++i) {
            this->common_cjk.push_back(CJK_FIRST + static_cast<uint32_t>(this->below(CJK_LAST - CJK_FIRST + 1)));
        }
        this->build_corpus();
    }

    std::string make_key() {
        this->code_points.clear();
        uint64_t pick = this->below(100);
        if (pick < 35) {
            this->make_single_script_key(Script::Ascii);
        } else if (pick < 55) {
            this->make_single_script_key(Script::Latin1);
        } else if (pick < 75) {
            this->make_single_script_key(Script::Cyrillic);
        } else if (pick < 95) {
            this->make_single_script_key(Script::Cjk);
        } else {
            this->make_mixed_key();
        }
        std::string key;
        key.reserve(this->code_points.size() * 3);
        for (uint32_t code_point : this->code_points) {
            Utf8::append(key, code_point);
        }
        return key;
    }

    Rc<ByteArray> make_value() {
        // Log-uniform over [20, 2001), floored: each length band of the same
        // ratio (20..40, 200..400, ...) is equally likely.
        double u = static_cast<double>(this->rng() >> 11) * 0x1.0p-53;
        double low = std::log(double(MIN_VALUE_BYTES));
        double high = std::log(double(MAX_VALUE_BYTES) + 1.0);
        uint32_t length = static_cast<uint32_t>(std::exp(low + u * (high - low)));
        length = std::clamp(length, MIN_VALUE_BYTES, MAX_VALUE_BYTES);

        size_t offset = this->below(this->corpus.size() - length + 1);
        Rc<ByteArray> value = make_rc<ByteArray>(length);
        std::memcpy(value->data, this->corpus.data() + offset, length);
        return value;
    }

private:
    // Uniform in [0, n), by rejection, so the sequence depends only on
    // mt19937_64 and not on the standard library's distributions.
    uint64_t below(uint64_t n) {
        uint64_t threshold = (0 - n) % n;
        uint64_t x;
        do {
            x = this->rng();
        } while (x < threshold);
        return x % n;
    }

    uint32_t range(uint32_t first, uint32_t last) { return first + static_cast<uint32_t>(this->below(last - first + 1)); }

    uint32_t letter(Script script, bool capital) {
        switch (script) {
            case Script::Ascii:
                return capital ? this->range('A', 'Z') : this->range('a', 'z');
            case Script::Latin1: {
                if (capital || this->below(4) != 0) {
                    return capital ? this->range('A', 'Z') : this->range('a', 'z');
                }
                // The 62 letters of U+00C0..U+00FF: skip U+00D7 and U+00F7.
                uint32_t code_point = this->range(0xC0, 0xC0 + 61);
                if (code_point >= 0xD7) {
                    ++code_point;
                }
                if (code_point >= 0xF7) {
                    ++code_point;
                }
                return code_point;
            }
            case Script::Cyrillic:
                return capital ? this->range(0x410, 0x42F) : this->range(0x430, 0x44F);
            case Script::Cjk:
                if (this->below(5) != 0) {
                    return this->common_cjk[this->below(this->common_cjk.size())];
                }
                return this->range(CJK_FIRST, CJK_LAST);
        }
        return 'x';
    }

    // Most keys are single words or short CJK compounds; one in seven is a
    // longer phrase (alphabetic phrases get single spaces between words).
    void make_single_script_key(Script script) {
        bool phrase = this->below(7) == 0;
        uint32_t length;
        if (script == Script::Cjk) {
            length = phrase ? this->range(7, MAX_KEY_CODE_POINTS) : this->range(MIN_KEY_CODE_POINTS, 6);
        } else {
            length = phrase ? this->range(13, MAX_KEY_CODE_POINTS) : this->range(MIN_KEY_CODE_POINTS, 12);
        }
        bool spaces = phrase && script != Script::Cjk;
        bool capital = script != Script::Cjk && this->below(10) == 0;
        for (uint32_t i = 0; i < length; ++i) {
            bool can_space = spaces && i > 0 && i + 1 < length && this->code_points.back() != ' ';
            if (can_space && this->below(6) == 0) {
                this->code_points.push_back(' ');
            } else {
                this->code_points.push_back(this->letter(script, capital && i == 0));
            }
        }
    }

    // Runs of two or more scripts, like "卡拉OK" or a Cyrillic word with a
    // Latin abbreviation.
    void make_mixed_key() {
        static const Script scripts[] = {Script::Ascii, Script::Latin1, Script::Cyrillic, Script::Cjk};
        uint32_t length = this->range(MIN_KEY_CODE_POINTS, 20);
        size_t previous = this->below(4);
        while (this->code_points.size() < length) {
            uint32_t left = length - static_cast<uint32_t>(this->code_points.size());
            uint32_t run = this->range(1, std::min<uint32_t>(left, 8));
            for (uint32_t i = 0; i < run; ++i) {
                this->code_points.push_back(this->letter(scripts[previous], false));
            }
            previous = (previous + 1 + this->below(3)) % 4;
        }
    }

    void build_corpus() {
        this->corpus.reserve(CORPUS_BYTES + 16);
        while (this->corpus.size() < CORPUS_BYTES) {
            uint32_t word = this->range(1, 10);
            for (uint32_t i = 0; i < word; ++i) {
                this->corpus.push_back(static_cast<char>(this->range('a', 'z')));
            }
            uint64_t pick = this->below(100);
            if (pick < 6) {
                this->corpus += ". ";
            } else if (pick < 10) {
                this->corpus += ", ";
            } else {
                this->corpus.push_back(' ');
            }
        }
    }

    std::mt19937_64 rng;
    std::vector<uint32_t> common_cjk;
    std::vector<uint32_t> code_points;
    std::string corpus;
};

// The keys of a growing item list, as an open-addressing table in a single
// allocation. A node-based set would leave a million small freed blocks
// scattered between the items once it is gone, and every allocation the
// writer makes afterwards would be slowed down by them.
class KeySet {
public:
    KeySet(const std::vector<Item>& items, size_t capacity) : items(items) {
        size_t size = 16;
        while (size < capacity * 2) {
            size <<= 1;
        }
        this->slots.assign(size, 0);
    }

    bool contains(std::string_view key) const { return this->slots[this->find(key)] != 0; }

    // Adds the key of items[index]; false if an equal key is already there.
    bool insert(size_t index) {
        size_t slot = this->find(this->items[index].key);
        if (this->slots[slot] != 0) {
            return false;
        }
        if ((this->used + 1) * 2 > this->slots.size()) {
            throw std::logic_error("KeySet: more keys than its capacity");
        }
        this->slots[slot] = static_cast<uint32_t>(index + 1);
        ++this->used;
        return true;
    }

private:
    size_t find(std::string_view key) const {
        size_t mask = this->slots.size() - 1;
        size_t slot = std::hash<std::string_view>{}(key) & mask;
        while (this->slots[slot] != 0 && this->items[this->slots[slot] - 1].key != key) {
            slot = (slot + 1) & mask;
        }
        return slot;
    }

    const std::vector<Item>& items;
    std::vector<uint32_t> slots;  // item index + 1; 0 marks an empty slot
    size_t used = 0;
};

}  // namespace

ItemSet generate_items(size_t count, uint64_t seed) {
    Generator generator(seed);
    ItemSet set;
    set.items.reserve(count);
    KeySet seen(set.items, count);
    while (set.items.size() < count) {
        std::string key = generator.make_key();
        if (seen.contains(key)) {
            continue;  // regenerate on collision, so the count is exact
        }
        Rc<ByteArray> value = generator.make_value();
        set.key_bytes += key.size();
        set.value_bytes += value->length;
        set.items.push_back(Item{std::move(key), std::move(value)});
        seen.insert(set.items.size() - 1);
    }
    return set;
}

void check_items(const ItemSet& set) {
    KeySet seen(set.items, set.items.size());
    uint64_t key_bytes = 0;
    uint64_t value_bytes = 0;
    for (size_t i = 0; i < set.items.size(); ++i) {
        const Item& item = set.items[i];
        std::string where = "item " + std::to_string(i) + ": ";
        if (item.key.size() > MAX_KEY_BYTES) {
            throw std::logic_error(where + "key longer than 254 bytes");
        }
        std::vector<uint32> code_points;
        if (!Utf8::decode_indexable(reinterpret_cast<const uint8*>(item.key.data()), item.key.size(), code_points)) {
            throw std::logic_error(where + "key is not UTF-8 of U+0001..U+FFFE");
        }
        if (code_points.size() < MIN_KEY_CODE_POINTS || code_points.size() > MAX_KEY_CODE_POINTS) {
            throw std::logic_error(where + "key of " + std::to_string(code_points.size()) + " code points");
        }
        for (uint32 code_point : code_points) {
            if (Utf8::is_surrogate(code_point)) {
                throw std::logic_error(where + "key holds " + hex(code_point));
            }
        }
        if (!seen.insert(i)) {
            throw std::logic_error(where + "duplicate key");
        }
        if (item.value.is_null() || item.value->length < MIN_VALUE_BYTES || item.value->length > MAX_VALUE_BYTES) {
            throw std::logic_error(where + "value length out of range");
        }
        key_bytes += item.key.size();
        value_bytes += item.value->length;
    }
    if (key_bytes != set.key_bytes || value_bytes != set.value_bytes) {
        throw std::logic_error("item set totals do not match its items");
    }
}

}  // namespace Lexarium::Bench
