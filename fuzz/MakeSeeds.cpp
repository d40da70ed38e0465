// Writes the generated seed inputs of the two corpora:
//
//   quorvex_fuzz_seeds VERIFY_THEN_SEARCH_DIR BUILD_AND_COMPARE_DIR
//
// For verify_then_search: file sets built by IndexWriter from a few items,
// written in the raw layout of VerifyThenSearchFuzzer.cpp (once with the deep
// flag, once without), one cut short so that the verifier has something to
// refuse, and byte streams for the generated modes. For build_and_compare:
// byte streams in that target's layout. (That corpus's hand-written item
// seeds are committed as they are.) Each file is named seed-*, so the seeds
// stay apart from the inputs a fuzzer adds.
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "FuzzSupport.h"
#include "Writer/IndexWriter.h"

using quorvex_fuzz::fail;

namespace {

typedef std::vector<std::pair<std::string, std::string>> Items;

std::string utf8(std::initializer_list<uint32_t> code_points, size_t times = 1) {
    std::string out;
    for (size_t i = 0; i < times; ++i) {
        for (uint32_t code_point : code_points) {
            quorvex_fuzz::append_utf8(out, code_point);
        }
    }
    return out;
}

// The table section's compressed form (see expand_table): runs of four or
// more zeros as FF lo hi, an FF byte as FF 00 00.
std::string compress_table(const std::vector<uint8_t>& table) {
    std::string out;
    for (size_t i = 0; i < table.size();) {
        size_t run = 0;
        while (i + run < table.size() && table[i + run] == 0 && run < 0xFFFF) {
            ++run;
        }
        if (run >= 4 || table[i] == 0xFF) {
            run = run >= 4 ? run : 0;
            out += {'\xFF', static_cast<char>(run & 0xFF), static_cast<char>(run >> 8)};
            i += run == 0 ? 1 : run;
        } else {
            out += static_cast<char>(table[i++]);
        }
    }
    return out;
}

void write(const std::string& directory, const std::string& name, const std::string& bytes) {
    std::ofstream file(directory + "/seed-" + name, std::ios::binary);
    if (!file.write(bytes.data(), static_cast<std::streamsize>(bytes.size())).flush()) {
        fail("cannot write " + directory + "/seed-" + name);
    }
}

// A raw verify_then_search input: flags, section lengths, sections, query.
std::string raw_input(const Items& items, bool deep, const std::string& query, size_t table_cut = 0) {
    Lexarium::Writer::IndexWriter writer;
    for (const auto& item : items) {
        std::vector<uint8_t> value(item.second.begin(), item.second.end());
        writer.add_word(item.first, quorvex_fuzz::exact_copy(value));
    }
    Rc<Lexarium::Writer::_IndexData> built = writer.to_bytes();
    std::vector<uint8_t> table = quorvex_fuzz::concatenate(built->table_chunks);
    table.resize(table.size() - table_cut);
    std::string sections[4] = {compress_table(table), "", "", ""};
    const std::vector<Rc<ByteArray>>* others[3] = {&built->index_chunks, &built->key_chunks, &built->data_chunks};
    for (int blob = 0; blob < 3; ++blob) {
        std::vector<uint8_t> bytes = quorvex_fuzz::concatenate(*others[blob]);
        sections[blob + 1].assign(bytes.begin(), bytes.end());
    }
    if (quorvex_fuzz::expand_table(sections[0], table.size() + 1) != table) {
        fail("the table does not survive compression");
    }
    // Raw mode, verifier keeps up to 8 problems.
    std::string input(1, static_cast<char>((deep ? 4 : 0) | (8 << 3)));
    for (const std::string& section : sections) {
        if (section.size() > 0xFFFF) {
            fail("a seed section of " + std::to_string(section.size()) + " bytes does not fit the layout");
        }
        input += {static_cast<char>(section.size() & 0xFF), static_cast<char>(section.size() >> 8)};
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
    const Items long_keys = {{utf8({0x4E2D}, 100), "cut to 84 characters"},
                             {utf8({'a', 'b'}, 127), "exactly 254 bytes"},
                             {utf8({0xE9}, 130), "cut to 127 characters"},
                             {"ab", "short"}};
    const Items repeats = {{"a", "1"}, {"aa", "2"}, {"aaa", "3"}, {"ab", "4"}, {"ba", "5"}, {"b", "6"},
                           {"a", "last one wins"}};
    const Items edges = {{utf8({0x01}), "U+0001"},          {utf8({0x7F, 0x80}), "one and two bytes"},
                         {utf8({0x7FF, 0x800}), "two and three"}, {utf8({0xFFFE}), "U+FFFE"},
                         {utf8({0xD800, 'a'}), "surrogate"},   {std::string(254, 'v'), std::string(600, 'x')}};

    write(verify_dir, "raw-latin-deep", raw_input(latin, true, ""));
    const std::string latin_query("\x00\x00\x02\x02\x01\x03\x05\x00\x01\xFF\xFF", 11);
    write(verify_dir, "raw-latin", raw_input(latin, false, latin_query));
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
    for (uint32_t seed = 1; seed <= 4; ++seed) {
        std::string input = stream(static_cast<uint8_t>(seed * 3), seed * 104729, 60 * seed);
        write(build_dir, "stream-" + std::to_string(seed), input);
    }
    return 0;
}
