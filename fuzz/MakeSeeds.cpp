// Writes the seed inputs of the two corpora:
//
//   quorvex_fuzz_seeds VERIFY_THEN_SEARCH_DIR BUILD_AND_COMPARE_DIR
//
// For verify_then_search: file sets built by IndexWriter from a few items,
// written in the raw layout of VerifyThenSearchFuzzer.cpp (once with the deep
// flag, once without), one cut short so that the verifier has something to
// refuse, and byte streams for the generated modes. For build_and_compare:
// item streams in that target's layout. Each file is named seed-*, so the
// seeds stay apart from the inputs a fuzzer adds.
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "FuzzSupport.h"
#include "Writer/IndexWriter.h"

using quorvex_fuzz::append_utf8;

namespace {

typedef std::vector<std::pair<std::string, std::string>> Items;

std::string utf8(std::initializer_list<uint32_t> code_points) {
    std::string out;
    for (uint32_t code_point : code_points) {
        append_utf8(out, code_point);
    }
    return out;
}

std::string repeat(const std::string& text, size_t times) {
    std::string out;
    for (size_t i = 0; i < times; ++i) {
        out += text;
    }
    return out;
}

std::vector<uint8_t> concatenate(const std::vector<Rc<ByteArray>>& chunks) {
    std::vector<uint8_t> bytes;
    for (const Rc<ByteArray>& chunk : chunks) {
        bytes.insert(bytes.end(), chunk->data, chunk->data + chunk->length);
    }
    return bytes;
}

void put_u16(std::string& out, size_t value) {
    if (value > 0xFFFF) {
        quorvex_fuzz::fail("a seed section of " + std::to_string(value) + " bytes does not fit the layout");
    }
    out += static_cast<char>(value & 0xFF);
    out += static_cast<char>(value >> 8);
}

void write(const std::string& directory, const std::string& name, const std::string& bytes) {
    std::string path = directory + "/seed-" + name;
    std::ofstream file(path, std::ios::binary);
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!file.flush()) {
        quorvex_fuzz::fail("cannot write " + path);
    }
}

// A raw verify_then_search input: flags, section lengths, sections, query.
std::string raw_input(const Items& items, bool deep, const std::string& query, size_t table_cut = 0) {
    Lexarium::Writer::IndexWriter writer;
    for (const auto& item : items) {
        Rc<ByteArray> value(new ByteArray(static_cast<uint32>(item.second.size())));
        std::copy(item.second.begin(), item.second.end(), value->data);
        writer.add_word(item.first, value);
    }
    Rc<Lexarium::Writer::_IndexData> built = writer.to_bytes();
    std::vector<uint8_t> table = concatenate(built->table_chunks);
    table.resize(table.size() - table_cut);
    std::string sections[4] = {quorvex_fuzz::compress_table(table), "", "", ""};
    const std::vector<Rc<ByteArray>>* others[3] = {&built->index_chunks, &built->key_chunks, &built->data_chunks};
    for (int blob = 0; blob < 3; ++blob) {
        std::vector<uint8_t> bytes = concatenate(*others[blob]);
        sections[blob + 1].assign(bytes.begin(), bytes.end());
    }
    if (quorvex_fuzz::expand_table(sections[0], table.size() + 1) != table) {
        quorvex_fuzz::fail("the table does not survive compression");
    }
    // Raw mode, verifier keeps up to 8 problems.
    std::string input(1, static_cast<char>((deep ? 4 : 0) | (8 << 3)));
    for (const std::string& section : sections) {
        put_u16(input, section.size());
    }
    for (const std::string& section : sections) {
        input += section;
    }
    return input + query;
}

// Bytes of a fixed pseudo-random sequence, for the generated modes.
std::string stream(uint8_t flags, uint32_t seed, size_t length) {
    std::string out(1, static_cast<char>(flags));
    for (size_t i = 0; i < length; ++i) {
        seed = seed * 1103515245u + 12345u;
        out += static_cast<char>(seed >> 24);
    }
    return out;
}

// A build_and_compare input: the item count, then each item (a shape byte,
// its characters, its value), then keyword triples. Characters are written
// as any-code-point escapes, values of 24..99 bytes or of odd length above
// that cannot be written and stop the seed maker.
class ItemStream {
public:
    ItemStream& item(const std::string& key, const std::string& value) {
        std::vector<uint32_t> characters = quorvex_fuzz::decode_leniently(key);
        items_ += static_cast<char>(characters.size() - 1);
        characters_of(characters);
        value_of(value);
        return this->counted();
    }
    ItemStream& repeated(const std::vector<uint32_t>& pattern, size_t length, const std::string& value) {
        items_ += static_cast<char>(0x80 | (pattern.size() - 1));
        characters_of(pattern);
        items_ += static_cast<char>(length - 1);
        value_of(value);
        return this->counted();
    }
    ItemStream& again(size_t earlier, const std::string& value) {
        items_ += '\xC0';
        items_ += static_cast<char>(earlier);
        value_of(value);
        return this->counted();
    }
    ItemStream& keyword(size_t key, size_t from, size_t length) {
        keywords_ += static_cast<char>(key);
        keywords_ += static_cast<char>(from);
        keywords_ += static_cast<char>(length - 1);
        return *this;
    }
    std::string text() const { return std::string(1, static_cast<char>(count_ - 1)) + items_ + keywords_; }

private:
    ItemStream& counted() {
        ++count_;
        return *this;
    }
    void characters_of(const std::vector<uint32_t>& characters) {
        for (uint32_t code_point : characters) {
            items_ += '\xF0';
            items_ += static_cast<char>(code_point & 0xFF);
            items_ += static_cast<char>(code_point >> 8);
        }
    }
    void value_of(const std::string& value) {
        if (value.size() < 24) {
            items_ += static_cast<char>(value.size());
        } else if (value.size() >= 100 && value.size() <= 610 && value.size() % 2 == 0) {
            items_ += '\xF0';
            items_ += static_cast<char>((value.size() - 100) / 2);
        } else {
            quorvex_fuzz::fail("a value of " + std::to_string(value.size()) + " bytes cannot be written");
        }
        items_ += value;
    }

