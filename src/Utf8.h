#ifndef QUORVEX_UTF8_H
#define QUORVEX_UTF8_H

#include <codecvt>
#include <locale>
#include <string>
#include <vector>

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

}  // namespace Lexarium::Utf8

#endif
