#include "Text.h"

#include <cstdio>

namespace quorvex_tool {

bool decode_utf8(std::string_view text, std::vector<uint32_t>& code_points, size_t& bad_byte) {
    code_points.clear();
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    size_t length = text.size();
    for (size_t i = 0; i < length;) {
        unsigned char lead = bytes[i];
        uint32_t code_point;
        size_t size;
        if (lead < 0x80) {
            code_point = lead;
            size = 1;
        } else if (lead >= 0xC2 && lead <= 0xDF) {
            code_point = lead & 0x1F;
            size = 2;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            code_point = lead & 0x0F;
            size = 3;
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            code_point = lead & 0x07;
            size = 4;
        } else {
            bad_byte = i;
            return false;
        }
        if (i + size > length) {
            bad_byte = i;
            return false;
        }
        for (size_t j = 1; j < size; ++j) {
            if ((bytes[i + j] & 0xC0) != 0x80) {
                bad_byte = i;
                return false;
            }
            code_point = (code_point << 6) | (bytes[i + j] & 0x3F);
        }
        bool overlong = (size == 3 && code_point < 0x800) || (size == 4 && code_point < 0x10000);
        bool surrogate = code_point >= 0xD800 && code_point <= 0xDFFF;
        if (overlong || surrogate || code_point > 0x10FFFF) {
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

std::string encode_utf8(uint32_t code_point) {
    std::string out;
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
    return out;
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

size_t character_count(std::string_view text) {
    size_t count = 0;
    for (char c : text) {
        count += (static_cast<unsigned char>(c) & 0xC0) != 0x80;
    }
    return count;
}

std::string cut_to_columns(const std::string& text, size_t columns) {
    if (character_count(text) <= columns) {
        return text;
    }
    if (columns == 0) {
        return "";
    }
    size_t kept = 0;
    size_t end = 0;
    while (end < text.size() && kept < columns - 1) {
        ++end;
        while (end < text.size() && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) {
            ++end;
        }
        ++kept;
    }
    return text.substr(0, end) + "\xE2\x80\xA6";
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
