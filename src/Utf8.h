#ifndef QUORVEX_UTF8_H
#define QUORVEX_UTF8_H

#include <codecvt>
#include <locale>
#include <string>
#include <vector>

#include "LittleEndian.h"
#include "TypeDefinitions.h"

namespace Lexarium::Utf8 {

typedef std::wstring_convert<std::codecvt_utf8<wchar_t>> Converter;

// Decodes `length` bytes at `text` into `code_points` (cleared first) with
// exactly the result of converter.from_bytes: U+0000..U+10FFFF (surrogates
// included), an incomplete sequence at the very end dropped without error,
// anything else invalid thrown as std::range_error("wstring_convert::from_bytes").
// Well-formed text is decoded here directly; anything else is handed to
// `converter` itself, so the unusual cases behave exactly as it does.
void decode(const char* text, size_t length, std::vector<uint32>& code_points, Converter& converter);

inline void decode(const std::string& text, std::vector<uint32>& code_points, Converter& converter) {
    decode(text.data(), text.size(), code_points, converter);
}

// The same, with a converter of its own made only if the text needs one;
// touches no shared state, so any number of threads may call it at once.
void decode(const std::string& text, std::vector<uint32>& code_points);

// Appends the UTF-8 bytes of `code_point` (below U+110000) to `out`.
void append(std::string& out, uint32 code_point);

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
        if ((text[offset] & 0xC0) != 0x80 && --wanted == 0) {
            return offset;
        }
    }
    return text_length;
}

}  // namespace Lexarium::Utf8

#endif
