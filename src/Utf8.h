#ifndef QUORVEX_UTF8_H
#define QUORVEX_UTF8_H

// The library's UTF-8 reading and writing, for itself and for programs
// built on it. Everything here is inline, so a program uses it through this
// header alone, whatever the shared library exports.

#include <codecvt>
#include <locale>
#include <string>
#include <vector>

#include "Format.h"
#include "LittleEndian.h"
#include "TypeDefinitions.h"

namespace Lexarium::Utf8 {

typedef std::wstring_convert<std::codecvt_utf8<wchar_t>> Converter;

inline bool is_continuation(uint8 byte) { return (byte & 0xC0) == 0x80; }

inline bool is_surrogate(uint32 code_point) { return code_point >= 0xD800 && code_point <= 0xDFFF; }

// Reads the character at `text`, of which `length` (at least 1) bytes may be
// read: well-formed UTF-8, the shortest form of at most U+10FFFF, surrogates
// accepted (as the standard converter accepts them). Returns its size and
// sets `code_point`, or returns 0 for anything else.
inline size_t read_character(const uint8* text, size_t length, uint32& code_point) {
    static constexpr uint32 SMALLEST[5] = {0, 0, 0x80, 0x800, 0x10000};
    uint8 lead = text[0];
    size_t size = lead < 0x80 ? 1 : lead < 0xC2 ? 0 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : lead < 0xF5 ? 4 : 0;
    if (size == 0 || size > length) {
        return 0;
    }
    uint32 value = size == 1 ? lead : lead & (0x7Fu >> size);
    for (size_t i = 1; i < size; ++i) {
        if (!is_continuation(text[i])) {
            return 0;
        }
        value = (value << 6) | (text[i] & 0x3Fu);
    }
    if (value < SMALLEST[size] || value > 0x10FFFF) {
        return 0;
    }
    code_point = value;
    return size;
}

// Appends the characters of well-formed `length` bytes at `text` (as
// read_character takes them) to `code_points`, while they lie within
// `lowest`..`highest`; false at the first sequence that is anything else,
// with `code_points` holding the characters before it.
inline bool decode_well_formed(const uint8* text, size_t length, std::vector<uint32>& code_points, uint32 lowest = 0,
                               uint32 highest = 0x10FFFF) {
    for (size_t i = 0; i < length;) {
        uint32 code_point = 0;
        size_t size = read_character(text + i, length - i, code_point);
        if (size == 0 || code_point < lowest || code_point > highest) {
            return false;
        }
        code_points.push_back(code_point);
        i += size;
    }
    return true;
}

// The same for the characters the index can list, U+0001..U+FFFE: what a
// stored key must be.
inline bool decode_indexable(const uint8* text, size_t length, std::vector<uint32>& code_points) {
    return decode_well_formed(text, length, code_points, Format::MIN_INDEXED_CODE_POINT, Format::MAX_INDEXED_CODE_POINT);
}

// Decodes `length` bytes at `text` into `code_points` (cleared first) with
// exactly the result of converter.from_bytes: U+0000..U+10FFFF (surrogates
// included), an incomplete sequence at the very end dropped without error,
// anything else invalid thrown as std::range_error("wstring_convert::from_bytes").
// Well-formed text is decoded here directly; anything else is handed to
// `converter` itself, so the unusual cases behave exactly as it does.
inline void decode(const char* text, size_t length, std::vector<uint32>& code_points, Converter& converter) {
    code_points.clear();
    if (decode_well_formed(reinterpret_cast<const uint8*>(text), length, code_points)) {
        return;
    }
    std::wstring wide = converter.from_bytes(text, text + length);
    code_points.assign(wide.begin(), wide.end());
}

inline void decode(const std::string& text, std::vector<uint32>& code_points, Converter& converter) {
    decode(text.data(), text.size(), code_points, converter);
}

// The same, with a converter of its own made only if the text needs one;
// touches no shared state, so any number of threads may call it at once.
inline void decode(const std::string& text, std::vector<uint32>& code_points) {
    code_points.clear();
    if (!decode_well_formed(reinterpret_cast<const uint8*>(text.data()), text.size(), code_points)) {
        Converter converter;
        decode(text, code_points, converter);
    }
}

// Appends the UTF-8 bytes of `code_point` (below U+110000) to `out`.
inline void append(std::string& out, uint32 code_point) {
    if (code_point < 0x80) {
        out += static_cast<char>(code_point);
    } else if (code_point < 0x800) {
        out += static_cast<char>(0xC0 | (code_point >> 6));
        out += static_cast<char>(0x80 | (code_point & 0x3F));
    } else if (code_point < 0x10000) {
        out += static_cast<char>(0xE0 | (code_point >> 12));
        out += static_cast<char>(0x80 | ((code_point >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (code_point & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (code_point >> 18));
        out += static_cast<char>(0x80 | ((code_point >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((code_point >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (code_point & 0x3F));
    }
}

inline std::string encode(uint32 code_point) {
    std::string out;
    append(out, code_point);
    return out;
}

// The number of characters of `length` bytes at `text`, counted as bytes
// that are not continuation bytes (exact for well-formed text).
inline size_t character_count(const char* text, size_t length) {
    size_t count = 0;
    for (size_t i = 0; i < length; ++i) {
        count += is_continuation(static_cast<uint8>(text[i])) ? 0 : 1;
    }
    return count;
}

// The byte offset in `text` (`text_length` bytes) where character number
// `char_position` starts, counted as the reader's
// get_bytes_count_of_char_from_unicode_string counts: a character is one
// byte and the continuation bytes after it; `text_length` when the text has
// fewer characters. Reads nothing at or past `text_length`. The search
// finds a keyword's place in each key it checks with it, so it is inline.
//
// Every byte after the first that is not a continuation byte (10xxxxxx)
// starts a character, so the offset is that of the `char_position`-th
// such byte. Keys run to 254 bytes and keywords may stand far into them:
// the bytes are looked at eight at a time.
inline uint32 char_byte_offset(const uint8* text, uint32 text_length, uint32 char_position) {
    if (char_position == 0) {
        return 0;
    }
    constexpr uint64_t HIGH_BITS = 0x8080808080808080ULL;
    constexpr uint64_t LOW_BITS = 0x0101010101010101ULL;
    uint32 wanted = char_position;
    uint32 offset = 1;
    for (; text_length >= 8 && offset <= text_length - 8; offset += 8) {
        uint64_t bytes = LittleEndian::load_u64(text + offset);
        // Bit 7 of each byte: clear exactly for 10xxxxxx.
        uint64_t starts = ~(bytes & ~(bytes << 1)) & HIGH_BITS;
        // The eight bits summed into the top byte, without a popcount
        // instruction that not every processor has.
        uint32 count = static_cast<uint32>(((starts >> 7) * LOW_BITS) >> 56);
        if (count >= wanted) {
            for (uint32 k = 1; k < wanted; ++k) {
                starts &= starts - 1;  // drops the lowest start
            }
            return offset + static_cast<uint32>(__builtin_ctzll(starts)) / 8;
        }
        wanted -= count;
    }
    for (; offset < text_length; ++offset) {
        if (!is_continuation(text[offset]) && --wanted == 0) {
            return offset;
        }
    }
    return text_length;
}

}  // namespace Lexarium::Utf8

#endif
