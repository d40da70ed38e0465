// The quorvex command-line tool, run as a separate process: exit codes,
// what goes to stdout and stderr, and the indexes it leaves on disk.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

extern char** environ;

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

const std::string TOOL = QUORVEX_TOOL;
const std::string DATA = QUORVEX_TEST_DATA_DIR;
const std::string CLI_DATA = DATA + "/cli";
const std::string GOOD_SET = DATA + "/good";
const std::set<std::string> BLOBS = {"data.bin", "index.bin", "key.bin", "table.bin"};

// ---- Running the tool

struct ToolRun {
    int status = -1;        // exit status, when the tool exited
    bool signaled = false;  // killed by a signal (an abort included)
    int signal = 0;
    bool timed_out = false;
    std::string out;
    std::string err;
};

// Everything written to a temporary file, which is closed.
std::string drain(FILE* file) {
    std::string text;
    char buffer[65536];
    std::rewind(file);
    for (size_t count; (count = std::fread(buffer, 1, sizeof buffer, file)) > 0;) text.append(buffer, count);
    std::fclose(file);
    return text;
}

// Runs the tool with `args`, stdin from /dev/null, stdout and stderr caught
// in two temporary files. A run that takes longer than a minute is killed.
ToolRun run(const std::vector<std::string>& args) {
    std::vector<std::string> strings{"quorvex"};
    strings.insert(strings.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& text : strings) argv.push_back(text.data());
    argv.push_back(nullptr);

    ToolRun result;
    FILE* out = std::tmpfile();
    FILE* err = std::tmpfile();
    if (out == nullptr || err == nullptr) {
        ADD_FAILURE() << "tmpfile: " << std::strerror(errno);
        return result;
    }
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    ::posix_spawn_file_actions_adddup2(&actions, ::fileno(out), STDOUT_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, ::fileno(err), STDERR_FILENO);
    pid_t pid = 0;
    int failed = ::posix_spawn(&pid, TOOL.c_str(), &actions, nullptr, argv.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    int wait_status = 0;
    if (failed != 0) ADD_FAILURE() << "posix_spawn: " << std::strerror(failed);
    // Polled rather than waited for, so that a tool that hangs can be killed.
    for (int waited_ms = 0; failed == 0; ++waited_ms) {
        pid_t done = ::waitpid(pid, &wait_status, WNOHANG);
        if (done == pid || (done < 0 && errno != EINTR)) break;
        if (waited_ms == 60000) {
            result.timed_out = true;
            ::kill(pid, SIGKILL);
            ::waitpid(pid, &wait_status, 0);
            break;
        }
        ::usleep(1000);
    }
    if (failed == 0 && WIFEXITED(wait_status)) {
        result.status = WEXITSTATUS(wait_status);
    } else if (failed == 0 && WIFSIGNALED(wait_status)) {
        result.signaled = true;
        result.signal = WTERMSIG(wait_status);
    }
    result.out = drain(out);
    result.err = drain(err);
    return result;
}

std::string describe(const ToolRun& r) {
    std::ostringstream text;
    if (r.timed_out) text << "timed out; ";
    if (r.signaled) {
        text << "killed by signal " << r.signal;
    } else {
        text << "exit status " << r.status;
    }
    text << "\n--- stdout ---\n" << r.out.substr(0, 4000) << "\n--- stderr ---\n" << r.err.substr(0, 4000);
    return text.str();
}

// The run ended by exiting with `code`: never by a signal, never an abort.
::testing::AssertionResult exited(const ToolRun& r, int code) {
    if (!r.signaled && !r.timed_out && r.status == code) return ::testing::AssertionSuccess();
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
    for (const std::string& arg : args) text += " '" + arg + "'";
    return text;
}

std::string repeat(const std::string& text, size_t times) {
    std::string out;
    for (size_t i = 0; i < times; ++i) out += text;
    return out;
}

// ---- Files

// A fresh directory for one test, removed with everything in it.
struct TempDir {
    TempDir() : path((fs::temp_directory_path() / "quorvex-cli-XXXXXX").string()) {
        if (::mkdtemp(this->path.data()) == nullptr) ADD_FAILURE() << "mkdtemp: " << std::strerror(errno);
    }
    ~TempDir() {
        std::error_code ignored;
        fs::remove_all(this->path, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    std::string operator/(const std::string& name) const { return this->path + "/" + name; }

    std::string path;
};

void write_file(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary);
    out << bytes;
    ASSERT_TRUE(out.good()) << path;
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// The names in `directory`, sorted.
std::set<std::string> entries(const std::string& directory) {
    std::set<std::string> names;
    for (const fs::directory_entry& entry : fs::directory_iterator(directory)) {
        names.insert(entry.path().filename().string());
    }
    return names;
}

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
            file = entry.is_directory() ? "<dir>" : read_file(entry.path().string());
        }
    }
    return files;
}

