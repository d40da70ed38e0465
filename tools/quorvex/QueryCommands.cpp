// quorvex search, info and verify: read an index, check it, and answer.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <sys/stat.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <Reader/IndexReader.h>
#include <Records.h>
#include <nlohmann/json.hpp>

#include "Commands.h"
#include "IndexFiles.h"
#include "Progress.h"
#include "Text.h"

namespace quorvex_tool {

namespace {

using Clock = std::chrono::steady_clock;

double milliseconds_since(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// A JSON value for bytes: the string itself when it is UTF-8, otherwise
// {"bytes": base64}.
nlohmann::json json_text(const std::string& bytes) {
    if (is_valid_utf8(bytes)) {
        return bytes;
    }
    return nlohmann::json{{"bytes", base64(bytes)}};
}

// Keys and values may hold NUL bytes: write them whole.
void write_out(const std::string& text) { std::fwrite(text.data(), 1, text.size(), stdout); }

size_t terminal_columns() {
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
        return size.ws_col;
    }
    return 0;
}

void check_keyword(const std::string& keyword) {
    if (keyword.empty()) {
        throw ToolError(EXIT_USAGE, "the keyword is empty; give at least one character");
    }
    if (keyword.size() >= 255) {
        throw ToolError(EXIT_USAGE, "the keyword has " + std::to_string(keyword.size()) +
                                        " bytes; keywords must be shorter than 255 bytes");
    }
    std::vector<uint32_t> characters;
    size_t bad_byte = 0;
    if (!decode_utf8(keyword, characters, bad_byte)) {
        throw ToolError(EXIT_USAGE, "the keyword is not valid UTF-8");
    }
    for (uint32_t character : characters) {
        if (character > 0xFFFE || character == 0) {
            throw ToolError(EXIT_USAGE, "the keyword holds " + code_point_name(character) +
                                            "; keys hold only U+0001..U+FFFE, so nothing could match");
        }
    }
}

// Key lengths in characters, grouped.
const std::pair<uint32_t, const char*> LENGTH_BUCKETS[] = {
    {1, "1"}, {2, "2"}, {3, "3"}, {4, "4"}, {6, "5-6"}, {8, "7-8"}, {12, "9-12"}, {16, "13-16"},
    {24, "17-24"}, {32, "25-32"}, {64, "33-64"}, {128, "65-128"}, {254, "129-254"}};

}  // namespace

namespace {

// Where a hit came from, when a search asks several indexes or keywords:
// the index's name (from its description, else its directory) and the
// keyword.
struct Source {
    std::string dictionary;
    std::string keyword;
};

// Searches one index for one keyword and prints the hits.
void search_one(const SearchOptions& options, Lexarium::Reader::IndexReader* reader, const std::string& directory,
                const std::string& keyword, double load_ms, const Source* source) {
    Clock::time_point search_start = Clock::now();
    Lexarium::Reader::SearchOptions search_options;
    search_options.limit = static_cast<uint16>(options.limit);
    search_options.mode = options.pattern ? Lexarium::Reader::MatchMode::Pattern : Lexarium::Reader::MatchMode::Plain;
    search_options.typos = static_cast<uint8>(options.typos);
    std::vector<Lexarium::Reader::Hit> hits;
    std::string problem;
    if (!reader->find(keyword, search_options, hits, &problem)) {
        throw ToolError(EXIT_USAGE, problem);
    }
    double search_ms = milliseconds_since(search_start);
    // Nothing found as typed: a few keys one edit away, marked as suggestions.
    bool suggesting = hits.empty() && options.suggest && !options.pattern && options.typos == 0;
    if (suggesting) {
        search_options.typos = 1;
        search_options.limit = 5;
        reader->find(keyword, search_options, hits, nullptr);
    }
    // Results that skipped a damaged record would be incomplete: none rather
    // than some.
    check_damage(*reader, directory);
    if (suggesting) {
        std::fprintf(stderr, "quorvex: nothing holds \"%s\"%s%s\n", keyword.c_str(),
                     source != nullptr ? (" in " + source->dictionary).c_str() : "",
                     hits.empty() ? "" : options.json ? "; suggestions within one edit follow"
                                                      : "; within one edit:");
    }

    bool terminal = is_terminal(STDOUT_FILENO);
    size_t columns = terminal ? terminal_columns() : 0;
    if (source != nullptr && !options.json && !hits.empty() && !suggesting) {
        write_out("== " + printable(source->dictionary) + ": " + printable(keyword) + "\n");
    }
    for (const Lexarium::Reader::Hit& hit : hits) {
        std::string key(hit.key);
        std::string value(hit.value);
        if (options.json) {
            nlohmann::json object{{"key", json_text(key)}, {"value", json_text(value)}};
            if (options.typos > 0 || suggesting) {
                object["edits"] = hit.edits;
            }
            if (suggesting) {
                object["suggestion"] = true;
            }
            if (source != nullptr) {
                object["dictionary"] = json_text(source->dictionary);
                object["keyword"] = keyword;
            } else if (!reader->description().get("name").empty()) {
                object["dictionary"] = json_text(reader->description().get("name"));
            }
            write_out(object.dump() + "\n");
        } else if (suggesting) {
            std::fprintf(stderr, "  %s\n", printable(key).c_str());
        } else if (options.full) {
            std::string shown = printable(value);
            write_out(printable(key) + "\t" + shown + "\n");
            if (!shown.empty() && shown.back() != '\n') {
                write_out("\n");
            }
        } else {
            std::string shown_key = printable(key);
            std::string line = printable(first_line(value));
            if (columns > 0) {
                size_t used = (display_width(shown_key) / 8 + 1) * 8;  // the key and its tab stop
                line = cut_to_columns(line, columns > used ? columns - used : 0);
            }
            write_out(shown_key + "\t" + line + "\n");
        }
    }
    if (options.stats) {
        std::fprintf(stderr, "quorvex: %zu hit(s) for \"%s\" in %.3f ms (index opened in %.1f ms)\n",
                     hits.size(), keyword.c_str(), search_ms, load_ms);
    }
}

}  // namespace

int run_search(const SearchOptions& options) {
    // INDEX_DIR... KEYWORD, or INDEX_DIR... with -k KEYWORD for each keyword.
    std::vector<std::string> directories = options.arguments;
    std::vector<std::string> keywords = options.keywords;
    if (keywords.empty()) {
        if (directories.size() < 2) {
            throw ToolError(EXIT_USAGE, "give an index directory and a keyword (or keywords with -k)");
        }
        keywords.push_back(directories.back());
        directories.pop_back();
    }
    for (const std::string& keyword : keywords) {
        check_keyword(keyword);
    }
    bool several = directories.size() > 1 || keywords.size() > 1;
    for (const std::string& directory : directories) {
        Clock::time_point load_start = Clock::now();
        Rc<Lexarium::Reader::IndexReader> reader = open_index(directory);
        double load_ms = milliseconds_since(load_start);
        std::string name = reader->description().get("name");
        for (const std::string& keyword : keywords) {
            Source source{name.empty() ? directory : name, keyword};
            search_one(options, reader.get(), directory, keyword, load_ms, several ? &source : nullptr);
        }
    }
    return EXIT_OK;
}

// The bytes of `text` that are not UTF-8 continuation bytes (10xxxxxx),
// eight at a time: info counts them for every key of the index.
uint32_t character_count(const uint8_t* text, uint32_t length) {
    uint32_t continuations = 0;
    uint32_t i = 0;
    for (; i + 8 <= length; i += 8) {
        uint64_t bytes;
        std::memcpy(&bytes, text + i, 8);
        uint64_t marks = (bytes & ~(bytes << 1) & 0x8080808080808080ULL) >> 7;  // one bit per continuation byte
        continuations += static_cast<uint32_t>((marks * 0x0101010101010101ULL) >> 56);
    }
    for (; i < length; ++i) {
        continuations += (text[i] & 0xC0) == 0x80;
    }
    return length - continuations;
}

// The figures of `quorvex info`, gathered through the record decoders with
// every record checked: a damaged record is an error naming its file.
struct IndexFigures {
    uint64_t keys = 0;
    uint64_t rows_in_use = 0;
    uint64_t cells = 0;
    uint64_t cells_in_use = 0;
    uint64_t entries = 0;
    uint32_t longest = 0;
    uint32_t longest_row = 0;
    uint32_t longest_position = 0;
    std::map<uint32_t, uint64_t> lengths;  // bucket upper bound -> keys
    uint64_t keys_by_length[256] = {};     // stored characters -> keys
};

// Cells of every row; each list must lie inside index.bin.
void count_cells(const Lexarium::Reader::IndexReader& reader, const std::string& directory, IndexFigures& figures) {
    const ByteArray& table = *reader.table_bytes;
    uint64_t index_length = reader.index_bytes->length;
    Lexarium::Records::walk_table(table.data, table.length, [&](uint32_t code_point, Lexarium::Records::Row row,
                                                                uint64_t offset) {
        bool used = false;
        for (uint32_t position = 0; position < row.cells_count; ++position) {
            Lexarium::Records::Cell cell = row.cell(position);
            if (cell.entries_in(reader.index_bytes->data, index_length) == nullptr) {
                throw ToolError(EXIT_DATA, directory + "/table.bin: offset " + std::to_string(offset) + ": row " +
                                               std::to_string(code_point) + " cell " + std::to_string(position) +
                                               " lists entries past the end of index.bin (run quorvex verify " +
                                               directory + ")");
            }
            ++figures.cells;
            figures.entries += cell.count;
            if (cell.count > 0) {
                ++figures.cells_in_use;
                used = true;
            }
            if (cell.count > figures.longest) {
                figures.longest = cell.count;
                figures.longest_row = code_point;
                figures.longest_position = position;
            }
        }
        figures.rows_in_use += used;
    });
}

// Key records, which must tile key.bin and point at value records that
// start inside data.bin, in ascending order.
void count_keys(const Lexarium::Reader::IndexReader& reader, const std::string& directory, IndexFigures& figures) {
    const ByteArray& keys = *reader.key_bytes;
    uint64_t data_length = reader.data_bytes->length;
    uint64_t offset = 0;
    uint64_t previous_pointer = 0;
    uint64_t items = 0;
    while (offset < keys.length) {
        Lexarium::Records::Key key;
        const char* problem = nullptr;
        if (!Lexarium::Records::decode_from(keys, offset, key)) {
            problem = "key record runs past the end of key.bin";
        } else if (uint64_t{key.data_pointer} + Lexarium::Format::VALUE_RECORD_HEADER_SIZE > data_length ||
                   (items > 0 && key.data_pointer <= previous_pointer)) {
            problem = "data pointer is not the start of the next value record in data.bin";
        }
        if (problem != nullptr) {
            throw ToolError(EXIT_DATA, directory + "/key.bin: offset " + std::to_string(offset) + ": " + problem +
                                           " (run quorvex verify " + directory + ")");
        }
        previous_pointer = key.data_pointer;
        ++items;
        offset += key.size();
        if (key.length == 0) {
            continue;  // the description's key, not an item's
        }
        ++figures.keys;
        ++figures.keys_by_length[character_count(key.text, key.length)];
    }
    for (uint32_t characters = 0; characters < 256; ++characters) {
        for (const auto& bucket : LENGTH_BUCKETS) {
            if (characters <= bucket.first) {
                figures.lengths[bucket.first] += figures.keys_by_length[characters];
                break;
            }
        }
    }
}

int run_info(const InfoOptions& options) {
    Rc<Lexarium::Reader::IndexReader> reader = open_index(options.directory);
    IndexFigures figures;
    count_cells(*reader, options.directory, figures);
    count_keys(*reader, options.directory, figures);
    uint64_t rows_in_use = figures.rows_in_use;
    uint64_t cells = figures.cells;
    uint64_t cells_in_use = figures.cells_in_use;
    uint64_t entries = figures.entries;
    uint32_t longest = figures.longest;
    uint32_t longest_row = figures.longest_row;
    uint32_t longest_position = figures.longest_position;
    std::map<uint32_t, uint64_t>& lengths = figures.lengths;

    // The row's character, when it is one a terminal can show.
    std::string longest_character = longest_row >= 0x20 ? encode_utf8(longest_row) : "";
    if (!is_valid_utf8(longest_character)) {
        longest_character.clear();
    }

    const Lexarium::IndexDescription& described = reader->description();
    std::string items_text = described.get("items");
    uint64_t items = items_text.empty() ? figures.keys : std::strtoull(items_text.c_str(), nullptr, 10);
    uint64_t sizes[] = {reader->table_bytes->length, reader->index_bytes->length, reader->key_bytes->length,
                        reader->data_bytes->length};
    const char* names[] = {"table.bin", "index.bin", "key.bin", "data.bin"};
    // suffix.bin: used, left aside (and why), or not there.
    struct stat suffix_status;
    bool has_suffix_file = ::stat((options.directory + "/suffix.bin").c_str(), &suffix_status) == 0;
    uint64_t suffix_size = has_suffix_file ? static_cast<uint64_t>(suffix_status.st_size) : 0;
    std::string why_not = reader->suffix_array_problem();
    if (why_not.rfind("suffix.bin: ", 0) == 0) {
        why_not.erase(0, 12);
    }
    std::string suffix_state = reader->has_suffix_array() ? "used by searches"
                               : has_suffix_file           ? "not used: " + why_not
                                                           : "none (quorvex build makes one by default)";
    if (options.json) {
        nlohmann::json out;
        out["items"] = items;
        out["keys"] = figures.keys;
        out["folding"] = reader->folding();
        nlohmann::json fields = nlohmann::json::object();
        for (const auto& field : described.fields) {
            fields[field.first] = json_text(field.second);
        }
        out["description"] = fields;
        for (int i = 0; i < 4; ++i) {
            out["files"][names[i]] = sizes[i];
        }
        if (has_suffix_file) {
            out["files"]["suffix.bin"] = suffix_size;
        }
        out["suffix_array"] = {{"used", reader->has_suffix_array()}, {"state", suffix_state}};
        out["rows_in_use"] = rows_in_use;
        out["cells"] = cells;
        out["cells_in_use"] = cells_in_use;
        out["posting_entries"] = entries;
        out["longest_posting_list"] = {{"entries", longest},
                                       {"code_point", code_point_name(longest_row)},
                                       {"character", longest_character},
                                       {"position", longest_position}};
        nlohmann::json distribution = nlohmann::json::array();
        for (const auto& bucket : LENGTH_BUCKETS) {
            distribution.push_back({{"characters", bucket.second}, {"keys", lengths[bucket.first]}});
        }
        out["key_lengths"] = distribution;
        std::puts(out.dump(2).c_str());
        return EXIT_OK;
    }
    std::printf("index      %s\n", options.directory.c_str());
    for (const char* field : {"name", "source", "tool"}) {
        std::string text = described.get(field);
        if (!text.empty()) {
            std::printf("%-10s %s\n", field, printable(first_line(text)).c_str());
        }
    }
    if (reader->folding() != 0) {
        std::printf("keys       %s, folded (folding version %u)\n", with_thousands(figures.keys).c_str(),
                    reader->folding());
    } else {
        std::printf("keys       %s, exact\n", with_thousands(figures.keys).c_str());
    }
    std::printf("items      %s\n", with_thousands(items).c_str());
    for (int i = 0; i < 4; ++i) {
        std::printf("%-10s %s (%s bytes)\n", names[i], human_bytes(sizes[i]).c_str(), with_thousands(sizes[i]).c_str());
    }
    if (has_suffix_file) {
        std::printf("%-10s %s (%s bytes), %s\n", "suffix.bin", human_bytes(suffix_size).c_str(),
                    with_thousands(suffix_size).c_str(), suffix_state.c_str());
    } else {
        std::printf("%-10s %s\n", "suffix.bin", suffix_state.c_str());
    }
    std::printf("rows       %s in use of 65,535\n", with_thousands(rows_in_use).c_str());
    std::printf("cells      %s in use of %s\n", with_thousands(cells_in_use).c_str(), with_thousands(cells).c_str());
    std::printf("entries    %s\n", with_thousands(entries).c_str());
    if (longest > 0) {
        std::printf("longest    %s entries: %s '%s' at position %u\n", with_thousands(longest).c_str(),
                    code_point_name(longest_row).c_str(), longest_character.c_str(), longest_position);
    }
    std::printf("key lengths (characters):\n");
    uint64_t most = 1;
    for (const auto& entry : lengths) {
        most = std::max(most, entry.second);
    }
    for (const auto& bucket : LENGTH_BUCKETS) {
        uint64_t count = lengths[bucket.first];
        std::string bar(static_cast<size_t>(40 * count / most), '#');
        if (count > 0 && bar.empty()) {
            bar = "#";
        }
        std::printf("  %7s  %10s  %s\n", bucket.second, with_thousands(count).c_str(), bar.c_str());
    }
    std::string about = described.get("description");
    if (!about.empty()) {
        std::printf("description:\n");
        write_out(printable(about) + (about.back() == '\n' ? "" : "\n"));
    }
    return EXIT_OK;
}

// The items a sound index was built from: what its description says, else
// one per key record.
uint64_t items_of_sound_index(const std::string& directory, uint64_t key_records) {
    Rc<Lexarium::Reader::IndexReader> reader = open_index(directory);
    std::string items = reader->description().get("items");
    return items.empty() ? key_records : std::strtoull(items.c_str(), nullptr, 10);
}

int run_verify(const VerifyOptions& options) {
    check_is_directory(options.directory);
    const Lexarium::IndexVerification verification =
        Lexarium::IndexVerifier::verify_directory(options.directory, options.deep, 1000);
    uint64_t items = verification.is_sound() ? items_of_sound_index(options.directory, verification.items)
                                             : verification.items;
    if (options.json) {
        nlohmann::json problems = nlohmann::json::array();
        for (const Lexarium::IndexProblem& problem : verification.problems) {
            problems.push_back({{"blob", problem.blob}, {"offset", problem.offset}, {"message", problem.message}});
        }
        nlohmann::json out{{"sound", verification.is_sound()},
                           {"deep", options.deep},
                           {"items", items},
                           {"problem_count", verification.problem_count},
                           {"problems", problems}};
        std::puts(out.dump(2).c_str());
    } else if (verification.is_sound()) {
        std::printf("%s: sound (%s items, %s checks)\n", options.directory.c_str(),
                    with_thousands(items).c_str(), options.deep ? "deep" : "structural");
    } else {
        for (const Lexarium::IndexProblem& problem : verification.problems) {
            // A file that could not be read is named by its path.
            if (problem.blob.find('/') != std::string::npos) {
                std::fprintf(stderr, "quorvex: %s: %s\n", problem.blob.c_str(), problem.message.c_str());
                continue;
            }
            std::fprintf(stderr, "quorvex: %s/%s: offset %llu: %s\n", options.directory.c_str(), problem.blob.c_str(),
                         static_cast<unsigned long long>(problem.offset), problem.message.c_str());
        }
        if (verification.problem_count > verification.problems.size()) {
            std::fprintf(stderr, "quorvex: ... and %s more\n",
                         with_thousands(verification.problem_count - verification.problems.size()).c_str());
        }
        std::fprintf(stderr, "quorvex: %s: damaged (%s problems)\n", options.directory.c_str(),
                     with_thousands(verification.problem_count).c_str());
    }
    return verification.is_sound() ? EXIT_OK : EXIT_DATA;
}

}  // namespace quorvex_tool
