// The quorvex command-line tool, run as a separate process: exit codes,
// what goes to stdout and stderr, and the indexes it leaves on disk.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>

#include <nlohmann/json.hpp>

#include "Text.h"
#include "TestSupport.h"

namespace fs = std::filesystem;
using nlohmann::json;
using namespace quorvex_test;

namespace {

const std::string TOOL = QUORVEX_TOOL;
const std::string DATA = QUORVEX_TEST_DATA_DIR;
const std::string CLI_DATA = DATA + "/cli";
const std::string GOOD_SET = DATA + "/good";
const std::set<std::string> BLOBS = {"data.bin", "index.bin", "key.bin", "table.bin"};

// ---- Running the tool

// Runs the tool with `args`.
ToolRun run(std::vector<std::string> args) {
    args.insert(args.begin(), TOOL);
    return run_program(args);
}

std::string describe(const ToolRun& r) {
    return "exit status " + std::to_string(r.status) + "\n--- stdout ---\n" + r.out.substr(0, 4000) +
           "\n--- stderr ---\n" + r.err.substr(0, 4000);
}

::testing::AssertionResult exited(const ToolRun& r, int code) {
    if (r.status == code) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "expected exit status " << code << ", got " << describe(r);
}

bool starts_with(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// The run failed with `code`: nothing on stdout, and stderr starts with the
// tool's own message, which mentions `fragment` somewhere. With `every_line`
// no other line is mixed in either.
::testing::AssertionResult refused(const ToolRun& r, int code, const std::string& fragment = "",
                                   bool every_line = false) {
    bool ours = starts_with(r.err, "quorvex: ");
    for (const std::string& line : lines_of(r.err)) ours = ours && (!every_line || starts_with(line, "quorvex: "));
    if (!exited(r, code)) return exited(r, code);
    if (!r.out.empty() || !ours || !contains(r.err, fragment)) {
        return ::testing::AssertionFailure() << "expected only \"quorvex: \" messages on stderr naming \"" << fragment
                                             << "\", got " << describe(r);
    }
    return ::testing::AssertionSuccess();
}

// A command line as the trace of a failed check shows it.
std::string shown(const std::vector<std::string>& args) {
    std::string text = "quorvex";
    for (const std::string& arg : args) text += " '" + arg.substr(0, 40) + "'";
    return text;
}

// ---- Files

// Everything under `root` by relative path: the bytes of a file, "<dir>"
// for a directory, "<link to TARGET>" for a symbolic link (not followed).
using Tree = std::map<std::string, std::string>;

Tree tree(const std::string& root) {
    Tree files;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root)) {
        std::string& file = files[fs::relative(entry.path(), root).string()];
        if (entry.is_symlink()) {
            file = "<link to " + fs::read_symlink(entry.path()).string() + ">";
        } else {
            file = entry.is_directory() ? "<dir>" : file_contents(entry.path().string());
        }
    }
    return files;
}

// The names that are in one tree only or differ between the two; blobs
// are large, so they are named rather than printed.
std::set<std::string> differences(const Tree& actual, const Tree& expected) {
    std::set<std::string> names;
    for (const auto& file : actual) {
        if (expected.count(file.first) == 0 || expected.at(file.first) != file.second) names.insert(file.first);
    }
    for (const auto& file : expected) {
        if (actual.count(file.first) == 0) names.insert(file.first);
    }
    return names;
}

const std::set<std::string> NONE;

// ---- Reading the tool's answers back

ToolRun search(const std::string& index, const std::string& keyword, std::vector<std::string> options = {}) {
    options.insert(options.begin(), "search");
    options.insert(options.end(), {index, keyword});
    return run(options);
}

using Hits = std::vector<std::pair<std::string, std::string>>;

// search --json, each line parsed back into (key, value); all of them UTF-8.
Hits search_json(const std::string& index, const std::string& keyword, std::vector<std::string> options = {}) {
    options.insert(options.begin(), "--json");
    ToolRun r = search(index, keyword, options);
    EXPECT_TRUE(exited(r, 0));
    Hits hits;
    for (const std::string& line : lines_of(r.out)) {
        json object = json::parse(line, nullptr, false);
        if (!object.is_object() || object.size() != (object.contains("dictionary") ? 3u : 2u) ||
            !object.value("key", json()).is_string() || !object.value("value", json()).is_string()) {
            ADD_FAILURE() << "not a {\"key\", \"value\"[, \"dictionary\"]} object of strings: " << line;
            continue;
        }
        hits.emplace_back(object["key"].get<std::string>(), object["value"].get<std::string>());
    }
    return hits;
}

std::vector<std::string> keys_of(const Hits& hits) {
    std::vector<std::string> keys;
    for (const auto& hit : hits) keys.push_back(hit.first);
    return keys;
}

// Each key of `items` finds its value, once, in `index`. Values are compared
// without printing them whole, as some are large.
void expect_items(const std::string& index, const std::map<std::string, std::string>& items) {
    for (const auto& item : items) {
        std::vector<std::string> values;
        for (const auto& hit : search_json(index, item.first, {"--limit", "65535"})) {
            if (hit.first == item.first) values.push_back(hit.second);
        }
        ASSERT_EQ(values.size(), 1u) << "key " << item.first;
        EXPECT_TRUE(values[0] == item.second) << "key " << item.first << "\n  value " << values[0].substr(0, 200)
                                              << " (" << values[0].size() << " bytes)\n  instead of "
                                              << item.second.substr(0, 200) << " (" << item.second.size() << " bytes)";
    }
}

json info_json(const std::string& index) {
    ToolRun r = run({"info", "--json", index});
    EXPECT_TRUE(exited(r, 0));
    return json::parse(r.out, nullptr, false);
}

