#ifndef QUORVEX_TOOL_TEXT_H
#define QUORVEX_TOOL_TEXT_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <Utf8.h>

namespace quorvex_tool {

// Strict UTF-8: shortest forms, no surrogates, at most U+10FFFF. On success
// `code_points` holds the decoded text; on failure `bad_byte` is the offset
// of the first byte that is not part of a valid sequence.
bool decode_utf8(std::string_view text, std::vector<uint32_t>& code_points, size_t& bad_byte);

bool is_valid_utf8(std::string_view text);

// The UTF-8 bytes of `code_point` (below U+110000).
inline std::string encode_utf8(uint32_t code_point) { return Lexarium::Utf8::encode(code_point); }

// "U+00E9".
std::string code_point_name(uint32_t code_point);

// Standard base64 with padding.
std::string base64(std::string_view bytes);

// `text` with every invalid UTF-8 byte shown as U+FFFD, for a terminal.
std::string printable(std::string_view text);

// The first line of `text` (without its newline).
std::string_view first_line(std::string_view text);

// The columns a terminal takes to show valid UTF-8 `text`: East Asian wide
// and full-width characters take two, combining marks none.
size_t display_width(std::string_view text);

// At most `columns` columns of valid UTF-8 `text` (as display_width counts
// them), with "…" as the last one when something was cut.
std::string cut_to_columns(const std::string& text, size_t columns);

// Number of characters (code points) of valid UTF-8 `text`.
inline size_t character_count(std::string_view text) { return Lexarium::Utf8::character_count(text.data(), text.size()); }

// "12,345,678".
std::string with_thousands(uint64_t value);

// "1.2 MiB", "532 B".
std::string human_bytes(uint64_t bytes);

}  // namespace quorvex_tool

#endif
