#include "Assertions.h"
#include "Utf8.h"

namespace Lexarium::Utf8 {

namespace {

inline bool is_continuation(uint8 byte) { return (byte & 0xC0) == 0x80; }

// Decodes well-formed UTF-8 (shortest forms, at most U+10FFFF; surrogates
// are accepted, as the standard converter accepts them). Returns false at
// the first sequence that is anything else, leaving `code_points` partly
// filled.
bool decode_well_formed(const uint8* p, const uint8* end, std::vector<uint32>& code_points) {
    while (p < end) {
        uint8 lead = *p;
        if (lead < 0x80) {
            code_points.push_back(lead);
            ++p;
            continue;
        }
        size_t available = static_cast<size_t>(end - p);
        if (lead >= 0xC2 && lead <= 0xDF) {
            if (available < 2 || !is_continuation(p[1])) {
                return false;
            }
            code_points.push_back((static_cast<uint32>(lead & 0x1F) << 6) | (p[1] & 0x3F));
            p += 2;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            if (available < 3 || !is_continuation(p[1]) || !is_continuation(p[2]) || (lead == 0xE0 && p[1] < 0xA0)) {
                return false;
            }
            code_points.push_back((static_cast<uint32>(lead & 0x0F) << 12) | (static_cast<uint32>(p[1] & 0x3F) << 6) |
                                  (p[2] & 0x3F));
            p += 3;
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            if (available < 4 || !is_continuation(p[1]) || !is_continuation(p[2]) || !is_continuation(p[3]) ||
                (lead == 0xF0 && p[1] < 0x90) || (lead == 0xF4 && p[1] > 0x8F)) {
                return false;
            }
            code_points.push_back((static_cast<uint32>(lead & 0x07) << 18) | (static_cast<uint32>(p[1] & 0x3F) << 12) |
                                  (static_cast<uint32>(p[2] & 0x3F) << 6) | (p[3] & 0x3F));
            p += 4;
        } else {
            return false;
        }
    }
    return true;
}

}  // namespace

void decode(const char* text, size_t length, std::vector<uint32>& code_points, Converter& converter) {
    code_points.clear();
    const uint8* begin = reinterpret_cast<const uint8*>(text);
    if (decode_well_formed(begin, begin + length, code_points)) {
        return;
    }
    std::wstring wide = converter.from_bytes(text, text + length);
    code_points.assign(wide.begin(), wide.end());
}

void decode(const std::string& text, std::vector<uint32>& code_points) {
    code_points.clear();
    const uint8* begin = reinterpret_cast<const uint8*>(text.data());
    if (decode_well_formed(begin, begin + text.size(), code_points)) {
        return;
    }
    Converter converter;
    decode(text, code_points, converter);
}

void append(std::string& out, uint32 code_point) {
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

}  // namespace Lexarium::Utf8