int item_count(const std::string& index) {
    json info = info_json(index);
    return info.is_object() ? info.value("items", -1) : -1;
}

// The item problems the tool reported for `input`: (line, reason) for each
// "quorvex: INPUT:LINE: reason" line of stderr, in order.
std::vector<std::pair<uint64_t, std::string>> item_problems(const std::string& err, const std::string& input) {
    std::vector<std::pair<uint64_t, std::string>> problems;
    const std::string prefix = "quorvex: " + input + ":";
    for (const std::string& line : lines_of(err)) {
        size_t digits = line.find_first_not_of("0123456789", prefix.size());
        if (starts_with(line, prefix) && digits > prefix.size() && digits != std::string::npos &&
            line.compare(digits, 2, ": ") == 0) {
            problems.emplace_back(std::stoull(line.substr(prefix.size())), line.substr(digits + 2));
        }
    }
    return problems;
}

// Some line of `text` has the word `label` followed, after blanks, by the
// word `number` ("  items     10", "quorvex: skipped 9 invalid ...").
bool has_figure(const std::string& text, const std::string& label, uint64_t number) {
    for (const std::string& line : lines_of(text)) {
        std::istringstream words(line);
        std::string previous;
        for (std::string word; words >> word; previous = word) {
            if (previous == label && word == std::to_string(number)) return true;
        }
    }
    return false;
}

ToolRun build(std::vector<std::string> args) {
    args.insert(args.begin(), "build");
    return run(args);
}

// Builds `input` into `output`, which must succeed.
void build_ok(const std::string& input, const std::string& output, std::vector<std::string> extra = {}) {
    extra.insert(extra.end(), {"-q", input, output});
    ASSERT_TRUE(exited(build(extra), 0)) << input;
}

// ---- What the fixtures hold

// The ten items of words.tsv and words.jsonl.
const std::map<std::string, std::string> WORD_ITEMS = {
    {"aus", "from; out of"},
    {"Haus", "house; building\nalso: home"},
    {"Hausaufgabe", "homework"},
    {"Krankenhaus", "hospital"},
    {"Tabelle", "table\tchart"},
    {"Schr\xC3\xA4gstrich", "slash /, not backslash \\"},
    {"Stra\xC3\x9F" "e", "street"},
    {"\xC3\xBC" "ber", "over; above"},
    {"Gr\xC3\xBC\xC3\x9F" "e", "greetings"},
    {"Baum", "tree"},
};

// The seven articles of de-en.dict, by headword.
const std::map<std::string, std::string> DICTD_ARTICLES = {
    {"Apfel", "Apfel\n  apple\n"},
    {"Baum", "Baum\n  tree\n"},
    {"Haus", "Haus\n  house; building\n  also: home, household, the house of a family line\n"},
    {"Hausaufgabe", "Hausaufgabe\n  homework\n"},
    {"K\xC3\xA4se", "K\xC3\xA4se\n  cheese\n"},
    {"Stra\xC3\x9F" "e", "Stra\xC3\x9F" "e\n  street\n"},
    {"\xC3\xBC" "ber", "\xC3\xBC" "ber\n  over; above\n  about (a topic)\n"},
};

// The damaged sets of tests/data and the blob their first problem is in.
const std::vector<std::pair<std::string, std::string>> DAMAGED_SETS = {
    {"posting-list-past-index", "table.bin"},  {"key-record-past-key-blob", "index.bin"},
    {"key-length-past-key-blob", "key.bin"},   {"value-past-data-blob", "key.bin"},
    {"value-length-past-data-blob", "data.bin"}, {"table-one-byte-short", "table.bin"},
};

}  // namespace

// ---------------------------------------------------------------- usage

// Command lines the tool cannot make sense of, bad keywords included: exit
// 2, a message, nothing on stdout and nothing written.
TEST(CliUsage, WrongCommandLinesExitWithTwo) {
    TemporaryDirectory dir;
    const std::string words = CLI_DATA + "/words.tsv";
    const std::string out = dir / "out";
    const std::string unknown = dir / "words.tsv.orig";
    make_file(unknown, file_contents(words));
    std::vector<std::vector<std::string>> cases = {
        {}, {"frobnicate"},
        {"search", GOOD_SET}, {"search", GOOD_SET, "--"},
        {"search", "--limit", "0", "/no/such/index", "b"},  // before looking at the index
        {"search", "--limit", "65536", GOOD_SET, "b"}, {"search", "--limit", "many", GOOD_SET, "b"},
        {"info", GOOD_SET, "surplus"}, {"verify", "--no-such-option", GOOD_SET},
        {"build", words}, {"build", "--format", "csv", words, out}, {"build", "--duplicates", "first", words, out},
        // The format is neither given nor known from the name.
        {"build", unknown, out}, {"build", CLI_DATA + "/README.md", out},
    };
    const std::string bad_keywords[] = {
        "", "\xFF", "K\xE4se", "\xC3",                    // empty, a lone FF byte, Latin-1, cut short
        "\xED\xA0\x80", "\xC0\xAF", "\xF4\x90\x80\x80",  // a surrogate, an overlong slash, past U+10FFFF
        std::string(255, 'a'), repeat("\xE2\x82\xAC", 85),   // 255 bytes, also of euro signs
        "\xF0\x9F\x98\x80",                                 // past U+FFFF: no key can hold it
    };
    for (const std::string& keyword : bad_keywords) {
        cases.push_back({"search", "/no/such/index", keyword});  // found before the index is opened
    }
    for (const auto& args : cases) {
        SCOPED_TRACE(shown(args));
        EXPECT_TRUE(refused(run(args), 2));
        EXPECT_FALSE(fs::exists(out));
    }
    EXPECT_TRUE(refused(run({"frobnicate"}), 2, "unknown command 'frobnicate'"));
    // Named explicitly, the format of any file name is taken.
    build_ok(unknown, out, {"--format", "tsv"});
    EXPECT_EQ(item_count(out), 10);
}

