// Shared by the fuzz targets and the seed maker: reading an input as a
// stream of bytes, UTF-8 read and written by hand, the brute-force search the
// targets compare the reader with, and the checks every search result must
// pass. Header only, so each target stays one source file plus this.
#ifndef QUORVEX_FUZZ_SUPPORT_H
#define QUORVEX_FUZZ_SUPPORT_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Reader/IndexReader.h"
#include "TypeDefinitions.h"
#include "Utf8.h"

namespace quorvex_fuzz {

// Stops the process with a message; libFuzzer saves the input as a crasher.
[[noreturn]] inline void fail(const std::string& message) {
    std::fprintf(stderr, "quorvex fuzz: %s\n", message.c_str());
    std::abort();
}

inline std::string hex(const std::string& bytes) {
    std::string out;
    for (unsigned char byte : bytes) {
        out += "0123456789abcdef"[byte >> 4];
        out += "0123456789abcdef"[byte & 15];
    }
    return out;
}

// The input read front to back. Past its end every read yields zeros, so a
// short input still decodes to something.
class ByteSource {
public:
    ByteSource(const uint8_t* data, size_t size) : data_(data), size_(size) {}

    bool empty() const { return position_ >= size_; }

    uint8_t u8() { return empty() ? 0 : data_[position_++]; }
    uint16_t u16() {
        uint16_t low = u8();
        return static_cast<uint16_t>(low | (u8() << 8));
    }
    uint32_t u32() {
        uint32_t low = u16();
        return low | (static_cast<uint32_t>(u16()) << 16);
    }
    // Up to `count` bytes, fewer when the input ends first.
    std::string bytes(size_t count) {
        size_t taken = empty() ? 0 : std::min(count, size_ - position_);
        position_ += taken;
        return std::string(reinterpret_cast<const char*>(data_ + position_ - taken), taken);
    }

private:
    const uint8_t* data_;
    size_t size_;
    size_t position_ = 0;
};

inline void append_utf8(std::string& out, uint32_t code_point) { Lexarium::Utf8::append(out, code_point); }

// A character of U+0001..U+FFFE: mostly one of `alphabet` (few characters,
// so that substrings repeat across keys), now and then any at all.
template <size_t N>
uint32_t pick_character(ByteSource& in, const uint32_t (&alphabet)[N]) {
    uint8_t choice = in.u8();
    if (choice < 0xF0) {
        return alphabet[choice % N];
    }
    uint32_t code_point = in.u16();
    return code_point == 0 ? 1 : code_point == 0xFFFF ? 0xFFFE : code_point;
}

// Reads one UTF-8 character at text[i]: shortest form, at most U+10FFFF,
// surrogates allowed (the reader's keyword decoder takes them too). Returns
// its size, or 0 for anything else.
inline size_t read_character(const std::string& text, size_t i, uint32_t* code_point) {
    uint8_t lead = static_cast<uint8_t>(text[i]);
    size_t size = lead < 0x80 ? 1 : lead < 0xC2 ? 0 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : lead < 0xF5 ? 4 : 0;
    if (size == 0 || i + size > text.size()) {
        return 0;
    }
    uint32_t value = size == 1 ? lead : lead & (0x7F >> size);
    for (size_t j = 1; j < size; ++j) {
        uint8_t next = static_cast<uint8_t>(text[i + j]);
        if ((next & 0xC0) != 0x80) {
            return 0;
        }
        value = (value << 6) | (next & 0x3F);
    }
    if ((size == 3 && value < 0x800) || (size == 4 && (value < 0x10000 || value > 0x10FFFF))) {
        return 0;
    }
    *code_point = value;
    return size;
}

// The characters of arbitrary bytes and the byte offset of each: a byte
// that starts no valid character stands for itself (as U+0000..U+00FF).
// True when there was no such byte.
inline bool decode(const std::string& text, std::vector<uint32_t>* code_points, std::vector<size_t>* starts) {
    bool well_formed = true;
    code_points->clear();
    starts->clear();
    for (size_t i = 0; i < text.size();) {
        uint32_t code_point = static_cast<uint8_t>(text[i]);
        size_t size = read_character(text, i, &code_point);
        well_formed = well_formed && size != 0;
        code_points->push_back(code_point);
        starts->push_back(i);
        i += size == 0 ? 1 : size;
    }
    return well_formed;
}

// Decodes a stored key the way the index lists it: every character must be
// U+0001..U+FFFE.
inline bool decode_indexable(const std::string& text, std::vector<uint32_t>* code_points, std::vector<size_t>* starts) {
    bool ok = decode(text, code_points, starts);
    for (uint32_t code_point : *code_points) {
        ok = ok && code_point != 0 && code_point <= 0xFFFE;
    }
    return ok;
}

// The characters of bytes that need not be UTF-8, for cutting keywords out
// of keys; zero bytes are dropped.
inline std::vector<uint32_t> decode_leniently(const std::string& text) {
    std::vector<uint32_t> code_points;
    std::vector<size_t> starts;
    decode(text, &code_points, &starts);
    code_points.erase(std::remove(code_points.begin(), code_points.end(), 0u), code_points.end());
    return code_points;
}

// Whole characters from `from`, at most `count`, while the text stays
// within the 254 bytes a keyword may have.
inline std::string encode_within(const std::vector<uint32_t>& code_points, size_t from, size_t count) {
    std::string out;
    for (size_t i = from; i < code_points.size() && i < from + count; ++i) {
        std::string character;
        append_utf8(character, code_points[i]);
        if (out.size() + character.size() > 254) {
            break;
        }
        out += character;
    }
    return out;
}

inline std::vector<uint8_t> concatenate(const std::vector<Rc<ByteArray>>& chunks) {
    std::vector<uint8_t> bytes;
    for (const Rc<ByteArray>& chunk : chunks) {
        bytes.insert(bytes.end(), chunk->data, chunk->data + chunk->length);
    }
    return bytes;
}

// An allocation of exactly the size of `bytes`, so that a read one byte past
// it is a sanitizer report.
inline Rc<ByteArray> exact_copy(const std::vector<uint8_t>& bytes) {
    Rc<ByteArray> array(new ByteArray(static_cast<uint32>(bytes.size())));
    if (!bytes.empty()) {
        std::memcpy(array->data, bytes.data(), bytes.size());
    }
    return array;
}

// One key as the brute-force search sees it.
struct ReferenceKey {
    std::string stored;                // the key's bytes in key.bin
    std::vector<uint32_t> characters;  // every character the index lists it under, by position
    std::vector<size_t> starts;        // byte offset in `stored` of each stored character
    std::string value;
};

// A key added with `characters`, as key.bin holds it: whole characters
// while it fits in 254 bytes.
inline ReferenceKey reference_key(const std::vector<uint32_t>& characters, const std::string& value) {
    ReferenceKey key{encode_within(characters, 0, characters.size()), characters, {}, value};
    std::vector<uint32_t> stored;
    decode(key.stored, &stored, &key.starts);
    return key;
}

struct Hit {
    std::string key;
    std::string value;
    bool operator==(const Hit& other) const { return key == other.key && value == other.value; }
};

// The search by its rules alone, over `keys` in posting-list order: position
// by position, every key whose character at that position is the keyword's
// first and whose stored text holds the keyword's bytes from there. Each
// position is asked for what is still missing (modulo 2^16) and checks after
// appending, so limit 0 yields at most the first hit at position 0.
inline std::vector<Hit> reference_search(const std::vector<ReferenceKey>& keys, const std::string& keyword,
                                         uint32_t first, uint16_t limit) {
    std::vector<Hit> hits;
    uint32_t total = 0;
    for (uint32_t position = 0; position <= 254 && (position == 0 || total < limit); ++position) {
        uint16_t wanted = static_cast<uint16_t>(limit - total);
        uint16_t found = 0;
        for (const ReferenceKey& key : keys) {
            if (position >= key.characters.size() || key.characters[position] != first) {
                continue;
            }
            // A character past the stored text (a shortened key) starts at
            // its end, where no keyword fits.
            size_t start = position < key.starts.size() ? key.starts[position] : key.stored.size();
            if (key.stored.compare(start, keyword.size(), keyword) != 0) {
                continue;
            }
            hits.push_back(Hit{key.stored, key.value});
            if (++found >= wanted) {
                break;
            }
        }
        total += found;
    }
    return hits;
}

typedef Rc<std::vector<Rc<Lexarium::Reader::SearchResult>>> Results;

inline bool lies_inside(const ByteArray& view, const ByteArray& blob) {
    uintptr_t begin = reinterpret_cast<uintptr_t>(blob.data);
    uintptr_t at = reinterpret_cast<uintptr_t>(view.data);
    return at >= begin && at - begin <= blob.length && view.length <= blob.length - (at - begin);
}

// What every search must give, whatever index it ran on: no more results
// than asked for (one for limit 0), keys and values that are views inside
// the reader's key and data blobs, and keys that hold the keyword's bytes.
// Every byte of every view is read, so a sanitizer sees a view that strays.
inline std::vector<Hit> checked_hits(const Results& results, const ByteArray& key_blob, const ByteArray& data_blob,
                                     const std::string& keyword, uint16_t limit) {
    const std::string search = "search for " + hex(keyword) + " with limit " + std::to_string(limit);
    if (results->size() > (limit == 0 ? 1u : limit)) {
        fail(search + " returned " + std::to_string(results->size()) + " results");
    }
    std::vector<Hit> hits;
    for (const auto& result : *results) {
        const ByteArray& key = *result->key;
        const ByteArray& value = *result->value;
        if (!lies_inside(key, key_blob) || !lies_inside(value, data_blob)) {
            fail(search + " returned a view outside the blobs");
        }
        hits.push_back(Hit{std::string(reinterpret_cast<const char*>(key.data), key.length),
                           std::string(reinterpret_cast<const char*>(value.data), value.length)});
        if (hits.back().key.find(keyword) == std::string::npos) {
            fail(search + " returned the key " + hex(hits.back().key) + ", which does not hold it");
        }
    }
    return hits;
}

inline void require_same_hits(const std::vector<Hit>& actual, const std::vector<Hit>& expected,
                              const std::string& keyword, uint16_t limit) {
    if (actual != expected) {
        std::string keys[2];
        for (int side = 0; side < 2; ++side) {
            for (const Hit& hit : side == 0 ? actual : expected) {
                keys[side] += " " + hex(hit.key);
            }
        }
        fail("search for " + hex(keyword) + " with limit " + std::to_string(limit) +
             " differs from the brute-force search\n  library:" + keys[0] + "\n  expected:" + keys[1]);
    }
}

// The table section of a raw file-set input: bytes as they are, except that
// FF lo hi stands for lo + 256 hi zero bytes, FF 00 00 for one FF byte, and
// an FF too close to the end for itself. Tables are 65535 bytes or more and
// mostly zeros; this keeps them small in a corpus while any byte string can
// still be written. The expansion stops at `max_bytes`.
inline std::vector<uint8_t> expand_table(const std::string& section, size_t max_bytes) {
    std::vector<uint8_t> out;
    for (size_t i = 0; i < section.size() && out.size() < max_bytes; ++i) {
        uint8_t byte = static_cast<uint8_t>(section[i]);
        if (byte != 0xFF || i + 2 >= section.size()) {
            out.push_back(byte);
            continue;
        }
        size_t zeros = static_cast<uint8_t>(section[i + 1]) | (static_cast<uint8_t>(section[i + 2]) << 8);
        i += 2;
        out.resize(out.size() + (zeros == 0 ? 1 : zeros), zeros == 0 ? 0xFF : 0);
    }
    out.resize(std::min(out.size(), max_bytes));
    return out;
}

}  // namespace quorvex_fuzz

#endif
