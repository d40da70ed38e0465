#include "Text.h"

#include <cstdio>

#include <Utf8.h>

namespace quorvex_tool {

bool decode_utf8(std::string_view text, std::vector<uint32_t>& code_points, size_t& bad_byte) {
    code_points.clear();
    const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
    for (size_t i = 0; i < text.size();) {
        uint32_t code_point = 0;
        size_t size = Lexarium::Utf8::read_character(bytes + i, text.size() - i, code_point);
        if (size == 0 || Lexarium::Utf8::is_surrogate(code_point)) {
            bad_byte = i;
            return false;
        }
        code_points.push_back(code_point);
        i += size;
    }
    return true;
}

bool is_valid_utf8(std::string_view text) {
    std::vector<uint32_t> code_points;
    size_t bad_byte = 0;
    return decode_utf8(text, code_points, bad_byte);
}

std::string code_point_name(uint32_t code_point) {
    char name[16];
    std::snprintf(name, sizeof name, "U+%04X", code_point);
    return name;
}

std::string base64(std::string_view bytes) {
    static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    size_t i = 0;
    for (; i + 3 <= bytes.size(); i += 3) {
        uint32_t group = (uint32_t(uint8_t(bytes[i])) << 16) | (uint32_t(uint8_t(bytes[i + 1])) << 8) | uint8_t(bytes[i + 2]);
        out += alphabet[group >> 18];
        out += alphabet[(group >> 12) & 63];
        out += alphabet[(group >> 6) & 63];
        out += alphabet[group & 63];
    }
    size_t rest = bytes.size() - i;
    if (rest > 0) {
        uint32_t group = uint32_t(uint8_t(bytes[i])) << 16;
        if (rest == 2) {
            group |= uint32_t(uint8_t(bytes[i + 1])) << 8;
        }
        out += alphabet[group >> 18];
        out += alphabet[(group >> 12) & 63];
        out += rest == 2 ? alphabet[(group >> 6) & 63] : '=';
        out += '=';
    }
    return out;
}

std::string printable(std::string_view text) {
    std::string out;
    std::vector<uint32_t> ignored;
    while (!text.empty()) {
        size_t bad_byte = 0;
        if (decode_utf8(text, ignored, bad_byte)) {
            out += text;
            break;
        }
        out += text.substr(0, bad_byte);
        out += "\xEF\xBF\xBD";
        text.remove_prefix(bad_byte + 1);
    }
    return out;
}

std::string_view first_line(std::string_view text) {
    size_t end = text.find('\n');
    return end == std::string_view::npos ? text : text.substr(0, end);
}

namespace {

// Columns a terminal gives the character: two for East Asian wide and
// full-width ones, none for combining marks, one for the rest.
size_t columns_of(uint32_t c) {
    if ((c >= 0x300 && c <= 0x36F) || (c >= 0x1AB0 && c <= 0x1AFF) || (c >= 0x1DC0 && c <= 0x1DFF) ||
        (c >= 0x20D0 && c <= 0x20FF) || (c >= 0xFE20 && c <= 0xFE2F) || c == 0x3099 || c == 0x309A) {
        return 0;
    }
    bool wide = (c >= 0x1100 && c <= 0x115F) || (c >= 0x2E80 && c <= 0x303E) || (c >= 0x3041 && c <= 0x33FF) ||
                (c >= 0x3400 && c <= 0x4DBF) || (c >= 0x4E00 && c <= 0x9FFF) || (c >= 0xA000 && c <= 0xA4CF) ||
                (c >= 0xAC00 && c <= 0xD7A3) || (c >= 0xF900 && c <= 0xFAFF) || (c >= 0xFE30 && c <= 0xFE4F) ||
                (c >= 0xFF00 && c <= 0xFF60) || (c >= 0xFFE0 && c <= 0xFFE6) || (c >= 0x1F300 && c <= 0x1F64F) ||
                (c >= 0x20000 && c <= 0x3FFFD);
    return wide ? 2 : 1;
}

}  // namespace

size_t display_width(std::string_view text) {
    size_t width = 0;
    for (size_t i = 0; i < text.size();) {
        uint32_t c = 0;
        size_t size = Lexarium::Utf8::read_character(reinterpret_cast<const uint8_t*>(text.data()) + i, text.size() - i, c);
        width += size == 0 ? 1 : columns_of(c);
        i += size == 0 ? 1 : size;
    }
    return width;
}

std::string cut_to_columns(const std::string& text, size_t columns) {
    if (display_width(text) <= columns) {
        return text;
    }
    // Whole characters while they and the ellipsis fit.
    size_t width = 0;
    size_t end = 0;
    while (end < text.size()) {
        uint32_t c = 0;
        size_t read = Lexarium::Utf8::read_character(reinterpret_cast<const uint8_t*>(text.data()) + end,
                                                     text.size() - end, c);
        size_t size = read == 0 ? 1 : read;
        size_t next = read == 0 ? 1 : columns_of(c);
        if (width + next + 1 > columns) {
            break;
        }
        width += next;
        end += size;
    }
    return columns == 0 ? "" : text.substr(0, end) + "\xE2\x80\xA6";
}

std::string with_thousands(uint64_t value) {
    std::string digits = std::to_string(value);
    std::string out;
    for (size_t i = 0; i < digits.size(); ++i) {
        if (i != 0 && (digits.size() - i) % 3 == 0) {
            out += ',';
        }
        out += digits[i];
    }
    return out;
}

std::string human_bytes(uint64_t bytes) {
    static const char* units[] = {"B", "KiB", "MiB", "GiB"};
    double value = static_cast<double>(bytes);
    int unit = 0;
    while (value >= 1024 && unit < 3) {
        value /= 1024;
        ++unit;
    }
    char text[32];
    if (unit == 0) {
        std::snprintf(text, sizeof text, "%llu B", static_cast<unsigned long long>(bytes));
    } else {
        std::snprintf(text, sizeof text, "%.1f %s", value, units[unit]);
    }
    return text;
}

}  // namespace quorvex_tool
