// Shared by the fuzz targets and the seed maker: reading an input as a
// stream of bytes, text taken apart leniently, and the checks every search
// result must pass; the brute-force search the targets compare the reader
// with is quorvex_testing's. Header only, so each target stays one source
// file plus this.
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

#include "QuorvexTesting.h"
#include "Reader/IndexReader.h"
#include "TypeDefinitions.h"
#include "Utf8.h"

namespace quorvex_fuzz {

using namespace quorvex_testing;

// Stops the process with a message; libFuzzer saves the input as a crasher.
[[noreturn]] inline void fail(const std::string& message) {
    std::fprintf(stderr, "quorvex fuzz: %s\n", message.c_str());
    std::abort();
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

// make_bytes, under the name that says why the targets use it.
inline Rc<ByteArray> exact_copy(const std::vector<uint8_t>& bytes) { return make_bytes(bytes); }

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

// The characters of arbitrary bytes: a byte that starts no valid character
// (as Utf8::read_character reads them) stands for itself, as U+0000..U+00FF.
// True when there was no such byte.
inline bool decode(const std::string& text, std::vector<uint32_t>* code_points) {
    bool well_formed = true;
    code_points->clear();
    const uint8_t* bytes = reinterpret_cast<const uint8_t*>(text.data());
    for (size_t i = 0; i < text.size();) {
        uint32_t code_point = bytes[i];
        size_t size = Lexarium::Utf8::read_character(bytes + i, text.size() - i, code_point);
        well_formed = well_formed && size != 0;
        code_points->push_back(code_point);
        i += size == 0 ? 1 : size;
    }
    return well_formed;
}

// The characters of bytes that need not be UTF-8, for cutting keywords out
// of keys; zero bytes are dropped.
inline std::vector<uint32_t> decode_leniently(const std::string& text) {
    std::vector<uint32_t> code_points;
    decode(text, &code_points);
    code_points.erase(std::remove(code_points.begin(), code_points.end(), 0u), code_points.end());
    return code_points;
}

inline bool lies_inside(const void* data, size_t length, const ByteArray& blob) {
    uintptr_t begin = reinterpret_cast<uintptr_t>(blob.data);
    uintptr_t at = reinterpret_cast<uintptr_t>(data);
    return at >= begin && at - begin <= blob.length && length <= blob.length - (at - begin);
}

inline bool lies_inside(const ByteArray& view, const ByteArray& blob) { return lies_inside(view.data, view.length, blob); }

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
    for (const auto& result : *results) {
        if (!lies_inside(*result->key, key_blob) || !lies_inside(*result->value, data_blob)) {
            fail(search + " returned a view outside the blobs");
        }
    }
    std::vector<Hit> hits = result_hits(*results);
    for (const Hit& hit : hits) {
        if (hit.key.find(keyword) == std::string::npos) {
            fail(search + " returned the key " + hex(hit.key) + ", which does not hold it");
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

// A character of any length form, never U+0000, read from the input.
inline uint32_t any_character(ByteSource& in) {
    uint8_t form = in.u8();
    uint32_t bits = in.u16();
    switch (form % 4) {
        case 0:
            return 1 + bits % 0x7F;
        case 1:
            return 0x80 + bits % 0x780;
        case 2:
            return 0x800 + bits % 0xF800;
        default:
            return 0x10000 + ((uint32_t{form} << 16 | bits) % 0x100000);
    }
}

// `rounds` keywords cut from the texts of `records`, then the empty keyword;
// all under 255 bytes. With bytes left in `query`, they choose the kind, the
// key and the place; without, a fixed round of each kind. Without
// `any_bytes` every keyword is well-formed UTF-8 without NUL; with it, some
// are raw bytes, cut inside a character or taken from the input.
inline std::vector<std::string> keywords_for(const KeyRecords& records, ByteSource& query, size_t rounds,
                                             bool any_bytes) {
    const bool chosen = !query.empty();
    auto pick = [&](size_t bound, size_t fallback) { return (chosen ? query.u8() : fallback) % bound; };
    std::vector<std::string> keywords;
    for (size_t round = 0; round < rounds; ++round) {
        size_t kind = pick(any_bytes ? 8 : 6, round);
        std::string text = records.empty() ? std::string("a") : records[pick(records.size(), round)].second;
        std::vector<uint32_t> characters = decode_leniently(text);
        if (characters.empty()) {
            characters.push_back('a');
        }
        size_t from = pick(characters.size(), 0);
        std::string keyword;
        switch (kind) {
            case 0:  // a piece of 1 to 6 characters
                keyword = encode_within(characters, from, 1 + pick(6, round));
                break;
            case 1:  // the first 1 to 3 characters
                keyword = encode_within(characters, 0, 1 + pick(3, 0));
                break;
            case 2:  // the whole key, as far as it is characters
                keyword = encode_within(characters, 0, 254);
                break;
            case 3: {  // a piece with one character made supplementary: the
                       // same low 16 bits (a row the reader then walks) or FFFF
                std::vector<uint32_t> twin(characters.begin() + static_cast<std::ptrdiff_t>(from), characters.end());
                twin.resize(std::min<size_t>(twin.size(), 1 + pick(4, 1)));
                uint32_t& changed = twin[pick(twin.size(), 0)];
                uint32_t low = pick(4, 1) == 0 ? 0xFFFF : changed & 0xFFFF;
                changed = static_cast<uint32_t>((1 + pick(16, 0)) << 16) | low;
                keyword = encode_within(twin, 0, twin.size());
                break;
            }
            case 4: {  // characters made of input bytes
                std::vector<uint32_t> made(chosen ? 1 + query.u8() % 80 : 3);
                for (uint32_t& code_point : made) {
                    code_point = chosen ? any_character(query) : 'a' + static_cast<uint32_t>(round);
                }
                keyword = encode_within(made, 0, made.size());
                break;
            }
            case 5:  // the longest keyword allowed, 254 bytes
                keyword = encode_within(characters, from, 254);
                keyword.resize(254, 'a');
                break;
            case 6:  // raw bytes of the key, perhaps cut inside a character
                keyword = text.substr(pick(text.size() + 1, 1), 1 + pick(12, 3));
                break;
            case 7:  // bytes from the input, or a keyword that is not UTF-8
                keyword = chosen ? query.bytes(query.u8() % 32) : std::string("a\xFF");
                break;
        }
        keywords.push_back(keyword.substr(0, 254));
    }
    keywords.push_back("");
    return keywords;
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
