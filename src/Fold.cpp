#include "Fold.h"

#include <algorithm>
#include <vector>

#include "Utf8.h"

#include "FoldTables.inc"

namespace Lexarium {

namespace {

using namespace FoldTables;

constexpr uint32_t MAPPING_MASK = (1u << 18) - 1;
constexpr uint32_t LATIN_GREEK_CYRILLIC = 1u << 26;
constexpr uint32_t MAY_COMPOSE = 1u << 27;

uint32_t record_of(uint32_t code_point) {
    uint32_t block = code_point >> BLOCK_SHIFT;
    if (block >= STAGE1_SIZE) {
        return 0;
    }
    return RECORDS[(uint32_t{STAGE1[block]} << BLOCK_SHIFT) | (code_point & BLOCK_MASK)];
}

uint32_t combining_class(uint32_t code_point) { return (record_of(code_point) >> 18) & 0xFF; }

bool is_ascii_space(uint8 byte) { return byte == ' ' || (byte >= '\t' && byte <= '\r'); }

bool is_ascii_letter(uint8 byte) { return (byte | 0x20) >= 'a' && (byte | 0x20) <= 'z'; }

// Writes folded characters out one at a time, keeping what the rules about
// neighbours need: white space held back until something follows it, and
// whether the last letter was one whose diacritics go.
class Output {
public:
    explicit Output(std::string& out) : out(out) {}

    void put_ascii(uint8 byte) {
        if (is_ascii_space(byte)) {
            this->space();
            return;
        }
        this->flush_space();
        this->after_letter_with_diacritics = is_ascii_letter(byte);
        this->out += static_cast<char>(byte >= 'A' && byte <= 'Z' ? byte + ('a' - 'A') : byte);
    }

    void put(uint32_t code_point, uint32_t record) {
        if (code_point == ' ') {
            this->space();
            return;
        }
        uint32_t combining = (record >> 18) & 0xFF;
        if (code_point >= 0x300 && code_point <= 0x36F && this->after_letter_with_diacritics) {
            return;
        }
        if (combining == 0) {
            this->after_letter_with_diacritics = (record & LATIN_GREEK_CYRILLIC) != 0;
        }
        this->flush_space();
        this->composes |= (record & MAY_COMPOSE) != 0;
        Utf8::append(this->out, code_point);
    }

    // Whether what was written holds marks to order or characters that may
    // compose with the one before.
    bool needs_composition() const { return this->composes; }

private:
    void space() {
        this->pending_space = !this->out.empty();
        this->after_letter_with_diacritics = false;
    }

    void flush_space() {
        if (this->pending_space) {
            this->out += ' ';
            this->pending_space = false;
        }
    }

    std::string& out;
    bool pending_space = false;
    bool after_letter_with_diacritics = false;
    bool composes = false;
};

// The primary composite of `first` and `second`, or 0.
uint32_t composite_of(uint32_t first, uint32_t second) {
    constexpr uint32_t S_BASE = 0xAC00, L_BASE = 0x1100, V_BASE = 0x1161, T_BASE = 0x11A7;
    constexpr uint32_t L_COUNT = 19, V_COUNT = 21, T_COUNT = 28, S_COUNT = L_COUNT * V_COUNT * T_COUNT;
    if (first - L_BASE < L_COUNT && second - V_BASE < V_COUNT) {
        return S_BASE + ((first - L_BASE) * V_COUNT + (second - V_BASE)) * T_COUNT;
    }
    if (first - S_BASE < S_COUNT && (first - S_BASE) % T_COUNT == 0 && second - T_BASE - 1 < T_COUNT - 1) {
        return first + (second - T_BASE);
    }
    uint64_t pair = (uint64_t{first} << 21) | second;
    const uint64_t* found = std::lower_bound(PAIRS, PAIRS + PAIR_COUNT, pair);
    return found != PAIRS + PAIR_COUNT && *found == pair ? COMPOSITES[found - PAIRS] : 0;
}

// Puts the marks after each starter in canonical order and composes what
// composes: the canonical composition of `text`, which is well-formed.
void compose(std::string& text) {
    std::vector<uint32> characters;
    Utf8::decode_well_formed(reinterpret_cast<const uint8*>(text.data()), text.size(), characters);
    std::vector<uint32_t> classes(characters.size());
    for (size_t i = 0; i < characters.size(); ++i) {
        classes[i] = combining_class(characters[i]);
        for (size_t j = i; j > 0 && classes[j] != 0 && classes[j - 1] > classes[j]; --j) {
            std::swap(classes[j], classes[j - 1]);
            std::swap(characters[j], characters[j - 1]);
        }
    }
    size_t kept = 0;
    size_t starter = SIZE_MAX;
    int32_t last_class = -1;  // of the last character kept after the starter; -1: none
    for (size_t i = 0; i < characters.size(); ++i) {
        int32_t current = static_cast<int32_t>(classes[i]);
        bool blocked = last_class != -1 && last_class >= current;
        uint32_t composite = starter != SIZE_MAX && !blocked ? composite_of(characters[starter], characters[i]) : 0;
        if (composite != 0) {
            characters[starter] = composite;
            continue;
        }
        if (current == 0) {
            starter = kept;
            last_class = -1;
        } else {
            last_class = current;
        }
        characters[kept++] = characters[i];
    }
    text.clear();
    for (size_t i = 0; i < kept; ++i) {
        Utf8::append(text, characters[i]);
    }
}

}  // namespace

bool fold(std::string_view text, std::string* folded, std::string* error) {
    std::string& out = *folded;
    out.clear();
    out.reserve(text.size());
    Output output(out);
    const uint8* bytes = reinterpret_cast<const uint8*>(text.data());
    for (size_t i = 0; i < text.size();) {
        if (bytes[i] < 0x80) {
            output.put_ascii(bytes[i++]);
            continue;
        }
        uint32 code_point = 0;
        size_t size = Utf8::read_character(bytes + i, text.size() - i, code_point);
        if (size == 0 || Utf8::is_surrogate(code_point)) {
            if (error != nullptr) {
                *error = "invalid UTF-8 at byte " + std::to_string(i);
            }
            return false;
        }
        i += size;
        uint32_t record = record_of(code_point);
        uint32_t mapping = record & MAPPING_MASK;
        if (mapping == 0) {
            output.put(code_point, record);
            continue;
        }
        for (uint32_t k = 1; k <= SEQUENCES[mapping]; ++k) {
            uint32_t folded_point = SEQUENCES[mapping + k];
            output.put(folded_point, record_of(folded_point));
        }
    }
    if (output.needs_composition()) {
        compose(out);
    }
    return true;
}

}  // namespace Lexarium