// ---------------------------------------------------------------- build

// Two inputs holding the same items, in different formats, give the same
// bytes (given the same file name, which the index records); escapes are undone, blank lines skipped, and every item is stored
// once (the 00-database entries of dictd describe the file, not articles).
TEST(CliBuild, EquivalentInputsGiveTheSameIndex) {
    TemporaryDirectory inputs;
    make_file(inputs / "empty.tsv", "");
    make_file(inputs / "blank.jsonl", "\n\n");
    struct Case {
        std::string first;
        std::string second;
        std::map<std::string, std::string> items;
    };
    const Case cases[] = {
        {CLI_DATA + "/words.tsv", CLI_DATA + "/words.jsonl", WORD_ITEMS},
        // dictd offsets and lengths of one and two base-64 digits.
        {CLI_DATA + "/de-en.index", CLI_DATA + "/de-en-gz.index", DICTD_ARTICLES},
        {inputs / "empty.tsv", inputs / "blank.jsonl", {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.first);
        TemporaryDirectory dir;
        fs::create_directories(dir / "1");
        fs::create_directories(dir / "2");
        std::string format[2];
        int i = 0;
        for (const std::string& input : {c.first, c.second}) {
            std::string name = input.substr(input.find_last_of('.') + 1);
            format[i] = name == "index" ? "dictd" : name;
            fs::copy(input, dir / (std::to_string(++i) + "/input.index"));
            if (name == "index") {
                std::string stem = input.substr(0, input.size() - 6);
                const char* dict = fs::exists(stem + ".dict") ? ".dict" : ".dict.dz";
                fs::copy(stem + dict, dir / (std::to_string(i) + "/input" + dict));
            }
        }
        build_ok(dir / "1/input.index", dir / "first", {"--format", format[0]});
        build_ok(dir / "2/input.index", dir / "second", {"--format", format[1]});
        EXPECT_EQ(differences(tree(dir / "first"), tree(dir / "second")), NONE);
        EXPECT_EQ(item_count(dir / "first"), static_cast<int>(c.items.size()));
        expect_items(dir / "first", c.items);
        EXPECT_TRUE(exited(run({"verify", "--deep", dir / "first"}), 0));
    }
}

// Each bad item is reported with its own line and a reason that mentions the
// given words, and nothing is written: no output, nothing left beside it.
// With --skip-invalid the rest is built and the skipped items are counted,
// except that a duplicate is never something to skip.
TEST(CliBuild, BadItemsAreReportedByLineOrSkipped) {
    // The limits are inclusive: 254 bytes and characters of key, 65534
    // bytes of value, U+0001 and U+FFFE as characters.
    TemporaryDirectory inputs;
    const std::string largest_value(65534, 'v');
    make_file(inputs / "limits.tsv", repeat("\xE2\x82\xAC", 85) + "\ttoo long\n" +            // line 1, 255 bytes of key
                                         repeat("\xC3\xA9", 255) + "\tone too many\n" +  // line 2
                                         "gross\t" + largest_value + "\n" +               // line 3
                                         "zu gross\t" + std::string(65535, 'v') + "\n" +   // line 4
                                         "x\xEF\xBF\xBE\thighest character\n" +            // line 5
                                         "\x01y\tlowest character\n");                     // line 6
    struct Expected {
        uint64_t line;
        const char* words;  // something the reason must mention; "" for anything
    };
    struct Case {
        std::vector<std::string> options;
        std::string input;
        std::vector<Expected> problems;
        std::map<std::string, std::string> kept;  // with --skip-invalid; none if it is refused again
    };
    const std::vector<Case> cases = {
        {{},
         CLI_DATA + "/bad-items.tsv",
         {{2, "empty key"}, {3, "UTF-8"}, {4, "U+0000"}, {5, "U+1F600"}, {6, "U+FFFF"}, {7, "254"}, {9, "tab"},
          {10, "\\x"}, {11, "backslash"}},
         {{"Apfel", "apple"}, {"Traube", "grape"}}},
        {{},
         CLI_DATA + "/bad-items.jsonl",
         {{2, "empty key"}, {3, "U+0000"}, {4, "U+1F600"}, {5, "U+FFFF"}, {6, "JSON"}, {7, "object"}, {8, "value"},
          {9, "value"}, {12, ""}},
         {{"Apfel", "apple"}, {"Traube", "grape"}}},
        {{}, CLI_DATA + "/broken.index", {{2, ""}, {3, ""}, {4, ""}, {5, ""}, {6, ""}}, {{"Brot", "Brot\n  bread\n"}}},
        {{"--exact"},
         inputs / "limits.tsv",
         {{1, "255 bytes"}, {2, ""}, {4, ""}},
         {{"gross", largest_value},
          {"x\xEF\xBF\xBE", "highest character"},
          {"\x01y", "lowest character"}}},
        {{"--duplicates", "error"},
         CLI_DATA + "/duplicates.tsv",
         {{3, "duplicate"}, {4, "duplicate"}, {5, "duplicate"}, {6, "duplicate"}},
         {}},
    };
    for (const Case& c : cases) {
        for (bool skip : {false, true}) {
            SCOPED_TRACE(c.input + (c.options.empty() ? "" : " " + c.options.back()) + (skip ? " --skip-invalid" : ""));
            TemporaryDirectory dir;
            std::vector<std::string> args = c.options;
            if (skip) args.push_back("--skip-invalid");
            args.insert(args.end(), {c.input, dir / "index"});
            ToolRun r = build(args);
            if (skip && !c.kept.empty()) {
                ASSERT_TRUE(exited(r, 0));
                EXPECT_TRUE(has_figure(r.out, "skipped", c.problems.size()) &&
                            has_figure(r.err, "skipped", c.problems.size()))
                    << describe(r);
                EXPECT_EQ(item_count(dir / "index"), static_cast<int>(c.kept.size()));
                expect_items(dir / "index", c.kept);
                EXPECT_TRUE(exited(run({"verify", "--deep", dir / "index"}), 0));
                continue;
            }
            ASSERT_TRUE(refused(r, 1, "", true));
            auto problems = item_problems(r.err, c.input);
            ASSERT_EQ(problems.size(), c.problems.size()) << r.err;
            for (size_t i = 0; i < problems.size(); ++i) {
                EXPECT_EQ(problems[i].first, c.problems[i].line) << r.err;
                EXPECT_TRUE(contains(problems[i].second, c.problems[i].words))
                    << "line " << problems[i].first << ": " << problems[i].second;
            }
            EXPECT_EQ(differences(tree(dir.path), {}), NONE);
        }
    }
}

// Repeated keys are merged by default, one blank line between values (also
// after a value that already ends with a newline); the summary on stdout
// counts items and merges.
TEST(CliBuild, DuplicatePolicies) {
    struct Case {
        std::vector<std::string> options;
        std::string bank;
        std::string schloss;
    };
    const std::string merged_bank = "bench\n\nbank (money)\n\nbank (of a river)";
    for (const Case& c : {Case{{}, merged_bank, "castle\n\nlock\n\npalace"},
                          Case{{"--duplicates", "merge"}, merged_bank, "castle\n\nlock\n\npalace"},
                          Case{{"--duplicates", "last"}, "bank (of a river)", "palace"}}) {
        SCOPED_TRACE(c.options.empty() ? "default" : c.options[1]);
        TemporaryDirectory dir;
        std::vector<std::string> args = c.options;
        args.insert(args.end(), {CLI_DATA + "/duplicates.tsv", dir / "index"});
        ToolRun r = build(args);
        ASSERT_TRUE(exited(r, 0));
        EXPECT_EQ(r.err, "");  // nothing went wrong, and stderr is not a terminal
        EXPECT_TRUE(has_figure(r.out, "items", 3) && has_figure(r.out, "merged", 4)) << r.out;
        for (const std::string& name : BLOBS) EXPECT_TRUE(contains(r.out, name)) << r.out;
        EXPECT_EQ(item_count(dir / "index"), 3);
        expect_items(dir / "index", {{"Bank", c.bank}, {"Schloss", c.schloss}, {"T\xC3\xBCr", "door"}});
    }
}

// A build that is refused leaves everything around it exactly as it was: no
// output, no staging left behind, an existing index, file, directory or
// symbolic link untouched, whether or not --force was given.
TEST(CliBuild, RefusedBuildsLeaveEverythingAsItWas) {
    TemporaryDirectory dir;
    build_ok(CLI_DATA + "/words.tsv", dir / "index");
    build_ok(CLI_DATA + "/words.tsv", dir / "with-notes");
    make_file(dir / "with-notes/notes.txt", "keep me\n");
    build_ok(CLI_DATA + "/words.tsv", dir / "with-subdir");
    fs::create_directory(dir / "with-subdir/more");
    fs::create_directory(dir / "empty");
    make_file(dir / "file", "not an index\n");
    fs::create_directory_symlink(dir / "index", dir / "link");
    fs::create_directory(dir / "in");
    make_file(dir / "in/lonely.index", "Apfel\tA\tB\n");  // no .dict beside it
    fs::create_directory(dir / "in/folder.tsv");
    // A .dict.dz without its 8-byte trailer, and one cut in the middle of the stream.
    const std::string compressed = file_contents(CLI_DATA + "/de-en-gz.dict.dz");
    ASSERT_GT(compressed.size(), 40u);
    for (const auto& cut : {std::make_pair("no-trailer", compressed.size() - 8), std::make_pair("cut-short", size_t{40})}) {
        make_file(dir / "in/" + cut.first + ".index", file_contents(CLI_DATA + "/de-en-gz.index"));
        make_file(dir / "in/" + cut.first + ".dict.dz", compressed.substr(0, cut.second));
    }
    const Tree before = tree(dir.path);

    struct Case {
        std::vector<std::string> options;
        std::string input;
        const char* output;
        int status;
        const char* message;  // something stderr must mention
    };
    const std::string duplicates = CLI_DATA + "/duplicates.tsv";
    for (const Case& c : std::vector<Case>{
             // Input that cannot be read as a whole.
             {{}, dir / "in/missing.tsv", "new", 1, ""},
             {{}, dir / "in/lonely.index", "new", 1, ""},
             {{}, dir / "in/folder.tsv", "new", 1, ""},
             {{"--format", "jsonl"}, CLI_DATA + "/words.tsv", "new", 1, ""},  // every line is bad JSON
             {{"-q"}, dir / "in/no-trailer.index", "new", 1, "no-trailer.dict.dz"},
             {{"-q"}, dir / "in/cut-short.index", "new", 1, "cut-short.dict.dz"},
             // An existing output without --force, even an empty directory.
             {{"-q"}, duplicates, "empty", 1, ""},
             {{"-q"}, duplicates, "file", 1, ""},
             // With --force, only an index is replaced, never through a link.
             {{"-q", "--force"}, duplicates, "with-notes", 1, "notes.txt"},
             {{"-q", "--force"}, duplicates, "with-subdir", 1, "more"},
             {{"-q", "--force"}, duplicates, "file", 1, ""},
             {{"-q", "--force"}, duplicates, "link", 1, "symbolic link"},
             // A failed rebuild keeps the earlier index byte for byte.
             {{"--force"}, CLI_DATA + "/bad-items.tsv", "index", 1, ""},
             {{"--force", "--duplicates", "error"}, duplicates, "index", 1, ""},
             {{"--force"}, dir / "in/missing.tsv", "index", 1, ""},
             {{"--force"}, CLI_DATA + "/README.md", "index", 2, ""},
         }) {
        std::vector<std::string> args = c.options;
        args.insert(args.begin(), "build");
        args.insert(args.end(), {c.input, dir / c.output});
        SCOPED_TRACE(shown(args));
        EXPECT_TRUE(refused(run(args), c.status, c.message));
        EXPECT_EQ(differences(tree(dir.path), before), NONE);
    }
}

// ---------------------------------------------------------------- search

// The human output: key, tab and the first line of the value; with --full
// the whole value and a blank line after each hit. --stats adds a line to
// stderr only. With --json a value that is not UTF-8 comes as
// {"bytes": base64}.
TEST(CliSearch, OutputFormats) {
    TemporaryDirectory dir;
    build_ok(CLI_DATA + "/words.tsv", dir / "words");
    std::string long_line;
    for (int i = 0; i < 60; ++i) long_line += "Wort" + std::to_string(i) + " \xC3\xA4 ";
    make_file(dir / "odd.tsv", "eins\tone\\n\nzwei\ttwo\\nlines\\n\nlang\t" + long_line + "\\nsecond line\n" +
                                   std::string("nul\tbefore\0after\\nsecond\n", 25) +
                                   "f1\t\xFF\nf2\ta\xFF\nf3\tab\xFF\nlatin\tcaf\xE9 au lait\n");
    build_ok(dir / "odd.tsv", dir / "odd");

    struct Case {
        const char* index;
        std::vector<std::string> options;
        const char* keyword;
        std::string expected;
    };
    for (const Case& c : std::vector<Case>{
             {"words", {}, "aus",
              "aus\tfrom; out of\nHaus\thouse; building\nHausaufgabe\thomework\nKrankenhaus\thospital\n"},
             {"words", {"--stats"}, "Tab", "Tabelle\ttable\tchart\n"},
             {"words", {"--full"}, "Hausa", "Hausaufgabe\thomework\n\n"},
             // A value that ends with a newline gets no second blank line.
             {"odd", {"--full"}, "e", "eins\tone\n\nzwei\ttwo\nlines\n\n"},
             // Long lines are not cut when stdout is not a terminal.
             {"odd", {}, "lang", "lang\t" + long_line + "\n"},
             // A NUL byte in a value is printed, and what follows it.
             {"odd", {"--full"}, "nul", std::string("nul\tbefore\0after\nsecond\n\n", 25)},
             {"odd", {}, "nul", std::string("nul\tbefore\0after\n", 17)},
             // Bytes that are not UTF-8 show as U+FFFD, or as base64 with every padding.
             {"odd", {}, "f", "f1\t\xEF\xBF\xBD\nf2\ta\xEF\xBF\xBD\nf3\tab\xEF\xBF\xBD\n"},
             {"odd", {"--json"}, "f",
              "{\"key\":\"f1\",\"value\":{\"bytes\":\"/w==\"}}\n{\"key\":\"f2\",\"value\":{\"bytes\":\"Yf8=\"}}\n"
              "{\"key\":\"f3\",\"value\":{\"bytes\":\"YWL/\"}}\n"},
             {"odd", {"--json"}, "latin", "{\"key\":\"latin\",\"value\":{\"bytes\":\"Y2Fm6SBhdSBsYWl0\"}}\n"},
             {"words", {"--json"}, "\xC3\xBC" "b", "{\"key\":\"\xC3\xBC" "ber\",\"value\":\"over; above\"}\n"},
         }) {
        SCOPED_TRACE(std::string(c.index) + ": " + c.keyword);
        ToolRun r = search(dir / c.index, c.keyword, c.options);
        EXPECT_TRUE(exited(r, 0));
        EXPECT_EQ(r.out, c.expected);
        if (c.options.empty() || c.options[0] != "--stats") {
            EXPECT_EQ(r.err, "");
        } else {
            EXPECT_TRUE(has_figure(r.err, "quorvex:", 1)) << r.err;  // "quorvex: 1 hit(s) for ..."
        }
    }
}

// In an exact index, keys that begin with the keyword come first, in byte
// order, then those that hold it from their second character (not byte),
// and so on; a key holding it twice is listed once. Twenty hits unless a
// limit says otherwise. Keywords of 254 bytes and any character are
// searched.
TEST(CliSearch, HitsComeByPositionThenByKeyBytesUpToTheLimit) {
    TemporaryDirectory dir;
    const std::string long_key(254, 'a');
    std::string text = long_key + "\tlong\nx\xEF\xBF\xBEy\thighest\n";
    for (const char* key : {"\xC3\x96lkanne", "an\xC3\x84", "banana", "Mensch", "an", "Kanal", "anZ"}) {
        text += std::string(key) + "\tvalue of " + key + "\n";
    }
    std::vector<std::string> numbered;  // q00 ... q24
    for (int i = 0; i < 25; ++i) {
        numbered.push_back("q" + std::to_string(i / 10) + std::to_string(i % 10));
        text += numbered.back() + "\tv\n";
    }
    make_file(dir / "order.tsv", text);
    build_ok(dir / "order.tsv", dir / "index", {"--exact"});
    const std::vector<std::string> by_position = {"an", "anZ", "an\xC3\x84", "Kanal", "banana", "\xC3\x96lkanne"};
    struct Case {
        std::string keyword;
        std::vector<std::string> options;
        std::vector<std::string> keys;
    };
    for (const Case& c : std::vector<Case>{
             {"an", {}, by_position},
             {"an", {"--limit", "4"}, {by_position.begin(), by_position.begin() + 4}},
             {"q", {}, {numbered.begin(), numbered.begin() + 20}},
             {"q", {"--limit", "25"}, numbered},
             {long_key, {}, {long_key}},
             {std::string(253, 'a'), {}, {long_key}},
             {repeat("\xC3\xA9", 127), {}, {}},
             {"\xEF\xBF\xBEy", {}, {"x\xEF\xBF\xBEy"}},
         }) {
        SCOPED_TRACE(shown(c.options) + " " + c.keyword.substr(0, 20));
        EXPECT_EQ(keys_of(search_json(dir / "index", c.keyword, c.options)), c.keys);
    }
    // The human output, without a limit, too.
    std::string human;
    for (size_t i = 0; i < 20; ++i) human += numbered[i] + "\tv\n";
    EXPECT_EQ(search(dir / "index", "q").out, human);
}

// Patterns and typos, and the suggestions a search that finds nothing
// makes: on stderr, or marked in JSON; -q turns them off.
TEST(CliSearch, PatternsTyposAndSuggestions) {
    TemporaryDirectory dir;
    build_ok(CLI_DATA + "/words.tsv", dir / "words");
    struct Case {
        std::vector<std::string> args;
        std::string out;
        std::string err;
    };
    const std::string haus = "{\"key\":\"Haus\",\"value\":\"house; building\\nalso: home\"}\n";
    for (const Case& c : std::vector<Case>{
             {{"--json", "--pattern", "^?aus$"}, haus, ""},
             {{"--typos", "1", "hauss"}, "Haus\thouse; building\nHausaufgabe\thomework\nKrankenhaus\thospital\n", ""},
             {{"Baumm"}, "", "quorvex: nothing holds \"Baumm\"; within one edit:\n  Baum\n"},
             {{"--json", "Baumm"}, "{\"edits\":1,\"key\":\"Baum\",\"suggestion\":true,\"value\":\"tree\"}\n",
              "quorvex: nothing holds \"Baumm\"; suggestions within one edit follow\n"},
             {{"-q", "Baumm"}, "", ""},
         }) {
        SCOPED_TRACE(shown(c.args));
        std::vector<std::string> args = {"search"};
        args.insert(args.end(), c.args.begin(), c.args.end() - 1);
        args.insert(args.end(), {dir / "words", c.args.back()});
        ToolRun r = run(args);
        EXPECT_TRUE(exited(r, 0));
        EXPECT_EQ(r.out, c.out);
        EXPECT_EQ(r.err, c.err);
    }
    for (const char* bad : {"??", "a\\", "a^b"}) {
        EXPECT_TRUE(refused(run({"search", "--pattern", dir / "words", bad}), 2)) << bad;
    }
}

// Lines cut for a terminal keep to its columns, wide characters counting
// two, marks none, with "…" as the last column.
TEST(CliText, LinesAreCutByDisplayWidth) {
    const std::string ellipsis = "\xE2\x80\xA6";
    const std::string kanji = "\xE6\xBC\xA2\xE5\xAD\x97\xE6\x96\x87\xE5\xAD\x97";  // four wide characters
    const std::string e_acute = "e\xCC\x81";                                           // one column
    struct Case {
        std::string text;
        size_t columns;
        std::string expected;
    };
    for (const Case& c : std::vector<Case>{{"haus", 4, "haus"}, {"hausboot", 5, "haus" + ellipsis},
                                           {kanji, 8, kanji}, {kanji, 7, kanji.substr(0, 9) + ellipsis},
                                           {kanji, 6, kanji.substr(0, 6) + ellipsis},
                                           {e_acute + e_acute + "xy", 3, e_acute + e_acute + ellipsis},
                                           {"abc", 0, ""}}) {
        EXPECT_EQ(quorvex_tool::cut_to_columns(c.text, c.columns), c.expected) << c.text << " in " << c.columns;
        EXPECT_LE(quorvex_tool::display_width(quorvex_tool::cut_to_columns(c.text, c.columns)), c.columns);
    }
}

// Output that does not reach stdout is a failure of every command, named
// with the system's reason; --version says what runs.
TEST(CliOutput, WritingToAFullDeviceFails) {
    TemporaryDirectory dir;
    build_ok(CLI_DATA + "/words.tsv", dir / "words");
    const std::vector<std::vector<std::string>> commands = {
        {"search", dir / "words", "aus"}, {"info", dir / "words"}, {"verify", dir / "words"},
        {"build", "-q", CLI_DATA + "/words.tsv", dir / "again"}, {"--version"}};
    for (std::vector<std::string> args : commands) {
        SCOPED_TRACE(shown(args));
        args.insert(args.begin(), TOOL);
        FILE* full = std::fopen("/dev/full", "w");
        FILE* err = std::tmpfile();
        ASSERT_TRUE(full != nullptr && err != nullptr);
        int status = exit_status(start_process(args, full, err));
        std::string text(4096, '\0');
        std::rewind(err);
        text.resize(std::fread(&text[0], 1, text.size(), err));
        std::fclose(full);
        std::fclose(err);
        EXPECT_EQ(status, 1);
        EXPECT_TRUE(contains(text, "No space left on device")) << text;
    }
    ToolRun version = run({"--version"});
    EXPECT_TRUE(exited(version, 0) && starts_with(version.out, "quorvex ")) << describe(version);
}

// Inputs and outputs as editors, shells and killed builds leave them: a byte
// order mark is no part of the first key; a directory given as the input is
// named with the system's reason; missing parents of the output are made;
// a staging directory no build holds any more goes.
TEST(CliBuild, InputsAndOutputsAsTheyAreFound) {
    TemporaryDirectory dir;
    make_file(dir / "bom.tsv", "\xEF\xBB\xBFHaus\thouse\n");
    build_ok(dir / "bom.tsv", dir / "new/parents/index", {"--exact"});
    expect_items(dir / "new/parents/index", {{"Haus", "house"}});
    EXPECT_TRUE(refused(run({"build", "--format", "tsv", dir.path, dir / "other"}), 1, "Is a directory"));
    fs::create_directories(dir / "new/parents/index.quorvex-new-k1ll3d");
    make_file(dir / "new/parents/index.quorvex-new-k1ll3d/data.bin", std::string(1000, 'x'));
    build_ok(dir / "bom.tsv", dir / "new/parents/index", {"--force"});
    EXPECT_FALSE(fs::exists(dir / "new/parents/index.quorvex-new-k1ll3d"));
}

// Several indexes and keywords at once: hits grouped under the index's name
// and the keyword, in the order given; in JSON, each hit says where it came
// from. Keywords after "--" may begin with "-".
TEST(CliSearch, SeveralIndexesAndKeywords) {
    TemporaryDirectory dir;
    build_ok(CLI_DATA + "/words.tsv", dir / "words", {"--name", "Words"});
    make_file(dir / "dashes.tsv", "-ness\tsuffix\nbaum-\tprefix\n");
    build_ok(dir / "dashes.tsv", dir / "dashes");
    ToolRun r = run({"search", "-q", dir / "words", dir / "dashes", "--", "baum", "-ness"});
    EXPECT_TRUE(exited(r, 0));
    const std::string dashes = dir / "dashes";  // no name: the directory stands for it
    EXPECT_EQ(r.out, "== Words: baum\nBaum\ttree\n== " + dashes + ": baum\nbaum-\tprefix\n== " + dashes +
                         ": -ness\n-ness\tsuffix\n");
    r = run({"search", "--json", "-k", "tree", "-k", "prefix", dir / "dashes", dir / "words"});
    EXPECT_EQ(r.out, "");  // keys only
    r = run({"search", "--json", "-k", "-ness", "-k", "Baum", dir / "words"});
    EXPECT_EQ(r.out, "{\"dictionary\":\"Words\",\"key\":\"Baum\",\"keyword\":\"Baum\",\"value\":\"tree\"}\n");
    // One index with a name: its hits carry it too.
    EXPECT_EQ(run({"search", "--json", dir / "words", "Baum"}).out,
              "{\"dictionary\":\"Words\",\"key\":\"Baum\",\"value\":\"tree\"}\n");
}

// A missing, incomplete or damaged index is bad data, not a usage error:
// every command exits with 1 and names the directory or file at fault.
// verify has nothing but its own lines on stderr.
TEST(CliIndex, UnreadableIndexesExitWithOneNamingTheFile) {
    TemporaryDirectory dir;
    make_file(dir / "plain-file", "not an index\n");
    // The index directory, and the file in it that the message names ("" for the directory itself).
    std::vector<std::pair<std::string, std::string>> cases = {{dir / "no-such", ""}, {dir / "plain-file", ""}};
    for (const std::string& name : BLOBS) {
        fs::copy(GOOD_SET, dir / ("without-" + name));
        fs::remove(dir / ("without-" + name + "/" + name));
        cases.emplace_back(dir / ("without-" + name), name);
    }
    fs::copy(GOOD_SET, dir / "table-is-a-directory");
    fs::remove(dir / "table-is-a-directory/table.bin");
    fs::create_directory(dir / "table-is-a-directory/table.bin");
    cases.emplace_back(dir / "table-is-a-directory", "table.bin");
    fs::copy(GOOD_SET, dir / "empty-table");
    make_file(dir / "empty-table/table.bin", "");
    cases.emplace_back(dir / "empty-table", "table.bin");
    for (const auto& set : DAMAGED_SETS) cases.emplace_back(DATA + "/" + set.first, set.second);

    // info reads table.bin and key.bin whole but neither the entries of
    // index.bin nor the values of data.bin: it describes these two.
    const std::set<std::string> info_passes = {DATA + "/key-record-past-key-blob", DATA + "/value-length-past-data-blob"};
    for (const auto& c : cases) {
        const std::string named = c.second.empty() ? c.first : c.first + "/" + c.second;
        for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
                 {"search", c.first, "b"}, {"info", c.first}, {"verify", c.first}, {"verify", "--deep", c.first}}) {
            SCOPED_TRACE(shown(args));
            if (args[0] == "info" && info_passes.count(c.first) != 0) {
                EXPECT_TRUE(exited(run(args), 0));
            } else {
                EXPECT_TRUE(refused(run(args), 1, named, args[0] == "verify"));
            }
        }
    }
}

