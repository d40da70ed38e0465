#include "SuffixArray.h"

#include <algorithm>
#include <cstring>

#include "Utf8.h"

namespace Lexarium {

namespace {

bool is_first_byte(uint8 byte) { return (byte & 0xC0) != 0x80; }

// A suffix while the array is built: its first eight bytes big-endian
// (zero-padded; keys hold no NUL, so padding never ties with a real byte)
// decide most comparisons without reaching into the keys.
struct Pending {
    uint64_t prefix;
    uint32 key;
    uint8 byte;
    uint8 position;
    uint8 length;  // bytes from `byte` to the key's end
};

uint64_t prefix_of(const uint8* text, uint32 length) {
    uint64_t prefix = 0;
    for (uint32 i = 0; i < 8; ++i) {
        prefix = (prefix << 8) | (i < length ? text[i] : 0);
    }
    return prefix;
}

// The order of the file: suffix bytes, then the shorter, then key.bin order.
int compare(const uint8* a, uint32 a_length, uint32 a_key, const uint8* b, uint32 b_length, uint32 b_key) {
    int bytes = std::memcmp(a, b, std::min(a_length, b_length));
    if (bytes != 0) {
        return bytes;
    }
    if (a_length != b_length) {
        return a_length < b_length ? -1 : 1;
    }
    return a_key < b_key ? -1 : a_key > b_key ? 1 : 0;
}

// The text of entry `suffix` and its length, or false when it does not lie
// inside the key blob. A position past the key's characters gives the empty
// text at its end.
bool text_of(const uint8* keys, uint64_t key_length, const Records::Suffix& suffix, const uint8*& text,
             uint32& length) {
    Records::Key key;
    if (!Records::Key::decode_from(keys, key_length, suffix.key, key)) {
        return false;
    }
    uint32 byte = Utf8::char_byte_offset(key.text, key.length, suffix.position);
    text = key.text + byte;
    length = key.length - byte;
    return true;
}

}  // namespace

std::string SuffixArray::build(const uint8* keys, uint32 key_length, uint32 buckets_from) {
    std::vector<Pending> pending;
    Records::Key key;
    for (uint64_t offset = 0; Records::Key::decode_from(keys, key_length, offset, key); offset += key.size()) {
        uint8 position = 0;
        for (uint32 byte = 0; byte < key.length; ++byte) {
            if (is_first_byte(key.text[byte])) {
                uint32 length = key.length - byte;
                pending.push_back(Pending{prefix_of(key.text + byte, length), static_cast<uint32>(offset),
                                          static_cast<uint8>(byte), position++, static_cast<uint8>(length)});
            }
        }
    }
    std::sort(pending.begin(), pending.end(), [keys](const Pending& a, const Pending& b) {
        if (a.prefix != b.prefix) {
            return a.prefix < b.prefix;
        }
        if (a.length <= 8 || b.length <= 8) {  // equal prefixes: one ends within them, so both do, alike
            return a.length != b.length ? a.length < b.length : a.key < b.key;
        }
        const uint8* a_text = keys + a.key + Format::KEY_RECORD_HEADER_SIZE + a.byte + 8;
        const uint8* b_text = keys + b.key + Format::KEY_RECORD_HEADER_SIZE + b.byte + 8;
        return compare(a_text, a.length - 8u, a.key, b_text, b.length - 8u, b.key) < 0;
    });
    std::string blob;
    bool bucketed = pending.size() >= buckets_from;
    blob.reserve(Format::SUFFIX_HEADER_SIZE + (bucketed ? Format::SUFFIX_BUCKET_TABLE_SIZE : 0) +
                 pending.size() * Format::SUFFIX_ENTRY_SIZE);
    Records::SuffixHeader{Format::SUFFIX_VERSION, static_cast<uint8>(bucketed), static_cast<uint32>(pending.size()),
                          key_length}
        .encode_to(blob);
    if (bucketed) {
        size_t i = 0;
        for (uint32 bucket = 0; bucket <= Format::SUFFIX_BUCKETS; ++bucket) {
            while (i < pending.size() && pending[i].prefix >> 48 < bucket) {
                ++i;
            }
            Records::SuffixHeader::append_u32(blob, static_cast<uint32>(i));
        }
    }
    for (const Pending& entry : pending) {
        Records::Suffix{entry.key, entry.position}.encode_to(blob);
    }
    return blob;
}

SuffixArray SuffixArray::open(const uint8* blob, uint64_t length, uint32 key_length, std::string* error) {
    SuffixArray view;
    Records::SuffixHeader header;
    std::string why;
    if (length < Format::SUFFIX_HEADER_SIZE) {
        why = std::to_string(length) + " bytes; shorter than the 16-byte header";
    } else if (!Records::SuffixHeader::decode_from(blob, length, header)) {
        why = "not a suffix array (no \"QVXS\" header)";
    } else if (header.version != Format::SUFFIX_VERSION) {
        why = "version " + std::to_string(header.version) + ", this library reads version " +
              std::to_string(Format::SUFFIX_VERSION);
    } else if (header.key_blob_length != key_length) {
        why = "made for a key.bin of " + std::to_string(header.key_blob_length) + " bytes; this one has " +
              std::to_string(key_length);
    } else if (length != Format::SUFFIX_HEADER_SIZE + (header.buckets ? Format::SUFFIX_BUCKET_TABLE_SIZE : 0) +
                             uint64_t{header.entries} * Format::SUFFIX_ENTRY_SIZE) {
        why = std::to_string(length) + " bytes; its header makes it " +
              std::to_string(Format::SUFFIX_HEADER_SIZE + (header.buckets ? Format::SUFFIX_BUCKET_TABLE_SIZE : 0) +
                             uint64_t{header.entries} * Format::SUFFIX_ENTRY_SIZE);
    } else {
        view.buckets = header.buckets ? blob + Format::SUFFIX_HEADER_SIZE : nullptr;
        view.entries = blob + Format::SUFFIX_HEADER_SIZE + (header.buckets ? Format::SUFFIX_BUCKET_TABLE_SIZE : 0);
        view.count = header.entries;
        return view;
    }
    if (error != nullptr) {
        *error = "suffix.bin: " + why;
    }
    return view;
}

bool SuffixArray::range(const uint8* keys, uint64_t key_length, std::string_view keyword, uint32& first,
                        uint32& last) const {
    const uint8* wanted = reinterpret_cast<const uint8*>(keyword.data());
    bool sound = true;
    // <0: the entry's suffix sorts before every suffix that begins with the
    // keyword; 0: it begins with it; >0: after.
    auto order = [&](uint32 i) {
        const uint8* text;
        uint32 length;
        if (!text_of(keys, key_length, this->at(i), text, length)) {
            sound = false;
            return 0;
        }
        int bytes = std::memcmp(text, wanted, std::min<size_t>(length, keyword.size()));
        return bytes != 0 ? bytes : length < keyword.size() ? -1 : 0;
    };
    // The bucket of the keyword's first two bytes holds its run; the first
    // entry not before the run, then the run's end, galloping from there,
    // as runs are mostly short.
    uint32 low = 0;
    uint32 end = this->count;
    if (this->buckets != nullptr && !keyword.empty()) {
        uint32 bucket = uint32{wanted[0]} << 8 | (keyword.size() > 1 ? wanted[1] : 0);
        uint32 next = keyword.size() > 1 ? bucket + 1 : bucket + 256;
        low = this->bucket_start(bucket);
        end = this->bucket_start(next);
        if (low > end) {
            return false;  // a damaged table
        }
    }
    uint32 high = end;
    while (low < high && sound) {
        uint32 middle = low + (high - low) / 2;
        if (order(middle) < 0) {
            low = middle + 1;
        } else {
            high = middle;
        }
    }
    first = last = low;
    if (!sound || low == end || order(low) != 0) {
        return sound;
    }
    uint32 step = 1;
    high = low + 1;  // [last, high): last is in the run, high unknown
    while (sound && high < end && order(high) == 0) {
        low = high;
        high = end - high > step ? high + step : end;
        step *= 2;
    }
    while (sound && low + 1 < high) {
        uint32 middle = low + (high - low) / 2;
        if (order(middle) == 0) {
            low = middle;
        } else {
            high = middle;
        }
    }
    last = high;
    return sound;
}

uint32 SuffixArray::bucket_start(uint32 bucket) const {
    return std::min(LittleEndian::load_u32(this->buckets + 4 * uint64_t{bucket}), this->count);
}

bool SuffixArray::check(const uint8* keys, uint32 key_length, std::string* error) const {
    std::vector<bool> starts(key_length, false);
    uint64_t characters = 0;
    Records::Key key;
    for (uint64_t offset = 0; Records::Key::decode_from(keys, key_length, offset, key); offset += key.size()) {
        starts[offset] = true;
        characters += static_cast<uint64_t>(std::count_if(key.text, key.text + key.length, is_first_byte));
    }
    if (characters != this->count) {
        if (error != nullptr) {
            *error = "suffix.bin: " + std::to_string(this->count) + " entries; the keys of key.bin have " +
                     std::to_string(characters) + " characters";
        }
        return false;
    }
    const uint8* previous = nullptr;
    uint32 previous_length = 0;
    uint32 previous_key = 0;
    uint32 next_bucket = 0;  // the buckets before it begin where the table says
    bool buckets_sound = true;
    for (uint32 i = 0; i < this->count; ++i) {
        Records::Suffix suffix = this->at(i);
        std::string fault;
        const uint8* text = nullptr;
        uint32 length = 0;
        if (suffix.key >= key_length || !starts[suffix.key]) {
            fault = "points at offset " + std::to_string(suffix.key) + ", where no key record of key.bin starts";
        } else if (!text_of(keys, key_length, suffix, text, length) || length == 0) {
            fault = "gives position " + std::to_string(suffix.position) + " of the key at " +
                    std::to_string(suffix.key) + ", which has fewer characters";
        } else if (previous != nullptr &&
                   compare(previous, previous_length, previous_key, text, length, suffix.key) >= 0) {
            fault = "is not after the entry before it";
        }
        if (!fault.empty()) {
            if (error != nullptr) {
                *error = "suffix.bin: entry " + std::to_string(i) + " " + fault;
            }
            return false;
        }
        previous = text;
        previous_length = length;
        previous_key = suffix.key;
        if (this->buckets != nullptr) {
            uint32 bucket = uint32{text[0]} << 8 | (length > 1 ? text[1] : 0);
            for (; next_bucket <= bucket; ++next_bucket) {
                buckets_sound &= LittleEndian::load_u32(this->buckets + 4 * next_bucket) == i;
            }
        }
    }
    for (; this->buckets != nullptr && next_bucket <= Format::SUFFIX_BUCKETS; ++next_bucket) {
        buckets_sound &= LittleEndian::load_u32(this->buckets + 4 * next_bucket) == this->count;
    }
    if (!buckets_sound && error != nullptr) {
        *error = "suffix.bin: the bucket table does not say where the entries of each first two bytes begin";
    }
    return buckets_sound;
}

}  // namespace Lexarium
