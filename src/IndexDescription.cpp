#include "IndexDescription.h"

#include <cstring>
#include <limits>

#include "Records.h"
#include "Utf8.h"

namespace Lexarium {

namespace {

// Marks a value as a description: a user's own value for an empty key
// (which the plain writer accepts) will hardly begin so.
constexpr char MAGIC[] = {'Q', 'V', 'X', 'D', 1};

// `text` cut to at most `most` bytes, at a character boundary.
std::string cut(const std::string& text, size_t most) {
    if (text.size() <= most) {
        return text;
    }
    size_t end = most;
    while (end > 0 && Utf8::is_continuation(static_cast<uint8>(text[end]))) {
        --end;
    }
    return text.substr(0, end);
}

}  // namespace

std::string IndexDescription::get(const std::string& name) const {
    for (const auto& field : this->fields) {
        if (field.first == name) {
            return field.second;
        }
    }
    return std::string();
}

void IndexDescription::set(const std::string& name, const std::string& text) {
    for (auto& field : this->fields) {
        if (field.first == name) {
            field.second = text;
            return;
        }
    }
    this->fields.emplace_back(name, text);
}

uint32 IndexDescription::folding() const {
    std::string text = this->get("folding");
    uint64_t version = 0;
    for (char c : text) {
        if (c < '0' || c > '9' || version > std::numeric_limits<uint32>::max() / 10) {
            return 0;
        }
        version = version * 10 + static_cast<uint32>(c - '0');
    }
    return version > std::numeric_limits<uint32>::max() ? 0 : static_cast<uint32>(version);
}

std::string IndexDescription::encode() const {
    std::string out(MAGIC, sizeof MAGIC);
    for (const auto& field : this->fields) {
        std::string name = cut(field.first, 255);
        std::string text = cut(field.second, 65535);
        if (name.empty()) {
            continue;
        }
        Records::Pair::encode_to(out, reinterpret_cast<const uint8*>(name.data()), static_cast<uint8>(name.size()),
                                 reinterpret_cast<const uint8*>(text.data()), static_cast<uint16>(text.size()));
    }
    return out;
}

bool IndexDescription::decode(const uint8* bytes, uint64_t length, IndexDescription& description) {
    description.fields.clear();
    if (length < sizeof MAGIC || std::memcmp(bytes, MAGIC, sizeof MAGIC) != 0) {
        return false;
    }
    for (uint64_t offset = sizeof MAGIC; offset < length;) {
        Records::Pair pair;
        if (!Records::Pair::decode_from(bytes, length, offset, pair)) {
            description.fields.clear();
            return false;
        }
        description.fields.emplace_back(std::string(reinterpret_cast<const char*>(pair.first), pair.first_length),
                                        std::string(reinterpret_cast<const char*>(pair.second), pair.second_length));
        offset += pair.size();
    }
    return true;
}

}  // namespace Lexarium