// ---------------------------------------------------------------- info and verify

// The good set holds "ab" and "b": characters a and b in use; cells (a, 0),
// (b, 0), (b, 1); three posting entries, none longer than one.
TEST(CliInfo, FiguresMatchTheFilesAndTheKeys) {
    json info = info_json(GOOD_SET);
    ASSERT_TRUE(info.is_object() && info["files"].is_object() && info["key_lengths"].is_array()) << info.dump();
    EXPECT_EQ(info.value("items", -1), 2);
    for (const std::string& name : BLOBS) {
        EXPECT_EQ(info["files"].value(name, uint64_t{0}), fs::file_size(GOOD_SET + "/" + name)) << name;
    }
    EXPECT_EQ(info.value("rows_in_use", -1), 2);
    EXPECT_EQ(info.value("cells_in_use", -1), 3);
    EXPECT_EQ(info.value("posting_entries", -1), 3);
    EXPECT_EQ(info["longest_posting_list"].value("entries", -1), 1);
    std::map<std::string, int> lengths;
    for (const json& bucket : info["key_lengths"]) lengths[bucket.value("characters", "")] = bucket.value("keys", -1);
    EXPECT_EQ(lengths["1"], 1);
    EXPECT_EQ(lengths["2"], 1);
    ToolRun human = run({"info", GOOD_SET});
    EXPECT_TRUE(exited(human, 0));
    EXPECT_TRUE(has_figure(human.out, "items", 2) && has_figure(human.out, "entries", 3)) << human.out;
    EXPECT_EQ(human.err, "");

    // Lists of several entries: index.bin holds one entry per character of
    // every folded key. The description names the source and the folding.
    TemporaryDirectory dir;
    build_ok(CLI_DATA + "/words.tsv", dir / "index", {"--name", "Wörter"});
    info = info_json(dir / "index");
    size_t characters = 0;
    for (const auto& item : WORD_ITEMS) {
        std::string folded;
        Lexarium::fold(item.first, &folded);
        characters += Lexarium::Utf8::character_count(folded.data(), folded.size());
    }
    EXPECT_EQ(info.value("folding", 0u), Lexarium::FOLDING_VERSION);
    json description = info["description"];
    EXPECT_TRUE(starts_with(description.value("tool", ""), "quorvex ")) << description;
    description.erase("tool");
    EXPECT_EQ(description, json({{"name", "W\xC3\xB6rter"}, {"description", ""}, {"source", "words.tsv"},
                                 {"folding", "1"}, {"items", "10"}}));
    EXPECT_EQ(info.value("posting_entries", uint64_t{0}), characters);
    EXPECT_EQ(fs::file_size(dir / "index/index.bin"), 4 + 4 * characters);
    EXPECT_LT(info.value("cells_in_use", characters), info.value("cells", uint64_t{0}));
    // suffix.bin: one 5-byte entry per character after a 16-byte header,
    // built unless asked not to, and said to be used.
    EXPECT_EQ(info["files"].value("suffix.bin", uint64_t{0}), 16 + 5 * characters);
    EXPECT_EQ(info["suffix_array"], json({{"used", true}, {"state", "used by searches"}}));
    build_ok(CLI_DATA + "/words.tsv", dir / "plain", {"--no-suffix-array"});
    EXPECT_FALSE(fs::exists(dir / "plain/suffix.bin"));
    EXPECT_TRUE(contains(run({"info", dir / "plain"}).out, "suffix.bin none"));
}