// The two trees hold the same names and bytes; a difference is described by
// name, size and first differing offset rather than by printing the blobs.
::testing::AssertionResult same_tree(const Tree& actual, const Tree& expected) {
    Tree all = actual;
    all.insert(expected.begin(), expected.end());
    for (const auto& file : all) {
        auto a = actual.find(file.first);
        auto e = expected.find(file.first);
        if (a == actual.end() || e == expected.end()) {
            return ::testing::AssertionFailure() << file.first << (a == actual.end() ? " is gone" : " appeared");
        }
        if (a->second != e->second) {
            auto differ = std::mismatch(a->second.begin(), a->second.end(), e->second.begin(), e->second.end());
            return ::testing::AssertionFailure()
                   << file.first << " differs: " << a->second.size() << " bytes instead of " << e->second.size()
                   << ", first difference at offset " << differ.first - a->second.begin();
        }
    }
    return ::testing::AssertionSuccess();
}

// ---- Reading the tool's answers back

// Strict standard base64 with padding; `ok` is false for anything else.
std::string base64_decode(const std::string& text, bool& ok) {
    static const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const size_t padding = text.size() - std::min(text.size(), text.find_last_not_of('=') + 1);
    ok = text.size() % 4 == 0 && padding <= 2;
    std::string out;
    uint32_t pending = 0;  // bits read but not yet given out
    for (size_t i = 0, bits = 0; ok && i + padding < text.size(); ++i) {
        size_t digit = alphabet.find(text[i]);
        ok = digit != std::string::npos;
        pending = (pending << 6 | static_cast<uint32_t>(digit & 63)) & 0xFFFF;
        if ((bits += 6) >= 8) {
            bits -= 8;
            out += static_cast<char>((pending >> bits) & 0xFF);
        }
    }
    return out;
}

// A key or value of --json output: a string, or {"bytes": base64} for
// bytes that are not UTF-8.
std::string bytes_of(const json& field) {
    if (field.is_string()) return field.get<std::string>();
    EXPECT_TRUE(field.is_object() && field.size() == 1 && field.contains("bytes") && field["bytes"].is_string())
        << field.dump();
    bool ok = false;
    std::string bytes = base64_decode(field.value("bytes", ""), ok);
    EXPECT_TRUE(ok) << "not standard base64: " << field.dump();
    return bytes;
}

ToolRun search(const std::string& index, const std::string& keyword, std::vector<std::string> options = {}) {
    options.insert(options.begin(), "search");
    options.insert(options.end(), {index, keyword});
    return run(options);
}

using Hits = std::vector<std::pair<std::string, std::string>>;

// search --json, each line parsed back into (key, value).
Hits search_json(const std::string& index, const std::string& keyword, std::vector<std::string> options = {}) {
    options.insert(options.begin(), "--json");
    ToolRun r = search(index, keyword, options);
    EXPECT_TRUE(exited(r, 0));
    Hits hits;
    for (const std::string& line : lines_of(r.out)) {
        json object = json::parse(line, nullptr, false);
        if (object.is_discarded() || !object.is_object() || object.size() != 2 || !object.contains("key") ||
            !object.contains("value")) {
            ADD_FAILURE() << "not a {\"key\", \"value\"} JSON object: " << line;
            continue;
        }
        hits.emplace_back(bytes_of(object["key"]), bytes_of(object["value"]));
    }
    return hits;
}

std::vector<std::string> keys_of(const Hits& hits) {
    std::vector<std::string> keys;
    for (const auto& hit : hits) keys.push_back(hit.first);
    return keys;
}

// The values stored under exactly `key` (one, for a sound index).
std::vector<std::string> values_of(const std::string& index, const std::string& key) {
    std::vector<std::string> values;
    for (const auto& hit : search_json(index, key, {"--limit", "65535"})) {
        if (hit.first == key) values.push_back(hit.second);
    }
    return values;
}

// Each key of `items` finds its value and nothing else in `index`. Values
// are compared without printing them whole, as some are large.
void expect_items(const std::string& index, const std::map<std::string, std::string>& items) {
    for (const auto& item : items) {
        std::vector<std::string> values = values_of(index, item.first);
        ASSERT_EQ(values.size(), 1u) << "key " << item.first;
        EXPECT_TRUE(values[0] == item.second) << "key " << item.first << "\n  value " << values[0].substr(0, 200)
                                              << " (" << values[0].size() << " bytes)\n  instead of "
                                              << item.second.substr(0, 200) << " (" << item.second.size() << " bytes)";
    }
}

json info_json(const std::string& index) {
    ToolRun r = run({"info", "--json", index});
    EXPECT_TRUE(exited(r, 0));
    json parsed = json::parse(r.out, nullptr, false);
    EXPECT_FALSE(parsed.is_discarded()) << r.out;
    return parsed;
}

int item_count(const std::string& index) { return info_json(index).value("items", -1); }

