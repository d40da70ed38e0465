#include "Assertions.h"
#include "Reader/Utf8Characters.h"

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

}  // namespace Lexarium::Reader
