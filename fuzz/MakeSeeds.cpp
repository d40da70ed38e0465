// Writes the generated seed inputs of the corpora:
//
//   quorvex_fuzz_seeds VERIFY_THEN_SEARCH_DIR BUILD_AND_COMPARE_DIR [MAPPED_OPEN_SEARCH_DIR]
//
// For verify_then_search: file sets built by IndexWriter from a few items,
// written in the raw layout of VerifyThenSearchFuzzer.cpp (once with the deep
// flag, once without), one cut short so that the verifier has something to
// refuse, and byte streams for the generated modes. For build_and_compare:
// byte streams in that target's layout. (That corpus's hand-written item
// seeds are committed as they are.) For mapped_open_search: the same item
// sets in its sparse layout, sound and with the table cut or too long, and
// the sets it builds itself, sound and with each kind of damage. Each file
// is named seed-*, so the seeds stay apart from the inputs a fuzzer adds.
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

// A sparse mapped_open_search input: flags, the table's non-empty rows,
// the table's tail byte, then index.bin, key.bin and data.bin with their
// lengths, then the query.
std::string sparse_input(const Items& items, uint8_t flags, const std::string& query, uint8_t tail = 0) {
    Lexarium::Writer::IndexWriter writer;
    for (const auto& item : items) {
        std::vector<uint8_t> value(item.second.begin(), item.second.end());
        writer.add_word(item.first, quorvex_fuzz::exact_copy(value));
    }
    Rc<Lexarium::Writer::_IndexData> built = writer.to_bytes();
    std::vector<uint8_t> table = quorvex_fuzz::concatenate(built->table_chunks);
    std::string rows;
    size_t count = 0;
    for (size_t at = 0, code_point = 0; code_point < 65535; ++code_point) {
        size_t size = 1 + 8 * size_t{table[at]};
        if (table[at] != 0) {
            rows += {static_cast<char>(code_point & 0xFF), static_cast<char>(code_point >> 8)};
            rows.append(reinterpret_cast<const char*>(table.data() + at), size);
            ++count;
        }
        at += size;
    }
    if (count > 255) {
        fail("a seed of " + std::to_string(count) + " non-empty rows does not fit the layout");
    }
    std::string input = {static_cast<char>(flags), static_cast<char>(count)};
    input += rows;
    input += static_cast<char>(tail);
    for (const std::vector<Rc<ByteArray>>* chunks : {&built->index_chunks, &built->key_chunks, &built->data_chunks}) {
        std::vector<uint8_t> bytes = quorvex_fuzz::concatenate(*chunks);
        if (bytes.size() > 0xFFFF) {
            fail("a seed file of " + std::to_string(bytes.size()) + " bytes does not fit the layout");
        }
        input += {static_cast<char>(bytes.size() & 0xFF), static_cast<char>(bytes.size() >> 8)};
        input.append(bytes.begin(), bytes.end());
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
    if (argc != 3 && argc != 4) {
        std::fprintf(stderr, "usage: %s VERIFY_THEN_SEARCH_DIR BUILD_AND_COMPARE_DIR [MAPPED_OPEN_SEARCH_DIR]\n",
                     argv[0]);
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
    if (argc == 3) {
        return 0;
    }

    const std::string mapped_dir = argv[3];
    write(mapped_dir, "sparse-latin", sparse_input(latin, 0, ""));
    write(mapped_dir, "sparse-latin-c", sparse_input(latin, 4, latin_query));
    write(mapped_dir, "sparse-mixed", sparse_input(mixed, 0, "\x04\x01\x00\x03\x02\x01"));
    write(mapped_dir, "sparse-long-keys", sparse_input(long_keys, 4, ""));
    write(mapped_dir, "sparse-edges", sparse_input(edges, 0, ""));
    write(mapped_dir, "sparse-empty", sparse_input({}, 0, ""));
    write(mapped_dir, "sparse-latin-table-cut", sparse_input(latin, 0, "", 1));
    write(mapped_dir, "sparse-latin-table-long", sparse_input(latin, 0, "", 2));
    // The sets IndexWriter builds inside the target: as built, then each
    // kind of damage (see MappedOpenFuzzer.cpp's damage()).
    for (uint8_t set = 0; set < 32; set += 5) {
        write(mapped_dir, "built-" + std::to_string(set), std::string{1, static_cast<char>(set)} + "\x00\x05\x11");
    }
    write(mapped_dir, "built-long-c", std::string{5, 31});
    for (uint8_t kind = 0; kind < 8; ++kind) {
        for (uint8_t file = 0; file < 4; ++file) {
            std::string input = {2, static_cast<char>(kind * 4 + file), static_cast<char>(kind), static_cast<char>(file)};
            write(mapped_dir, "damaged-" + std::to_string(kind) + "-" + std::to_string(file),
                  input + stream(0, kind * 31u + file, 12).substr(1));
        }
    }
    return 0;
}