// The item problems the tool reported for `input`: (line, reason) for each
// "quorvex: INPUT:LINE: reason" line of stderr, in order.
std::vector<std::pair<uint64_t, std::string>> item_problems(const std::string& err, const std::string& input) {
    std::vector<std::pair<uint64_t, std::string>> problems;
    const std::string prefix = "quorvex: " + input + ":";
    for (const std::string& line : lines_of(err)) {
        if (!starts_with(line, prefix)) continue;
        size_t end = line.find(": ", prefix.size());
        std::string number = line.substr(prefix.size(), end - prefix.size());
        if (end != std::string::npos && end + 2 < line.size() && !number.empty() &&
            number.find_first_not_of("0123456789") == std::string::npos) {
            problems.emplace_back(std::stoull(number), line.substr(end + 2));
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
            if (previous == label && word == std::to_string(number)) {
                return true;
            }
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
    TempDir dir;
    const std::string words = CLI_DATA + "/words.tsv";
    const std::string out = dir / "out";
    std::vector<std::vector<std::string>> cases = {
        {}, {"frobnicate"}, {"bogus"}, {"--no-such-option"},
        {"search"}, {"search", GOOD_SET}, {"search", GOOD_SET, "b", "surplus"},
        {"search", "--limit", "0", GOOD_SET, "b"}, {"search", "--limit", "0", "dir", "b"},  // before looking at dir
        {"search", "--limit", "65536", GOOD_SET, "b"}, {"search", "--limit", "-1", GOOD_SET, "b"},
        {"search", "--limit", "many", GOOD_SET, "b"}, {"search", "--no-such-option", GOOD_SET, "b"},
        {"info"}, {"info", GOOD_SET, "surplus"}, {"info", "--no-such-flag", "dir"},
        {"verify", "--no-such-option", GOOD_SET},
        {"build"}, {"build", words}, {"build", "only-one-argument"},
        {"build", "--format", "csv", words, out}, {"build", "--format", "", words, out},
        {"build", "--duplicates", "first", words, out}, {"build", "--no-such-option", words, out},
    };
    const std::string bad_keywords[] = {
        "", "\xFF", "K\xE4se", "\xC3",                    // empty, a lone FF byte, Latin-1, cut short
        "\xED\xA0\x80", "\xC0\xAF", "\xF4\x90\x80\x80",  // a surrogate, an overlong slash, past U+10FFFF
        std::string(255, 'a'), repeat("\xE2\x82\xAC", 85),   // 255 bytes, also of euro signs
        std::string(1000, 'b'),
    };
    for (const std::string& keyword : bad_keywords) {
        // Found before the index is opened, so whether it exists does not matter.
        cases.push_back({"search", GOOD_SET, keyword});
        cases.push_back({"search", "/no/such/index", keyword});
    }
    for (const auto& args : cases) {
        SCOPED_TRACE(shown(args));
        EXPECT_TRUE(refused(run(args), 2));
        EXPECT_FALSE(fs::exists(out));
    }
}

TEST(CliUsage, FormatMustBeKnownFromTheNameOrGiven) {
    TempDir dir;
    const std::string tsv_text = read_file(CLI_DATA + "/words.tsv");
    for (const char* name : {"words.csv", "words", "words.tsv.orig"}) {
        SCOPED_TRACE(name);
        write_file(dir / name, tsv_text);
        EXPECT_TRUE(refused(build({"-q", dir / name, dir / "out"}), 2));
        EXPECT_FALSE(fs::exists(dir / "out"));

        // Named explicitly, the same file builds.
        EXPECT_TRUE(exited(build({"-q", "--format", "tsv", dir / name, dir / "out"}), 0));
        EXPECT_EQ(item_count(dir / "out"), 10);
        fs::remove_all(dir / "out");
    }
}

// ---------------------------------------------------------------- build

TEST(CliBuild, WritesTheWorkedExampleByteForByte) {
    // The two items of the committed good set must come out as its files,
    // and nothing else.
    TempDir dir;
    write_file(dir / "example.tsv", "ab\tX\nb\tYZ\n");
    build_ok(dir / "example.tsv", dir / "index");
    EXPECT_TRUE(same_tree(tree(dir / "index"), tree(GOOD_SET)));
}

// Two inputs holding the same items, in different formats, give the same
// bytes; escapes are undone, blank lines skipped, every item is stored once,
// and a search finds exactly the keys that hold the keyword.
TEST(CliBuild, EquivalentInputsGiveTheSameIndex) {
    TempDir inputs;
    write_file(inputs / "empty.tsv", "");
    write_file(inputs / "blank.jsonl", "\n\n");
    struct Case {
        std::string first;
        std::string second;
        std::map<std::string, std::string> items;
        std::map<std::string, uintmax_t> sizes;  // of files whose size is known in advance
    };
    const Case cases[] = {
        {CLI_DATA + "/words.tsv", CLI_DATA + "/words.jsonl", WORD_ITEMS, {}},
        // dictd offsets and lengths of one and two base-64 digits; the
        // 00-database entries describe the file and are no articles.
        {CLI_DATA + "/de-en.index", CLI_DATA + "/de-en-gz.index", DICTD_ARTICLES, {}},
        {inputs / "empty.tsv",
         inputs / "blank.jsonl",
         {},
         {{"table.bin", 65535}, {"index.bin", 4}, {"key.bin", 0}, {"data.bin", 0}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.first);
        TempDir dir;
        build_ok(c.first, dir / "first");
        build_ok(c.second, dir / "second");
        EXPECT_TRUE(same_tree(tree(dir / "first"), tree(dir / "second")));
        EXPECT_EQ(item_count(dir / "first"), static_cast<int>(c.items.size()));
        expect_items(dir / "first", c.items);
        for (const auto& size : c.sizes) {
            EXPECT_EQ(fs::file_size(dir / "first/" + size.first), size.second) << size.first;
        }
        for (const char* keyword : {"a", "e", "00", "database", "Tiny"}) {
            Hits hits = search_json(dir / "first", keyword);
            ToolRun human = search(dir / "first", keyword);  // one line for each hit
            EXPECT_TRUE(exited(human, 0));
            EXPECT_EQ(lines_of(human.out).size(), hits.size()) << keyword;
            // A key holding the keyword twice is listed twice; here it counts once.
            std::sort(hits.begin(), hits.end());
            hits.erase(std::unique(hits.begin(), hits.end()), hits.end());
            Hits expected;
            std::copy_if(c.items.begin(), c.items.end(), std::back_inserter(expected),
                         [&](const auto& item) { return contains(item.first, keyword); });
            EXPECT_EQ(hits, expected) << keyword;
        }
        EXPECT_TRUE(exited(run({"verify", "--deep", dir / "first"}), 0));
    }
}

TEST(CliBuild, SummaryGoesToStdout) {
    TempDir dir;
    ToolRun r = build({CLI_DATA + "/words.tsv", dir / "index"});
    ASSERT_TRUE(exited(r, 0));
    EXPECT_EQ(r.err, "");  // nothing went wrong, and stderr is not a terminal
    EXPECT_TRUE(has_figure(r.out, "items", 10)) << r.out;
    for (const std::string& name : BLOBS) EXPECT_TRUE(contains(r.out, name)) << r.out;

    ToolRun merged = build({"-q", CLI_DATA + "/duplicates.tsv", dir / "merged"});
    ASSERT_TRUE(exited(merged, 0));
    EXPECT_TRUE(has_figure(merged.out, "items", 3)) << merged.out;
    EXPECT_TRUE(has_figure(merged.out, "merged", 4)) << merged.out;
}

// Each bad item is reported with its own line and a reason that mentions the
// given words, and nothing is written: no output, nothing left beside it.
// With --skip-invalid the rest is built and the skipped items are counted,
// except that a duplicate is never something to skip.
TEST(CliBuild, BadItemsAreReportedByLineOrSkipped) {
    // The limits are inclusive: 254 characters of key (whatever their
    // bytes), 65534 bytes of value, U+0001 and U+FFFE as characters.
    TempDir inputs;
    const std::string largest_value(65534, 'v');
    write_file(inputs / "limits.tsv", repeat("\xE2\x82\xAC", 254) + "\tfits\n" +            // line 1, 762 bytes of key
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
    const std::vector<Expected> duplicates = {{3, "duplicate"}, {4, "duplicate"}, {5, "duplicate"}, {6, "duplicate"}};
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
        {{},
         inputs / "limits.tsv",
         {{2, ""}, {4, ""}},
         {{repeat("\xE2\x82\xAC", 84), "fits"},  // the key stored shortened to 254 bytes, in whole characters
          {"gross", largest_value},
          {"x\xEF\xBF\xBE", "highest character"},
          {"\x01y", "lowest character"}}},
        {{"--duplicates", "error"}, CLI_DATA + "/duplicates.tsv", duplicates, {}},
    };
    for (const Case& c : cases) {
        for (bool skip : {false, true}) {
            SCOPED_TRACE(c.input + (c.options.empty() ? "" : " " + c.options.back()) + (skip ? " --skip-invalid" : ""));
            TempDir dir;
            std::vector<std::string> args = c.options;
            if (skip) args.push_back("--skip-invalid");
            args.insert(args.end(), {c.input, dir / "index"});
            ToolRun r = build(args);
            if (skip && !c.kept.empty()) {
                ASSERT_TRUE(exited(r, 0));
                EXPECT_TRUE(has_figure(r.out, "skipped", c.problems.size()) ||
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
            EXPECT_TRUE(entries(dir.path).empty());
        }
    }
}

TEST(CliBuild, DuplicatePolicies) {
    struct Case {
        std::vector<std::string> options;
        std::string bank;
        std::string schloss;
    };
    const std::vector<Case> cases = {
        // One blank line between values, also after a value that already
        // ends with a newline.
        {{}, "bench\n\nbank (money)\n\nbank (of a river)", "castle\n\nlock\n\npalace"},
        {{"--duplicates", "merge"}, "bench\n\nbank (money)\n\nbank (of a river)", "castle\n\nlock\n\npalace"},
        {{"--duplicates", "last"}, "bank (of a river)", "palace"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.options.empty() ? "default" : c.options[1]);
        TempDir dir;
        build_ok(CLI_DATA + "/duplicates.tsv", dir / "index", c.options);
        EXPECT_EQ(item_count(dir / "index"), 3);
        expect_items(dir / "index", {{"Bank", c.bank}, {"Schloss", c.schloss}, {"T\xC3\xBCr", "door"}});
    }
}

// A build that is refused leaves everything around it exactly as it was: no
// output, no staging left behind, an existing index, file, directory or
// symbolic link untouched, whether or not --force was given.
TEST(CliBuild, RefusedBuildsLeaveEverythingAsItWas) {
    TempDir dir;
    build_ok(CLI_DATA + "/words.tsv", dir / "index");
    build_ok(CLI_DATA + "/words.tsv", dir / "with-notes");
    write_file(dir / "with-notes/notes.txt", "keep me\n");
    build_ok(CLI_DATA + "/words.tsv", dir / "with-subdir");
    fs::create_directory(dir / "with-subdir/more");
    fs::create_directory(dir / "empty");
    write_file(dir / "file", "not an index\n");
    fs::create_directory_symlink(dir / "index", dir / "link");
    fs::create_directory(dir / "in");
    write_file(dir / "in/lonely.index", "Apfel\tA\tB\n");  // no .dict beside it
    fs::create_directory(dir / "in/folder.tsv");
    // A .dict.dz without its 8-byte trailer, and one cut in the middle of the stream.
    const std::string compressed = read_file(CLI_DATA + "/de-en-gz.dict.dz");
    ASSERT_GT(compressed.size(), 40u);
    for (const auto& cut :
         {std::make_pair("no-trailer", compressed.size() - 8), std::make_pair("cut-short", size_t{40})}) {
        write_file(dir / "in/" + cut.first + ".index", read_file(CLI_DATA + "/de-en-gz.index"));
        write_file(dir / "in/" + cut.first + ".dict.dz", compressed.substr(0, cut.second));
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
    const std::vector<Case> cases = {
        // Input that cannot be read as a whole.
        {{}, dir / "in/missing.tsv", "new", 1, ""},
        {{}, dir / "in/missing.index", "new", 1, ""},
        {{}, dir / "in/lonely.index", "new", 1, ""},
        {{}, dir / "in/folder.tsv", "new", 1, ""},
        {{"--format", "jsonl"}, CLI_DATA + "/words.tsv", "new", 1, ""},  // every line is bad JSON
        {{"-q"}, dir / "in/no-trailer.index", "new", 1, "no-trailer.dict.dz"},
        {{"-q"}, dir / "in/cut-short.index", "new", 1, "cut-short.dict.dz"},
        // An existing output without --force, even an empty directory.
        {{"-q"}, duplicates, "index", 1, ""},
        {{"-q"}, duplicates, "empty", 1, ""},
        {{"-q"}, duplicates, "file", 1, ""},
        // With --force, only an index is replaced, never through a link.
        {{"-q", "--force"}, duplicates, "with-notes", 1, ""},
        {{"-q", "--force"}, duplicates, "with-subdir", 1, ""},
        {{"-q", "--force"}, duplicates, "file", 1, ""},
        {{"-q", "--force"}, duplicates, "link", 1, "symbolic link"},
        // A failed rebuild keeps the earlier index byte for byte.
        {{"--force"}, CLI_DATA + "/bad-items.tsv", "index", 1, ""},
        {{"--force"}, CLI_DATA + "/bad-items.jsonl", "index", 1, ""},
        {{"--force"}, CLI_DATA + "/broken.index", "index", 1, ""},
        {{"--force", "--duplicates", "error"}, duplicates, "index", 1, ""},
        {{"--force"}, dir / "in/missing.tsv", "index", 1, ""},
        {{"--force"}, CLI_DATA + "/README.md", "index", 2, ""},
    };
    for (const Case& c : cases) {
        std::vector<std::string> args = c.options;
        args.insert(args.begin(), "build");
        args.insert(args.end(), {c.input, dir / c.output});
        SCOPED_TRACE(shown(args));
        EXPECT_TRUE(refused(run(args), c.status, c.message));
        EXPECT_TRUE(same_tree(tree(dir.path), before));
    }
    expect_items(dir / "index", {{"Haus", "house; building\nalso: home"}});
}

TEST(CliBuild, ForceReplacesAnIndex) {
    TempDir fresh;
    build_ok(CLI_DATA + "/duplicates.tsv", fresh / "index");
    // A trailing slash on the output names the directory itself.
    for (const auto& names : {std::make_pair("index", "index"), std::make_pair("index/", "index//")}) {
        SCOPED_TRACE(names.second);
        TempDir dir;
        build_ok(CLI_DATA + "/words.tsv", dir / names.first);
        EXPECT_EQ(entries(dir / "index"), BLOBS);

        build_ok(CLI_DATA + "/duplicates.tsv", dir / names.second, {"--force"});
        EXPECT_EQ(item_count(dir / "index"), 3);
        expect_items(dir / "index", {{"Schloss", "castle\n\nlock\n\npalace"}});
        ToolRun old = search(dir / "index", "Haus");
        EXPECT_TRUE(exited(old, 0));
        EXPECT_EQ(old.out, "");
        // Nothing of the old index or the staging is left about, and the
        // replacement has the bytes of a fresh build.
        EXPECT_EQ(entries(dir.path), std::set<std::string>{"index"});
        EXPECT_TRUE(same_tree(tree(dir / "index"), tree(fresh / "index")));
    }
}

// ---------------------------------------------------------------- search

// The human output: key, tab and the first line of the value; with --full
// the whole value and a blank line after each hit.
TEST(CliSearch, HumanOutputIsKeyTabFirstLine) {
    TempDir dir;
    build_ok(CLI_DATA + "/words.tsv", dir / "words");
    std::string long_line;
    for (int i = 0; i < 60; ++i) long_line += "Wort" + std::to_string(i) + " \xC3\xA4 ";
    std::string text;
    for (const auto& item : std::map<std::string, std::string>{{"eins", "one\n"},
                                                               {"zwei", "two\nlines\n"},
                                                               {"lang", long_line + "\nsecond line"},
                                                               {"nul", std::string("before\0after\nsecond", 19)}}) {
        text += json{{"key", item.first}, {"value", item.second}}.dump() + "\n";
    }
    write_file(dir / "odd.jsonl", text);
    build_ok(dir / "odd.jsonl", dir / "odd");

    struct Case {
        const char* index;
        std::vector<std::string> options;
        const char* keyword;
        std::string expected;
    };
    const std::vector<Case> cases = {
        {"words", {}, "aus",
         "aus\tfrom; out of\nHaus\thouse; building\nHausaufgabe\thomework\nKrankenhaus\thospital\n"},
        {"words", {}, "Tab", "Tabelle\ttable\tchart\n"},
        {"words", {}, "\xC3\x9F" "e", "Gr\xC3\xBC\xC3\x9F" "e\tgreetings\nStra\xC3\x9F" "e\tstreet\n"},
        {"words", {"--full"}, "Haus", "Haus\thouse; building\nalso: home\n\nHausaufgabe\thomework\n\n"},
        {"words", {"--full"}, "strich", "Schr\xC3\xA4gstrich\tslash /, not backslash \\\n\n"},
        {"words", {}, "nirgends", ""},
        // A value that ends with a newline gets no second blank line.
        {"odd", {"--full"}, "e", "eins\tone\n\nzwei\ttwo\nlines\n\n"},
        // Long lines are not cut when stdout is not a terminal.
        {"odd", {}, "lang", "lang\t" + long_line + "\n"},
        // A NUL byte in a value is printed, and what follows it.
        {"odd", {"--full"}, "nul", std::string("nul\tbefore\0after\nsecond\n\n", 25)},
        {"odd", {}, "nul", std::string("nul\tbefore\0after\n", 17)},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.index) + ": " + c.keyword);
        ToolRun r = search(dir / c.index, c.keyword, c.options);
        EXPECT_TRUE(exited(r, 0));
        EXPECT_EQ(r.out, c.expected);
        EXPECT_EQ(r.err, "");
    }
}

TEST(CliSearch, JsonGivesValuesThatAreNotUtf8AsBase64) {
    TempDir dir;
    const std::map<std::string, std::string> items = {
        {"eins", "\xFF"},
        {"zwei", "a\xFF"},
        {"drei", "ab\xFF"},
        {"vier", "caf\xE9 au lait"},                // Latin-1
        {"f\xC3\xBCnf", "g\xC3\xBCltig \xE2\x82\xAC"},  // valid UTF-8 stays a string
    };
    std::string text;
    for (const auto& item : items) text += item.first + "\t" + item.second + "\n";
    write_file(dir / "bytes.tsv", text);
    build_ok(dir / "bytes.tsv", dir / "index");

    for (const auto& item : items) {
        SCOPED_TRACE(item.first);
        ToolRun r = search(dir / "index", item.first, {"--json"});
        ASSERT_TRUE(exited(r, 0));
        std::vector<std::string> lines = lines_of(r.out);
        ASSERT_EQ(lines.size(), 1u) << r.out;
        json hit = json::parse(lines[0], nullptr, false);
        ASSERT_FALSE(hit.is_discarded()) << lines[0];
        EXPECT_EQ(hit["key"], item.first);
        EXPECT_EQ(hit["value"].is_string(), item.first == "f\xC3\xBCnf") << lines[0];
        EXPECT_EQ(bytes_of(hit["value"]), item.second);
    }
    // One worked by hand: the single byte FF.
    EXPECT_EQ(search(dir / "index", "eins", {"--json"}).out, "{\"key\":\"eins\",\"value\":{\"bytes\":\"/w==\"}}\n");

    // Human output of such values does not fail either.
    ToolRun human = search(dir / "index", "e", {"--full"});
    EXPECT_TRUE(exited(human, 0));
    EXPECT_FALSE(human.out.empty());
}

// Keys that begin with the keyword come first, in byte order; then those
// that hold it from their second character, and so on. Positions count
// characters, not bytes, and a key holding the keyword twice is listed
// twice. Twenty hits unless a limit says otherwise.
TEST(CliSearch, HitsComeByPositionThenByKeyBytesUpToTheLimit) {
    TempDir dir;
    const std::string long_key(254, 'a');
    std::string text = long_key + "\tlong\nx\xEF\xBF\xBEy\thighest\n";
    for (const char* key :
         {"\xC3\x96lkanne", "bean", "can", "an\xC3\x84", "banana", "Mensch", "an", "anz", "Kanal", "and", "anZ"}) {
        text += std::string(key) + "\tvalue of " + key + "\n";
    }
    std::vector<std::string> numbered;  // q00 ... q24
    for (int i = 0; i < 25; ++i) {
        numbered.push_back("q" + std::to_string(i / 10) + std::to_string(i % 10));
        text += numbered.back() + "\tv\n";
    }
    write_file(dir / "order.tsv", text);
    build_ok(dir / "order.tsv", dir / "index");

    const std::vector<std::string> by_position = {
        "an", "anZ", "and", "anz", "an\xC3\x84",  // position 0
        "Kanal", "banana", "can",                 // position 1
        "bean",                                   // position 2
        "banana", "\xC3\x96lkanne",               // position 3
    };
    struct Case {
        std::string what;
        std::string keyword;
        std::vector<std::string> options;
        std::vector<std::string> keys;
    };
    std::vector<Case> cases = {
        {"by position", "an", {}, by_position},
        {"default limit", "q", {}, std::vector<std::string>(numbered.begin(), numbered.begin() + 20)},
        {"limit 25", "q", {"--limit", "25"}, numbered},
        // Keywords at the limits are searched.
        {"254 bytes", long_key, {}, {long_key}},
        {"254 bytes, 127 characters", repeat("\xC3\xA9", 127), {}, {}},
        {"past U+FFFF: nothing to find", "\xF0\x9F\x98\x80", {}, {}},
        {"U+FFFF", "\xEF\xBF\xBF", {}, {}},
        {"U+FFFE", "\xEF\xBF\xBEy", {}, {"x\xEF\xBF\xBEy"}},
        {"at positions 0 and 1", std::string(253, 'a'), {}, {long_key, long_key}},
    };
    // A limit takes the first hits of that same order, across positions.
    for (size_t limit : {1u, 4u, 5u, 6u, 9u, 10u, 11u, 12u, 65535u}) {
        std::vector<std::string> first(by_position.begin(), by_position.begin() + std::min(limit, by_position.size()));
        cases.push_back({"limit " + std::to_string(limit), "an", {"--limit", std::to_string(limit)}, first});
    }
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(keys_of(search_json(dir / "index", c.keyword, c.options)), c.keys);
    }

    // The human output follows the same order, and the same default limit.
    for (const Case& c : {cases[0], cases[1]}) {
        SCOPED_TRACE("human output, " + c.what);
        ToolRun human = search(dir / "index", c.keyword);
        ASSERT_TRUE(exited(human, 0));
        std::vector<std::string> human_keys;
        for (const std::string& line : lines_of(human.out)) human_keys.push_back(line.substr(0, line.find('\t')));
        EXPECT_EQ(human_keys, c.keys);
    }
}

TEST(CliSearch, StatsGoToStderrOnly) {
    TempDir dir;
    build_ok(CLI_DATA + "/words.tsv", dir / "index");
    ToolRun stats = search(dir / "index", "aus", {"--stats"});
    ASSERT_TRUE(exited(stats, 0));
    EXPECT_EQ(stats.out, search(dir / "index", "aus").out);
    EXPECT_TRUE(starts_with(stats.err, "quorvex: ")) << stats.err;
}

// A missing, incomplete or damaged index is bad data, not a usage error:
// every command exits with 1 and names the directory or file at fault.
// verify has nothing but its own lines on stderr.
TEST(CliIndex, UnreadableIndexesExitWithOneNamingTheFile) {
    TempDir dir;
    write_file(dir / "plain-file", "not an index\n");
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
    write_file(dir / "empty-table/table.bin", "");
    cases.emplace_back(dir / "empty-table", "table.bin");
    for (const auto& set : DAMAGED_SETS) cases.emplace_back(DATA + "/" + set.first, set.second);

    for (const auto& c : cases) {
        const std::string named = c.second.empty() ? c.first : c.first + "/" + c.second;
        for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
                 {"search", c.first, "b"}, {"search", c.first, "a"}, {"search", "--json", c.first, "ab"},
                 {"search", "--full", c.first, "z"}, {"info", c.first}, {"info", "--json", c.first},
                 {"verify", c.first}, {"verify", "--deep", c.first}}) {
            SCOPED_TRACE(shown(args));
            EXPECT_TRUE(refused(run(args), 1, named, args[0] == "verify"));
        }
    }
}

// ---------------------------------------------------------------- info

TEST(CliInfo, JsonMatchesTheFilesOnDisk) {
    TempDir dir;
    build_ok(CLI_DATA + "/words.tsv", dir / "index");
    json info = info_json(dir / "index");
    EXPECT_EQ(info.value("items", -1), static_cast<int>(WORD_ITEMS.size()));
    ASSERT_TRUE(info.contains("files")) << info.dump();
    for (const std::string& name : BLOBS) {
        EXPECT_EQ(info["files"].value(name, uint64_t{0}), fs::file_size(dir / "index/" + name)) << name;
    }
    // index.bin holds a 4-byte sentinel and one 4-byte entry per character
    // of every key.
    size_t characters = 0;
    for (const auto& item : WORD_ITEMS) {
        for (char c : item.first) characters += (static_cast<unsigned char>(c) & 0xC0) != 0x80;
    }
    EXPECT_EQ(info.value("posting_entries", uint64_t{0}), characters);
    EXPECT_EQ(fs::file_size(dir / "index/index.bin"), 4 + 4 * characters);
    uint64_t keys = 0;
    for (const json& bucket : info["key_lengths"]) keys += bucket.value("keys", uint64_t{0});
    EXPECT_EQ(keys, WORD_ITEMS.size());
}

TEST(CliInfo, FiguresOfTheWorkedExample) {
    // "ab" and "b": characters a and b in use; cells (a, 0), (b, 0), (b, 1);
    // three posting entries, none longer than one.
    json info = info_json(GOOD_SET);
    EXPECT_EQ(info.value("items", -1), 2);
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
    EXPECT_TRUE(has_figure(human.out, "items", 2)) << human.out;
    EXPECT_EQ(human.err, "");
}

// ---------------------------------------------------------------- verify

TEST(CliVerify, SoundIndexesExitWithZero) {
    TempDir dir;
    build_ok(CLI_DATA + "/de-en.index", dir / "dictd");
    build_ok(CLI_DATA + "/words.jsonl", dir / "words");
    for (const std::string& index : {GOOD_SET, dir / "dictd", dir / "words"}) {
        SCOPED_TRACE(index);
        for (const char* option : {"--json", "--deep"}) {
            ToolRun r = run({"verify", option, index});
            EXPECT_TRUE(exited(r, 0));
            EXPECT_EQ(r.err, "");
        }
        ToolRun r = run({"verify", "--deep", "--json", index});
        ASSERT_TRUE(exited(r, 0));
        json report = json::parse(r.out, nullptr, false);
        ASSERT_FALSE(report.is_discarded()) << r.out;
        EXPECT_EQ(report.value("sound", false), true);
        EXPECT_EQ(report.value("problem_count", -1), 0);
        EXPECT_TRUE(report["problems"].empty());
        EXPECT_EQ(report.value("items", -1), item_count(index));
    }
}

TEST(CliVerify, JsonReportOfADamagedSetLocatesTheFirstProblem) {
    for (const auto& set : DAMAGED_SETS) {
        SCOPED_TRACE(set.first);
        ToolRun r = run({"verify", "--json", DATA + "/" + set.first});
        EXPECT_TRUE(exited(r, 1));
        json report = json::parse(r.out, nullptr, false);
        ASSERT_FALSE(report.is_discarded()) << r.out;
        EXPECT_EQ(report.value("sound", true), false);
        ASSERT_TRUE(report.contains("problems") && report["problems"].is_array() && !report["problems"].empty())
            << report.dump();
        EXPECT_GE(report.value("problem_count", uint64_t{0}), report["problems"].size());
        const json& first = report["problems"][0];
        EXPECT_EQ(first.value("blob", ""), set.second) << report.dump();
        EXPECT_TRUE(first.contains("offset") && first["offset"].is_number_unsigned()) << report.dump();
        EXPECT_FALSE(first.value("message", "").empty()) << report.dump();
    }
}