    size_t count_ = 0;
    std::string items_;
    std::string keywords_;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s VERIFY_THEN_SEARCH_DIR BUILD_AND_COMPARE_DIR\n", argv[0]);
        return 2;
    }
    const std::string verify_dir = argv[1];
    const std::string build_dir = argv[2];

    const Items latin = {{"haus", "house"}, {"maus", "mouse"}, {"haustür", "front door"}, {"aus", "out"},
                         {"hausmaus", "house mouse"}, {"sau", ""}};
    const Items mixed = {{utf8({'s', 't', 'r', 'a', 0xDF, 'e'}), "street"},
                         {utf8({0x4E2D, 0x6587}), "Chinese"},
                         {utf8({0xFC, 'b', 'e', 'r'}), "over"},
                         {utf8({0x436, 0x436, 'a'}), "zh"},
                         {utf8({'a', 0x4E2D, 'a', 0x4E2D}), "twice"}};
    const Items long_keys = {{repeat(utf8({0x4E2D}), 100), "cut to 84 characters"},
                             {repeat("ab", 127), "exactly 254 bytes"},
                             {repeat(utf8({0xE9}), 130), "cut to 127 characters"},
                             {"ab", "short"}};
    const Items repeats = {{"a", "1"}, {"aa", "2"}, {"aaa", "3"}, {"ab", "4"}, {"ba", "5"}, {"b", "6"},
                           {"a", "last one wins"}};
    const Items edges = {{utf8({0x01}), "U+0001"},          {utf8({0x7F, 0x80}), "one and two bytes"},
                         {utf8({0x7FF, 0x800}), "two and three"}, {utf8({0xFFFE}), "U+FFFE"},
                         {utf8({0xD800, 'a'}), "surrogate"},   {std::string(254, 'v'), std::string(600, 'x')}};

    write(verify_dir, "raw-latin-deep", raw_input(latin, true, ""));
    write(verify_dir, "raw-latin", raw_input(latin, false, std::string("\x00\x00\x02\x02\x01\x03\x05\x00\x01\xFF\xFF", 11)));
    write(verify_dir, "raw-mixed-deep", raw_input(mixed, true, ""));
    write(verify_dir, "raw-mixed", raw_input(mixed, false, "\x04\x01\x00\x03\x02\x01"));
    write(verify_dir, "raw-long-keys-deep", raw_input(long_keys, true, ""));
    write(verify_dir, "raw-repeats-deep", raw_input(repeats, true, ""));
    write(verify_dir, "raw-edges-deep", raw_input(edges, true, ""));
    write(verify_dir, "raw-empty-deep", raw_input({}, true, ""));
    write(verify_dir, "raw-latin-table-cut", raw_input(latin, true, "", 1));
    for (uint8_t mode = 1; mode <= 3; ++mode) {
        for (uint32_t seed = 1; seed <= 3; ++seed) {
            uint8_t flags = static_cast<uint8_t>(mode | (seed == 2 ? 4 : 0) | (seed << 3));
            write(verify_dir, "generated-" + std::to_string(mode) + "-" + std::to_string(seed),
                  stream(flags, seed * 7919 + mode, 120 + 80 * seed));
        }
    }

    write(build_dir, "few-short-keys",
          ItemStream()
              .item(utf8({'h', 'a', 'u', 's'}), "house")
              .item(utf8({'a', 'u', 's'}), "")
              .item(utf8({'m', 'a', 'u', 's'}), "mouse")
              .item(utf8({'s', 'a', 'u'}), "x")
              .keyword(0, 1, 3)
              .keyword(2, 0, 1)
              .text());
    write(build_dir, "long-keys",
          ItemStream()
              .repeated({0x4E2D}, 254, "stored as 84 characters")
              .repeated({'a', 'b'}, 254, "254 bytes, stored whole")
              .repeated({0xE9, 'x', 0x800}, 200, std::string(100, 'v'))
              .item(utf8({'a', 'b'}), "short")
              .text());
    write(build_dir, "duplicates",
          ItemStream()
              .item(utf8({'a'}), "first")
              .again(0, "last one wins")
              .item(utf8({'a', 'a'}), "")
              .again(2, "again")
              .item(utf8({'b', 'a', 'a'}), "baa")
              .keyword(0, 0, 1)
              .keyword(4, 1, 2)
              .text());
    write(build_dir, "edge-code-points",
          ItemStream()
              .item(utf8({0x01, 0x7F, 0x80}), "1")
              .item(utf8({0x7FF, 0x800, 0xFFFE}), "2")
              .item(utf8({0xD800, 0xDFFF, 'a'}), "surrogates")
              .item(utf8({0xFFFE, 0x01}), std::string(610, 'w'))
              .text());
    for (uint32_t seed = 1; seed <= 4; ++seed) {
        write(build_dir, "stream-" + std::to_string(seed), stream(static_cast<uint8_t>(seed * 3), seed * 104729, 60 * seed));
    }
    return 0;
}