TEST(CliVerify, ReportsSoundAndDamagedSets) {
    TemporaryDirectory dir;
    build_ok(CLI_DATA + "/de-en.index", dir / "dictd");
    for (const std::string& index : {GOOD_SET, dir / "dictd"}) {
        SCOPED_TRACE(index);
        ToolRun plain = run({"verify", index});
        EXPECT_TRUE(exited(plain, 0));
        EXPECT_EQ(plain.err, "");
        ToolRun r = run({"verify", "--deep", "--json", index});
        EXPECT_TRUE(exited(r, 0));
        json report = json::parse(r.out, nullptr, false);
        ASSERT_TRUE(report.is_object()) << r.out;
        EXPECT_TRUE(report.value("sound", false) && report.value("problem_count", -1) == 0 && report["problems"].empty())
            << r.out;
        EXPECT_EQ(report.value("items", -1), item_count(index));
    }
    // A suffix.bin that is not the suffix array of key.bin is a problem of
    // its own; info says the searches leave it aside.
    std::string suffix = file_contents(dir / "dictd/suffix.bin");
    std::swap(suffix[16], suffix[21]);  // the first two entries' key offsets
    make_file(dir / "dictd/suffix.bin", suffix);
    ToolRun swapped = run({"verify", dir / "dictd"});
    EXPECT_TRUE(exited(swapped, 1) && contains(swapped.err, "suffix.bin: offset 0: entry ")) << swapped.err;
    make_file(dir / "dictd/suffix.bin", "QVXS");
    EXPECT_TRUE(contains(run({"info", dir / "dictd"}).out, "suffix.bin 4 B (4 bytes), not used: 4 bytes; shorter than"));
    // A damaged set's report locates its first problem.
    for (const auto& set : DAMAGED_SETS) {
        SCOPED_TRACE(set.first);
        ToolRun r = run({"verify", "--json", DATA + "/" + set.first});
        EXPECT_TRUE(exited(r, 1));
        json report = json::parse(r.out, nullptr, false);
        ASSERT_TRUE(report.is_object() && report["problems"].is_array() && !report["problems"].empty()) << r.out;
        EXPECT_EQ(report.value("sound", true), false);
        EXPECT_GE(report.value("problem_count", uint64_t{0}), report["problems"].size());
        const json& first = report["problems"][0];
        EXPECT_EQ(first.value("blob", ""), set.second) << r.out;
        EXPECT_TRUE(first.contains("offset") && first["offset"].is_number_unsigned()) << r.out;
        EXPECT_FALSE(first.value("message", "").empty()) << r.out;
    }
}
