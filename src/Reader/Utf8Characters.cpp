#include "Assertions.h"
#include "Reader/Utf8Characters.h"

#include "LittleEndian.h"

namespace Lexarium::Reader {

namespace {

inline bool is_continuation(uint8 byte) { return (byte & 0xC0) == 0x80; }

}  // namespace

uint32 get_unicode_string_length(const std::string& text) {
    uint32 count = 0;
    for (const char* p = text.c_str(); *p != '\0'; ++p) {
        if (!is_continuation(static_cast<uint8>(*p))) {
            ++count;
        }
    }
    return count;
}

void get_bytes_count_of_char_from_unicode_string(uint8* char_byte_counts, uint8 capacity, const uint8* text,
                                                 uint8 text_length, uint8* char_count) {
    uint8 wanted = *char_count;
    if (wanted == 0) {
        return;
    }
    if (text_length == 0) {
        *char_count = 0;
        return;
    }
    uint8 current = 0;    // bytes of the character being walked
    uint8 completed = 0;  // bytes of the characters before it
    uint8 found = 0;      // characters completed
    while (completed < text_length && found < capacity) {
        ++current;
        uint32 next = uint32{completed} + current;
        if (next < text_length && is_continuation(text[next])) {
            continue;
        }
        char_byte_counts[found] = current;
        ++found;
        if (found == wanted) {
            return;
        }
        completed = static_cast<uint8>(completed + current);
        current = 0;
    }
    *char_count = found;
}

// Every byte after the first that is not a continuation byte starts a
// character, so the offset is that of the `char_position`-th such byte.
// Keys run to 254 bytes and keywords may stand far into them: the bytes
// are looked at eight at a time.
uint32 get_char_byte_offset(const uint8* text, uint32 text_length, uint32 char_position) {
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

}  // namespace Lexarium::Reader
