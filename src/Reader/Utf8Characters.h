#ifndef QUORVEX_READER_UTF8_CHARACTERS_H
#define QUORVEX_READER_UTF8_CHARACTERS_H

#include <string>

#include "TypeDefinitions.h"

namespace Lexarium::Reader {

// The number of UTF-8 characters of `text`: its bytes up to the first zero
// byte (not up to its stored length) that are not continuation bytes.
QUORVEX_API uint32 get_unicode_string_length(const std::string& text);

// Walks the first characters of `text` (`text_length` bytes) and stores the
// byte count of each in `char_byte_counts`. On entry `*char_count` is how
// many characters are wanted; on return it is how many were found, fewer
// when the text ends first, and at most `capacity`. A character ends where
// the next byte is not a continuation byte, or where the text ends: nothing
// at or past `text_length` is read. `text` should start on a character
// boundary; this is not checked.
QUORVEX_API void get_bytes_count_of_char_from_unicode_string(uint8* char_byte_counts, uint8 capacity,
                                                             const uint8* text, uint8 text_length,
                                                             uint8* char_count);

}  // namespace Lexarium::Reader

#endif
