// The quorvex command-line tool, run as a separate process: exit codes,
// what goes to stdout and stderr, and the indexes it leaves on disk.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

const std::string TOOL = QUORVEX_TOOL;
const std::string DATA = QUORVEX_TEST_DATA_DIR;
const std::string CLI_DATA = DATA + "/cli";
const std::string GOOD_SET = DATA + "/good";
const char* const BLOBS[] = {"table.bin", "index.bin", "key.bin", "data.bin"};

// ---- Running the tool

struct ToolRun {
    int status = -1;        // exit status, when the tool exited
    bool signaled = false;  // killed by a signal (an abort included)
    int signal = 0;
    bool timed_out = false;
    std::string out;
    std::string err;
};

// Runs the tool with `args`, stdin from /dev/null, stdout and stderr read
// into separate strings. A run that takes longer than a minute is killed.
ToolRun run(const std::vector<std::string>& args) {
    ToolRun result;
    int out_pipe[2];
    int err_pipe[2];
    if (::pipe2(out_pipe, O_CLOEXEC) != 0 || ::pipe2(err_pipe, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "pipe: " << std::strerror(errno);
        return result;
    }
    // Everything the child needs is prepared before the fork.
    std::vector<std::string> strings{"quorvex"};
    strings.insert(strings.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& text : strings) {
        argv.push_back(text.data());
    }
    argv.push_back(nullptr);

    pid_t pid = ::fork();
    if (pid < 0) {
        ADD_FAILURE() << "fork: " << std::strerror(errno);
        return result;
    }
    if (pid == 0) {
        int null = ::open("/dev/null", O_RDONLY);
        if (null < 0 || ::dup2(null, STDIN_FILENO) < 0 || ::dup2(out_pipe[1], STDOUT_FILENO) < 0 ||
            ::dup2(err_pipe[1], STDERR_FILENO) < 0) {
            ::_exit(126);
        }
        ::execv(TOOL.c_str(), argv.data());
        ::_exit(127);
    }
    ::close(out_pipe[1]);
    ::close(err_pipe[1]);

    pollfd fds[2] = {{out_pipe[0], POLLIN, 0}, {err_pipe[0], POLLIN, 0}};
    std::string* sinks[2] = {&result.out, &result.err};
    int open_count = 2;
    while (open_count > 0) {
        int ready = ::poll(fds, 2, 60000);
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready <= 0) {
            result.timed_out = true;
            ::kill(pid, SIGKILL);
            break;
        }
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) {
                continue;
            }
            char buffer[65536];
            ssize_t count = ::read(fds[i].fd, buffer, sizeof buffer);
            if (count > 0) {
                sinks[i]->append(buffer, static_cast<size_t>(count));
            } else if (count == 0 || errno != EINTR) {
                ::close(fds[i].fd);
                fds[i].fd = -1;
                --open_count;
            }
        }
    }
    for (pollfd& fd : fds) {
        if (fd.fd >= 0) {
            ::close(fd.fd);
        }
    }
    int wait_status = 0;
    while (::waitpid(pid, &wait_status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(wait_status)) {
        result.status = WEXITSTATUS(wait_status);
    } else if (WIFSIGNALED(wait_status)) {
        result.signaled = true;
        result.signal = WTERMSIG(wait_status);
    }
    return result;
}

std::string describe(const ToolRun& r) {
    std::ostringstream text;
    if (r.timed_out) {
        text << "timed out; ";
    }
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
    if (!r.signaled && !r.timed_out && r.status == code) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << "expected exit status " << code << ", got " << describe(r);
}

bool starts_with(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        lines.push_back(line);
    }
    return lines;
}

// ---- Files

// A fresh directory for one test, removed with everything in it.
class TempDir {
public:
    TempDir() {
        const char* base = std::getenv("TMPDIR");
        std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/quorvex-cli-XXXXXX";
        std::vector<char> buffer(pattern.begin(), pattern.end());
        buffer.push_back('\0');
        if (::mkdtemp(buffer.data()) == nullptr) {
            ADD_FAILURE() << "mkdtemp: " << std::strerror(errno);
        }
        this->path = buffer.data();
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

using IndexBytes = std::map<std::string, std::string>;

// The bytes of the four files of an index directory, by name; a missing
// file shows as "<missing>".
IndexBytes index_bytes(const std::string& directory) {
    IndexBytes bytes;
    for (const char* name : BLOBS) {
        std::string path = directory + "/" + name;
        bytes[name] = fs::exists(path) ? read_file(path) : "<missing>";
    }
    return bytes;
}

// The two file sets hold the same bytes; a difference is described by file,
// size and first differing offset rather than by printing the blobs.
::testing::AssertionResult same_bytes(const IndexBytes& actual, const IndexBytes& expected) {
    for (const char* name : BLOBS) {
        const std::string& a = actual.at(name);
        const std::string& e = expected.at(name);
        if (a != e) {
            size_t offset = 0;
            while (offset < a.size() && offset < e.size() && a[offset] == e[offset]) {
                ++offset;
            }
            return ::testing::AssertionFailure() << name << " differs: " << a.size() << " bytes instead of "
                                                 << e.size() << ", first difference at offset " << offset;
        }
    }
    return ::testing::AssertionSuccess();
}

std::string repeat(const std::string& text, size_t times) {
    std::string out;
    for (size_t i = 0; i < times; ++i) {
        out += text;
    }
    return out;
}

// ---- Reading the tool's answers back

// Strict standard base64 with padding; `ok` is false for anything else.
std::string base64_decode(const std::string& text, bool& ok) {
    static const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    ok = text.size() % 4 == 0;
    std::string out;
    for (size_t i = 0; ok && i < text.size(); i += 4) {
        uint32_t group = 0;
        int padding = 0;
        for (size_t j = 0; j < 4; ++j) {
            char c = text[i + j];
            size_t digit = alphabet.find(c);
            if (c == '=' && i + 4 == text.size() && j >= 2) {
                ++padding;
                digit = 0;
            } else if (digit == std::string::npos || padding > 0) {
                ok = false;
                break;
            }
            group = (group << 6) | static_cast<uint32_t>(digit);
        }
        out += static_cast<char>(group >> 16);
        if (padding < 2) {
            out += static_cast<char>((group >> 8) & 0xFF);
        }
        if (padding < 1) {
            out += static_cast<char>(group & 0xFF);
        }
    }
    return out;
}

// A key or value of --json output: a string, or {"bytes": base64} for
// bytes that are not UTF-8.
std::string bytes_of(const json& field) {
    if (field.is_string()) {
        return field.get<std::string>();
    }
    EXPECT_TRUE(field.is_object() && field.size() == 1 && field.contains("bytes") && field["bytes"].is_string())
        << field.dump();
    bool ok = false;
    std::string bytes = base64_decode(field.value("bytes", ""), ok);
    EXPECT_TRUE(ok) << "not standard base64: " << field.dump();
    return bytes;
}

using Hits = std::vector<std::pair<std::string, std::string>>;

// search --json, each line parsed back into (key, value).
Hits search_json(const std::string& index, const std::string& keyword, std::vector<std::string> extra = {}) {
    std::vector<std::string> args{"search", "--json"};
    args.insert(args.end(), extra.begin(), extra.end());
    args.push_back(index);
    args.push_back(keyword);
    ToolRun r = run(args);
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
    for (const auto& hit : hits) {
        keys.push_back(hit.first);
    }
    return keys;
}

// The values stored under exactly `key` (one, for a sound index).
std::vector<std::string> values_of(const std::string& index, const std::string& key) {
    std::vector<std::string> values;
    for (const auto& hit : search_json(index, key, {"--limit", "65535"})) {
        if (hit.first == key) {
            values.push_back(hit.second);
        }
    }
    return values;
}

json info_json(const std::string& index) {
    ToolRun r = run({"info", "--json", index});
    EXPECT_TRUE(exited(r, 0));
    json parsed = json::parse(r.out, nullptr, false);
    EXPECT_FALSE(parsed.is_discarded()) << r.out;
    return parsed;
}

// The item problems the tool reported for `input`: (line, reason) for each
// "quorvex: INPUT:LINE: reason" line of stderr, in order.
std::vector<std::pair<uint64_t, std::string>> item_problems(const std::string& err, const std::string& input) {
    std::vector<std::pair<uint64_t, std::string>> problems;
    const std::string prefix = "quorvex: " + input + ":";
    for (const std::string& line : lines_of(err)) {
        if (!starts_with(line, prefix)) {
            continue;
        }
        size_t digits = prefix.size();
        size_t end = line.find_first_not_of("0123456789", digits);
        if (end == digits || end == std::string::npos || line.compare(end, 2, ": ") != 0 || end + 2 == line.size()) {
            continue;
        }
        problems.emplace_back(std::stoull(line.substr(digits, end - digits)), line.substr(end + 2));
    }
    return problems;
}

// Some line of `text` has the word `label` followed, after blanks, by the
// word `number` ("  items     10", "quorvex: skipped 9 invalid ...").
bool has_figure(const std::string& text, const std::string& label, uint64_t number) {
    for (const std::string& line : lines_of(text)) {
        std::istringstream words(line);
        std::string previous;
        std::string word;
        while (words >> word) {
            if (previous == label && word == std::to_string(number)) {
                return true;
            }
            previous = word;
        }
    }
    return false;
}

std::vector<uint64_t> lines_of_problems(const std::vector<std::pair<uint64_t, std::string>>& problems) {
    std::vector<uint64_t> lines;
    for (const auto& problem : problems) {
        lines.push_back(problem.first);
    }
    return lines;
}

ToolRun build(std::vector<std::string> args) {
    args.insert(args.begin(), "build");
    return run(args);
}

// ---- What the fixtures hold

// The ten items of words.tsv and words.jsonl.
const std::map<std::string, std::string>& word_items() {
    static const std::map<std::string, std::string> items = {
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
    return items;
}

// The seven articles of de-en.dict, by headword.
const std::map<std::string, std::string>& dictd_articles() {
    static const std::map<std::string, std::string> articles = {
        {"Apfel", "Apfel\n  apple\n"},
        {"Baum", "Baum\n  tree\n"},
        {"Haus", "Haus\n  house; building\n  also: home, household, the house of a family line\n"},
        {"Hausaufgabe", "Hausaufgabe\n  homework\n"},
        {"K\xC3\xA4se", "K\xC3\xA4se\n  cheese\n"},
        {"Stra\xC3\x9F" "e", "Stra\xC3\x9F" "e\n  street\n"},
        {"\xC3\xBC" "ber", "\xC3\xBC" "ber\n  over; above\n  about (a topic)\n"},
    };
    return articles;
}

// The damaged sets of tests/data and the blob their first problem is in.
struct DamagedSet {
    const char* name;
    const char* blob;
};
const DamagedSet DAMAGED_SETS[] = {
    {"posting-list-past-index", "table.bin"},  {"key-record-past-key-blob", "index.bin"},
    {"key-length-past-key-blob", "key.bin"},   {"value-past-data-blob", "key.bin"},
    {"value-length-past-data-blob", "data.bin"}, {"table-one-byte-short", "table.bin"},
};

// Builds `input` into `output`, which must succeed.
void build_ok(const std::string& input, const std::string& output, std::vector<std::string> extra = {}) {
    extra.push_back("-q");
    extra.push_back(input);
    extra.push_back(output);
    ToolRun r = build(extra);
    ASSERT_TRUE(exited(r, 0)) << input;
}

}  // namespace

// ---------------------------------------------------------------- usage

TEST(CliUsage, WrongCommandLinesExitWithTwo) {
    TempDir dir;
    const std::string words = CLI_DATA + "/words.tsv";
    const std::string out = dir / "out";
    const std::vector<std::vector<std::string>> cases = {
        {},
        {"frobnicate"},
        {"--no-such-option"},
        {"search"},
        {"search", GOOD_SET},
        {"search", GOOD_SET, "b", "surplus"},
        {"search", "--limit", "0", GOOD_SET, "b"},
        {"search", "--limit", "65536", GOOD_SET, "b"},
        {"search", "--limit", "-1", GOOD_SET, "b"},
        {"search", "--limit", "many", GOOD_SET, "b"},
        {"search", "--no-such-option", GOOD_SET, "b"},
        {"info"},
        {"info", GOOD_SET, "surplus"},
        {"verify", "--no-such-option", GOOD_SET},
        {"build"},
        {"build", words},
        {"build", "--format", "csv", words, out},
        {"build", "--format", "", words, out},
        {"build", "--duplicates", "first", words, out},
        {"build", "--no-such-option", words, out},
    };
    for (const auto& args : cases) {
        std::string shown;
        for (const std::string& arg : args) {
            shown += " '" + arg + "'";
        }
        SCOPED_TRACE("quorvex" + shown);
        ToolRun r = run(args);
        EXPECT_TRUE(exited(r, 2));
        EXPECT_EQ(r.out, "");
        EXPECT_NE(r.err, "");
        EXPECT_FALSE(fs::exists(out));
    }
}

TEST(CliUsage, FormatMustBeKnownFromTheNameOrGiven) {
    TempDir dir;
    const std::string tsv_text = read_file(CLI_DATA + "/words.tsv");
    for (const char* name : {"words.csv", "words", "words.tsv.orig"}) {
        SCOPED_TRACE(name);
        write_file(dir / name, tsv_text);
        ToolRun r = build({"-q", dir / name, dir / "out"});
        EXPECT_TRUE(exited(r, 2));
        EXPECT_TRUE(starts_with(r.err, "quorvex: ")) << r.err;
        EXPECT_FALSE(fs::exists(dir / "out"));

        // Named explicitly, the same file builds.
        ToolRun named = build({"-q", "--format", "tsv", dir / name, dir / "out"});
        EXPECT_TRUE(exited(named, 0));
        EXPECT_EQ(info_json(dir / "out").value("items", -1), 10);
        fs::remove_all(dir / "out");
    }
}

// ---------------------------------------------------------------- build

TEST(CliBuild, WritesTheWorkedExampleByteForByte) {
    // The two items of the committed good set must come out as its files.
    TempDir dir;
    write_file(dir / "example.tsv", "ab\tX\nb\tYZ\n");
    build_ok(dir / "example.tsv", dir / "index");
    EXPECT_TRUE(same_bytes(index_bytes(dir / "index"), index_bytes(GOOD_SET)));
    EXPECT_EQ(entries(dir / "index"), std::set<std::string>(std::begin(BLOBS), std::end(BLOBS)));
}

TEST(CliBuild, SummaryGoesToStdout) {
    TempDir dir;
    ToolRun r = build({CLI_DATA + "/words.tsv", dir / "index"});
    ASSERT_TRUE(exited(r, 0));
    EXPECT_EQ(r.err, "");  // nothing went wrong, and stderr is not a terminal
    EXPECT_TRUE(has_figure(r.out, "items", 10)) << r.out;
    for (const char* name : BLOBS) {
        EXPECT_TRUE(contains(r.out, name)) << r.out;
    }

    ToolRun merged = build({"-q", CLI_DATA + "/duplicates.tsv", dir / "merged"});
    ASSERT_TRUE(exited(merged, 0));
    EXPECT_TRUE(has_figure(merged.out, "items", 3)) << merged.out;
    EXPECT_TRUE(has_figure(merged.out, "merged", 4)) << merged.out;
}

TEST(CliBuild, TsvAndJsonlOfTheSameItemsGiveTheSameIndex) {
    TempDir dir;
    build_ok(CLI_DATA + "/words.tsv", dir / "from-tsv");
    build_ok(CLI_DATA + "/words.jsonl", dir / "from-jsonl");
    EXPECT_TRUE(same_bytes(index_bytes(dir / "from-tsv"), index_bytes(dir / "from-jsonl")));

    // Escapes undone, blank lines skipped, every item stored once.
    EXPECT_EQ(info_json(dir / "from-tsv").value("items", -1), static_cast<int>(word_items().size()));
    for (const auto& item : word_items()) {
        SCOPED_TRACE(item.first);
        EXPECT_EQ(values_of(dir / "from-tsv", item.first), std::vector<std::string>{item.second});
    }
}

TEST(CliBuild, EmptyInputGivesAnEmptyIndex) {
    TempDir dir;
    write_file(dir / "empty.tsv", "");
    write_file(dir / "blank.jsonl", "\n\n");
    for (const char* name : {"empty.tsv", "blank.jsonl"}) {
        SCOPED_TRACE(name);
        std::string index = dir / (std::string(name) + ".index-dir");
        build_ok(dir / name, index);
        json info = info_json(index);
        EXPECT_EQ(info.value("items", -1), 0);
        EXPECT_EQ(fs::file_size(index + "/table.bin"), 65535u);
        EXPECT_EQ(fs::file_size(index + "/index.bin"), 4u);
        EXPECT_EQ(fs::file_size(index + "/key.bin"), 0u);
        EXPECT_EQ(fs::file_size(index + "/data.bin"), 0u);
        ToolRun r = run({"search", index, "a"});
        EXPECT_TRUE(exited(r, 0));
        EXPECT_EQ(r.out, "");
        EXPECT_TRUE(exited(run({"verify", "--deep", index}), 0));
    }
}

// Each bad item of a fixture is reported with its own line, and nothing is
// written: no output directory, nothing left beside it.
TEST(CliBuild, ReportsEachBadItemWithItsLineAndWritesNothing) {
    struct Expected {
        uint64_t line;
        const char* words;  // something the reason must mention; "" for anything
    };
    struct Case {
        const char* input;
        std::vector<Expected> problems;
    };
    const std::vector<Case> cases = {
        {"bad-items.tsv",
         {{2, "empty key"}, {3, "UTF-8"}, {4, "U+0000"}, {5, "U+1F600"}, {6, "U+FFFF"}, {7, "254"}, {9, "tab"},
          {10, "\\x"}, {11, "backslash"}}},
        {"bad-items.jsonl",
         {{2, "empty key"}, {3, "U+0000"}, {4, "U+1F600"}, {5, "U+FFFF"}, {6, "JSON"}, {7, "object"}, {8, "value"},
          {9, "value"}, {12, ""}}},
        {"broken.index", {{2, ""}, {3, ""}, {4, ""}, {5, ""}, {6, ""}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.input);
        TempDir dir;
        const std::string input = CLI_DATA + "/" + c.input;
        ToolRun r = build({input, dir / "index"});
        ASSERT_TRUE(exited(r, 1));
        EXPECT_EQ(r.out, "");
        auto problems = item_problems(r.err, input);
        std::vector<uint64_t> expected_lines;
        for (const Expected& e : c.problems) {
            expected_lines.push_back(e.line);
        }
        EXPECT_EQ(lines_of_problems(problems), expected_lines) << r.err;
        for (size_t i = 0; i < std::min(problems.size(), c.problems.size()); ++i) {
            EXPECT_TRUE(contains(problems[i].second, c.problems[i].words))
                << "line " << problems[i].first << ": " << problems[i].second;
        }
        // Every line of stderr is the tool's own.
        for (const std::string& line : lines_of(r.err)) {
            EXPECT_TRUE(starts_with(line, "quorvex: ")) << line;
        }
        EXPECT_TRUE(entries(dir.path).empty());
    }
}

TEST(CliBuild, SkipInvalidBuildsTheRestAndCountsWhatItSkipped) {
    struct Case {
        const char* input;
        size_t skipped;
        std::map<std::string, std::string> kept;
    };
    const std::vector<Case> cases = {
        {"bad-items.tsv", 9, {{"Apfel", "apple"}, {"Traube", "grape"}}},
        {"bad-items.jsonl", 9, {{"Apfel", "apple"}, {"Traube", "grape"}}},
        {"broken.index", 5, {{"Brot", "Brot\n  bread\n"}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.input);
        TempDir dir;
        ToolRun r = build({"--skip-invalid", CLI_DATA + "/" + c.input, dir / "index"});
        ASSERT_TRUE(exited(r, 0));
        EXPECT_TRUE(has_figure(r.out, "skipped", c.skipped) || has_figure(r.err, "skipped", c.skipped)) << describe(r);
        EXPECT_EQ(info_json(dir / "index").value("items", -1), static_cast<int>(c.kept.size()));
        for (const auto& item : c.kept) {
            EXPECT_EQ(values_of(dir / "index", item.first), std::vector<std::string>{item.second}) << item.first;
        }
        EXPECT_TRUE(exited(run({"verify", "--deep", dir / "index"}), 0));
    }
}

// The limits are inclusive: 254 characters of key (whatever their bytes),
// 65534 bytes of value, U+0001 and U+FFFE as characters.
TEST(CliBuild, LimitsAreInclusive) {
    TempDir dir;
    const std::string longest_key = repeat("\xE2\x82\xAC", 254);  // 762 bytes
    const std::string largest_value(65534, 'v');
    std::string text;
    text += longest_key + "\tfits\n";                                // line 1
    text += repeat("\xC3\xA9", 255) + "\tone character too many\n";  // line 2
    text += "gross\t" + largest_value + "\n";                        // line 3
    text += "zu gross\t" + std::string(65535, 'v') + "\n";           // line 4
    text += "x\xEF\xBF\xBE\thighest character\n";                    // line 5
    text += "\x01y\tlowest character\n";                             // line 6
    write_file(dir / "limits.tsv", text);

    ToolRun refused = build({dir / "limits.tsv", dir / "index"});
    ASSERT_TRUE(exited(refused, 1));
    EXPECT_EQ(lines_of_problems(item_problems(refused.err, dir / "limits.tsv")), (std::vector<uint64_t>{2, 4}))
        << refused.err;
    EXPECT_FALSE(fs::exists(dir / "index"));

    build_ok(dir / "limits.tsv", dir / "index", {"--skip-invalid"});
    EXPECT_EQ(info_json(dir / "index").value("items", -1), 4);
    std::vector<std::string> largest = values_of(dir / "index", "gross");
    ASSERT_EQ(largest.size(), 1u);
    EXPECT_EQ(largest[0].size(), largest_value.size());
    EXPECT_TRUE(largest[0] == largest_value);
    EXPECT_EQ(values_of(dir / "index", "x\xEF\xBF\xBE"), std::vector<std::string>{"highest character"});
    EXPECT_EQ(values_of(dir / "index", "\x01y"), std::vector<std::string>{"lowest character"});
    Hits euro = search_json(dir / "index", repeat("\xE2\x82\xAC", 3));
    ASSERT_FALSE(euro.empty());
    EXPECT_EQ(euro.front().second, "fits");
}

TEST(CliBuild, DuplicatePolicies) {
    const std::string input = CLI_DATA + "/duplicates.tsv";
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
        build_ok(input, dir / "index", c.options);
        EXPECT_EQ(info_json(dir / "index").value("items", -1), 3);
        EXPECT_EQ(values_of(dir / "index", "Bank"), std::vector<std::string>{c.bank});
        EXPECT_EQ(values_of(dir / "index", "Schloss"), std::vector<std::string>{c.schloss});
        EXPECT_EQ(values_of(dir / "index", "T\xC3\xBCr"), std::vector<std::string>{"door"});
    }

    TempDir dir;
    ToolRun r = build({"--duplicates", "error", input, dir / "index"});
    ASSERT_TRUE(exited(r, 1));
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(lines_of_problems(item_problems(r.err, input)), (std::vector<uint64_t>{3, 4, 5, 6})) << r.err;
    EXPECT_TRUE(entries(dir.path).empty());

    // --skip-invalid does not turn a duplicate into something to skip.
    ToolRun skipping = build({"--duplicates", "error", "--skip-invalid", input, dir / "index"});
    EXPECT_TRUE(exited(skipping, 1));
    EXPECT_TRUE(entries(dir.path).empty());
}

TEST(CliBuild, DictdPlainAndGzipGiveTheSameIndex) {
    TempDir dir;
    build_ok(CLI_DATA + "/de-en.index", dir / "plain");
    build_ok(CLI_DATA + "/de-en-gz.index", dir / "gzip");
    EXPECT_TRUE(same_bytes(index_bytes(dir / "plain"), index_bytes(dir / "gzip")));

    // The 00-database entries describe the file and are no articles.
    EXPECT_EQ(info_json(dir / "plain").value("items", -1), static_cast<int>(dictd_articles().size()));
    for (const char* keyword : {"00", "database", "Tiny"}) {
        ToolRun r = run({"search", dir / "plain", keyword});
        EXPECT_TRUE(exited(r, 0));
        EXPECT_EQ(r.out, "") << keyword;
    }
    // Offsets and lengths of one and two base-64 digits, read correctly.
    for (const auto& article : dictd_articles()) {
        SCOPED_TRACE(article.first);
        EXPECT_EQ(values_of(dir / "plain", article.first), std::vector<std::string>{article.second});
    }
}

TEST(CliBuild, UnreadableInputExitsOneAndWritesNothing) {
    TempDir dir;
    fs::create_directory(dir / "inputs");
    write_file(dir / "inputs/lonely.index", "Apfel\tA\tB\n");  // no .dict beside it
    fs::create_directory(dir / "inputs/folder.tsv");
    const std::vector<std::vector<std::string>> cases = {
        {dir / "inputs/missing.tsv"},
        {dir / "inputs/missing.index"},
        {dir / "inputs/lonely.index"},
        {dir / "inputs/folder.tsv"},
        {"--format", "jsonl", CLI_DATA + "/words.tsv"},  // every line is bad JSON
    };
    for (std::vector<std::string> args : cases) {
        SCOPED_TRACE(args.back());
        args.push_back(dir / "index");
        ToolRun r = build(args);
        EXPECT_TRUE(exited(r, 1));
        EXPECT_EQ(r.out, "");
        EXPECT_TRUE(starts_with(r.err, "quorvex: ")) << r.err;
        EXPECT_EQ(entries(dir.path), std::set<std::string>{"inputs"});
    }
}

// ---------------------------------------------------------------- output

TEST(CliOutput, ExistingOutputIsRefusedWithoutForce) {
    TempDir dir;
    build_ok(CLI_DATA + "/words.tsv", dir / "index");
    fs::create_directory(dir / "empty");
    write_file(dir / "file", "not an index\n");
    const auto before = index_bytes(dir / "index");
    const auto listing = entries(dir.path);

    for (const char* target : {"index", "empty", "file"}) {
        SCOPED_TRACE(target);
        ToolRun r = build({"-q", CLI_DATA + "/duplicates.tsv", dir / target});
        EXPECT_TRUE(exited(r, 1));
        EXPECT_EQ(r.out, "");
        EXPECT_TRUE(starts_with(r.err, "quorvex: ")) << r.err;
    }
    EXPECT_TRUE(same_bytes(index_bytes(dir / "index"), before));
    EXPECT_TRUE(entries(dir / "empty").empty());
    EXPECT_EQ(read_file(dir / "file"), "not an index\n");
    EXPECT_EQ(entries(dir.path), listing);
}

TEST(CliOutput, ForceReplacesAnIndex) {
    TempDir dir;
    build_ok(CLI_DATA + "/words.tsv", dir / "index");
    const auto listing = entries(dir.path);

    build_ok(CLI_DATA + "/duplicates.tsv", dir / "index", {"--force"});
    EXPECT_EQ(info_json(dir / "index").value("items", -1), 3);
    EXPECT_EQ(values_of(dir / "index", "Schloss"), std::vector<std::string>{"castle\n\nlock\n\npalace"});
    ToolRun old = run({"search", dir / "index", "Haus"});
    EXPECT_TRUE(exited(old, 0));
    EXPECT_EQ(old.out, "");
    // Nothing of the old index or the staging is left about.
    EXPECT_EQ(entries(dir.path), listing);
    EXPECT_EQ(entries(dir / "index"), std::set<std::string>(std::begin(BLOBS), std::end(BLOBS)));

    // Replacing an index with the same items reproduces the same bytes.
    TempDir fresh;
    build_ok(CLI_DATA + "/duplicates.tsv", fresh / "index");
    EXPECT_TRUE(same_bytes(index_bytes(dir / "index"), index_bytes(fresh / "index")));
}

TEST(CliOutput, ForceNeverReplacesWhatIsNotAnIndex) {
    TempDir dir;
    build_ok(CLI_DATA + "/words.tsv", dir / "with-notes");
    write_file(dir / "with-notes/notes.txt", "keep me\n");
    build_ok(CLI_DATA + "/words.tsv", dir / "with-subdir");
    fs::create_directory(dir / "with-subdir/more");
    write_file(dir / "plain-file", "keep me too\n");
    const auto notes_index = index_bytes(dir / "with-notes");
    const auto subdir_index = index_bytes(dir / "with-subdir");
    const auto listing = entries(dir.path);

    for (const char* target : {"with-notes", "with-subdir", "plain-file"}) {
        SCOPED_TRACE(target);
        ToolRun r = build({"-q", "--force", CLI_DATA + "/duplicates.tsv", dir / target});
        EXPECT_TRUE(exited(r, 1));
        EXPECT_EQ(r.out, "");
        EXPECT_TRUE(starts_with(r.err, "quorvex: ")) << r.err;
    }
    EXPECT_EQ(read_file(dir / "with-notes/notes.txt"), "keep me\n");
    EXPECT_TRUE(same_bytes(index_bytes(dir / "with-notes"), notes_index));
    EXPECT_TRUE(fs::is_directory(dir / "with-subdir/more"));
    EXPECT_TRUE(same_bytes(index_bytes(dir / "with-subdir"), subdir_index));
    EXPECT_EQ(read_file(dir / "plain-file"), "keep me too\n");
    EXPECT_EQ(entries(dir.path), listing);
}

TEST(CliOutput, FailedRebuildLeavesTheEarlierIndexByteIdentical) {
    TempDir dir;
    build_ok(CLI_DATA + "/words.tsv", dir / "index");
    const auto before = index_bytes(dir / "index");
    const auto listing = entries(dir.path);
    struct Case {
        std::vector<std::string> args;
        int status;
    };
    const std::vector<Case> cases = {
        {{CLI_DATA + "/bad-items.tsv"}, 1},
        {{CLI_DATA + "/bad-items.jsonl"}, 1},
        {{CLI_DATA + "/broken.index"}, 1},
        {{"--duplicates", "error", CLI_DATA + "/duplicates.tsv"}, 1},
        {{dir / "missing.tsv"}, 1},
        {{CLI_DATA + "/README.md"}, 2},
    };
    for (Case c : cases) {
        SCOPED_TRACE(c.args.back());
        c.args.insert(c.args.begin(), "--force");
        c.args.push_back(dir / "index");
        ToolRun r = build(c.args);
        EXPECT_TRUE(exited(r, c.status));
        EXPECT_TRUE(same_bytes(index_bytes(dir / "index"), before));
        EXPECT_EQ(entries(dir / "index"), std::set<std::string>(std::begin(BLOBS), std::end(BLOBS)));
        EXPECT_EQ(entries(dir.path), listing);
    }
    EXPECT_EQ(values_of(dir / "index", "Haus"), std::vector<std::string>{"house; building\nalso: home"});
}

// ---------------------------------------------------------------- search

TEST(CliSearch, HumanOutputIsKeyTabFirstLine) {
    TempDir dir;
    build_ok(CLI_DATA + "/words.tsv", dir / "index");
    struct Case {
        std::vector<std::string> options;
        const char* keyword;
        std::string expected;
    };
    const std::vector<Case> cases = {
        {{}, "aus", "aus\tfrom; out of\nHaus\thouse; building\nHausaufgabe\thomework\nKrankenhaus\thospital\n"},
        {{}, "Tab", "Tabelle\ttable\tchart\n"},
        {{}, "\xC3\x9F" "e", "Gr\xC3\xBC\xC3\x9F" "e\tgreetings\nStra\xC3\x9F" "e\tstreet\n"},
        // --full: the whole value, and a blank line after each hit.
        {{"--full"}, "Haus", "Haus\thouse; building\nalso: home\n\nHausaufgabe\thomework\n\n"},
        {{"--full"}, "strich", "Schr\xC3\xA4gstrich\tslash /, not backslash \\\n\n"},
        {{}, "nirgends", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.keyword);
        std::vector<std::string> args{"search"};
        args.insert(args.end(), c.options.begin(), c.options.end());
        args.push_back(dir / "index");
        args.push_back(c.keyword);
        ToolRun r = run(args);
        EXPECT_TRUE(exited(r, 0));
        EXPECT_EQ(r.out, c.expected);
        EXPECT_EQ(r.err, "");
    }

    // A value that ends with a newline gets no second blank line.
    write_file(dir / "ends.tsv", "eins\tone\\n\nzwei\ttwo\\nlines\\n\n");
    build_ok(dir / "ends.tsv", dir / "ends");
    ToolRun r = run({"search", "--full", dir / "ends", "e"});
    EXPECT_TRUE(exited(r, 0));
    EXPECT_EQ(r.out, "eins\tone\n\nzwei\ttwo\nlines\n\n");
}

TEST(CliSearch, LongLinesAreNotCutWhenStdoutIsNotATerminal) {
    TempDir dir;
    std::string first_line;
    for (int i = 0; i < 60; ++i) {
        first_line += "Wort" + std::to_string(i) + " \xC3\xA4 ";
    }
    write_file(dir / "long.tsv", "lang\t" + first_line + "\\nsecond line\n");
    build_ok(dir / "long.tsv", dir / "index");
    ToolRun r = run({"search", dir / "index", "lang"});
    ASSERT_TRUE(exited(r, 0));
    EXPECT_EQ(r.out, "lang\t" + first_line + "\n");
}

TEST(CliSearch, JsonLinesParseBackToTheStoredItems) {
    TempDir dir;
    build_ok(CLI_DATA + "/words.tsv", dir / "index");
    // "e" is in most keys; each hit must come back exactly as stored.
    Hits hits = search_json(dir / "index", "e");
    ASSERT_FALSE(hits.empty());
    std::set<std::string> seen;
    for (const auto& hit : hits) {
        auto item = word_items().find(hit.first);
        ASSERT_NE(item, word_items().end()) << hit.first;
        EXPECT_EQ(hit.second, item->second) << hit.first;
        seen.insert(hit.first);
    }
    std::set<std::string> expected;
    for (const auto& item : word_items()) {
        if (contains(item.first, "e")) {
            expected.insert(item.first);
        }
    }
    EXPECT_EQ(seen, expected);
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
    for (const auto& item : items) {
        text += item.first + "\t" + item.second + "\n";
    }
    write_file(dir / "bytes.tsv", text);
    build_ok(dir / "bytes.tsv", dir / "index");

    for (const auto& item : items) {
        SCOPED_TRACE(item.first);
        ToolRun r = run({"search", "--json", dir / "index", item.first});
        ASSERT_TRUE(exited(r, 0));
        std::vector<std::string> lines = lines_of(r.out);
        ASSERT_EQ(lines.size(), 1u) << r.out;
        json hit = json::parse(lines[0], nullptr, false);
        ASSERT_FALSE(hit.is_discarded()) << lines[0];
        EXPECT_EQ(hit["key"], item.first);
        bool is_text = item.first == "f\xC3\xBCnf";
        EXPECT_EQ(hit["value"].is_string(), is_text) << lines[0];
        EXPECT_EQ(bytes_of(hit["value"]), item.second);
    }
    // One worked by hand: the single byte FF.
    ToolRun one = run({"search", "--json", dir / "index", "eins"});
    EXPECT_EQ(one.out, "{\"key\":\"eins\",\"value\":{\"bytes\":\"/w==\"}}\n");

    // Human output of such values does not fail either.
    ToolRun human = run({"search", "--full", dir / "index", "e"});
    EXPECT_TRUE(exited(human, 0));
    EXPECT_FALSE(human.out.empty());
}

// Keys that begin with the keyword first, in byte order; then those that
// hold it from their second character, and so on. Positions count
// characters, not bytes. A key holding the keyword twice is listed twice.
TEST(CliSearch, ResultsComeByPositionThenByKeyBytes) {
    TempDir dir;
    const std::vector<std::string> keys = {"\xC3\x96lkanne", "bean", "can", "an\xC3\x84", "banana", "Mensch",
                                           "an", "anz", "Kanal", "and", "anZ"};
    std::string text;
    for (const std::string& key : keys) {
        text += key + "\tvalue of " + key + "\n";
    }
    write_file(dir / "order.tsv", text);
    build_ok(dir / "order.tsv", dir / "index");

    const std::vector<std::string> expected = {
        "an", "anZ", "and", "anz", "an\xC3\x84",  // position 0
        "Kanal", "banana", "can",                 // position 1
        "bean",                                   // position 2
        "banana", "\xC3\x96lkanne",               // position 3
    };
    EXPECT_EQ(keys_of(search_json(dir / "index", "an")), expected);

    // A limit takes the first hits of that same order, across positions.
    for (size_t limit : {1u, 4u, 5u, 6u, 9u, 10u, 11u, 12u, 65535u}) {
        SCOPED_TRACE(limit);
        std::vector<std::string> first(expected.begin(), expected.begin() + std::min(limit, expected.size()));
        EXPECT_EQ(keys_of(search_json(dir / "index", "an", {"--limit", std::to_string(limit)})), first);
    }

    // The human output follows the same order.
    ToolRun human = run({"search", dir / "index", "an"});
    ASSERT_TRUE(exited(human, 0));
    std::vector<std::string> human_keys;
    for (const std::string& line : lines_of(human.out)) {
        human_keys.push_back(line.substr(0, line.find('\t')));
    }
    EXPECT_EQ(human_keys, expected);
}

TEST(CliSearch, TwentyHitsUnlessToldOtherwise) {
    TempDir dir;
    std::string text;
    std::vector<std::string> keys;
    for (int i = 0; i < 25; ++i) {
        std::string key = std::string("k") + static_cast<char>('0' + i / 10) + static_cast<char>('0' + i % 10);
        keys.push_back(key);
        text += key + "\tv\n";
    }
    write_file(dir / "many.tsv", text);
    build_ok(dir / "many.tsv", dir / "index");
    EXPECT_EQ(keys_of(search_json(dir / "index", "k")), std::vector<std::string>(keys.begin(), keys.begin() + 20));
    EXPECT_EQ(keys_of(search_json(dir / "index", "k", {"--limit", "25"})), keys);
    ToolRun human = run({"search", dir / "index", "k"});
    EXPECT_EQ(lines_of(human.out).size(), 20u);
}

TEST(CliSearch, StatsGoToStderrOnly) {
    TempDir dir;
    build_ok(CLI_DATA + "/words.tsv", dir / "index");
    ToolRun plain = run({"search", dir / "index", "aus"});
    ToolRun stats = run({"search", "--stats", dir / "index", "aus"});
    ASSERT_TRUE(exited(stats, 0));
    EXPECT_EQ(stats.out, plain.out);
    EXPECT_TRUE(starts_with(stats.err, "quorvex: ")) << stats.err;
}

TEST(CliSearch, BadKeywordsExitWithTwo) {
    const std::vector<std::pair<const char*, std::string>> cases = {
        {"empty", ""},
        {"a lone FF byte", "\xFF"},
        {"Latin-1", "K\xE4se"},
        {"cut short", "\xC3"},
        {"a surrogate", "\xED\xA0\x80"},
        {"an overlong slash", "\xC0\xAF"},
        {"past U+10FFFF", "\xF4\x90\x80\x80"},
        {"255 bytes", std::string(255, 'a')},
        {"255 bytes of euro signs", repeat("\xE2\x82\xAC", 85)},
        {"1000 bytes", std::string(1000, 'b')},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.first);
        for (const std::string& index : {GOOD_SET, std::string("/no/such/index")}) {
            ToolRun r = run({"search", index, c.second});
            EXPECT_TRUE(exited(r, 2));
            EXPECT_EQ(r.out, "");
            EXPECT_TRUE(starts_with(r.err, "quorvex: ")) << r.err;
        }
    }
}

TEST(CliSearch, KeywordsAtTheLimitsAreSearched) {
    TempDir dir;
    const std::string long_key = std::string(254, 'a');
    write_file(dir / "edge.tsv", long_key + "\tlong\nx\xEF\xBF\xBEy\thighest\n");
    build_ok(dir / "edge.tsv", dir / "index");
    const std::vector<std::pair<std::string, std::vector<std::string>>> cases = {
        {long_key, {long_key}},                         // 254 bytes
        {repeat("\xC3\xA9", 127), {}},                  // 254 bytes, 127 characters
        {"\xF0\x9F\x98\x80", {}},                       // past U+FFFF: nothing to find
        {"\xEF\xBF\xBF", {}},                           // U+FFFF
        {"\xEF\xBF\xBEy", {"x\xEF\xBF\xBEy"}},          // U+FFFE
        {std::string(253, 'a'), {long_key, long_key}},  // at positions 0 and 1
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.first.size());
        EXPECT_EQ(keys_of(search_json(dir / "index", c.first)), c.second);
    }
}

// A missing or incomplete index directory is bad data, not a usage error;
// the message names what is missing.
TEST(CliSearch, MissingIndexOrFilesExitWithOne) {
    TempDir dir;
    write_file(dir / "plain-file", "not an index\n");
    std::vector<std::pair<std::string, std::string>> cases = {
        {dir / "no-such-directory", "no-such-directory"},
        {dir / "plain-file", "plain-file"},
    };
    for (const char* name : BLOBS) {
        std::string set = dir / (std::string("without-") + name);
        fs::copy(GOOD_SET, set);
        fs::remove(set + "/" + name);
        cases.emplace_back(set, name);
    }
    std::string folder = dir / "table-is-a-directory";
    fs::copy(GOOD_SET, folder);
    fs::remove(folder + "/table.bin");
    fs::create_directory(folder + "/table.bin");
    cases.emplace_back(folder, "table.bin");
    std::string empty = dir / "empty-table";
    fs::copy(GOOD_SET, empty);
    write_file(empty + "/table.bin", "");
    cases.emplace_back(empty, "table.bin");

    for (const auto& c : cases) {
        SCOPED_TRACE(c.first);
        for (std::vector<std::string> args : std::vector<std::vector<std::string>>{
                 {"search", c.first, "b"}, {"search", "--json", c.first, "ab"}, {"info", c.first},
                 {"info", "--json", c.first}, {"verify", c.first}, {"verify", "--deep", c.first}}) {
            SCOPED_TRACE(args[0] + " " + args[1]);
            ToolRun r = run(args);
            EXPECT_TRUE(exited(r, 1));
            EXPECT_EQ(r.out.find("\"sound\": true"), std::string::npos) << r.out;
            EXPECT_TRUE(contains(r.err, c.second)) << r.err;
            EXPECT_TRUE(starts_with(r.err, "quorvex: ")) << r.err;
        }
    }
}

TEST(CliSearch, DamagedSetsExitWithOneAndAMessage) {
    for (const DamagedSet& set : DAMAGED_SETS) {
        SCOPED_TRACE(set.name);
        const std::string directory = DATA + "/" + set.name;
        for (std::vector<std::string> args : std::vector<std::vector<std::string>>{
                 {"search", directory, "b"}, {"search", directory, "a"}, {"search", "--json", directory, "ab"},
                 {"search", "--full", directory, "z"}, {"info", directory}, {"info", "--json", directory}}) {
            SCOPED_TRACE(args[0] + " " + args[1] + " " + args.back());
            ToolRun r = run(args);
            EXPECT_TRUE(exited(r, 1));
            EXPECT_EQ(r.out, "");
            EXPECT_TRUE(starts_with(r.err, "quorvex: ")) << r.err;
            EXPECT_TRUE(contains(r.err, directory + "/" + set.blob)) << r.err;
        }
    }
}

// ---------------------------------------------------------------- info

TEST(CliInfo, JsonMatchesTheFilesOnDisk) {
    TempDir dir;
    build_ok(CLI_DATA + "/words.tsv", dir / "index");
    json info = info_json(dir / "index");
    EXPECT_EQ(info.value("items", -1), static_cast<int>(word_items().size()));
    ASSERT_TRUE(info.contains("files")) << info.dump();
    for (const char* name : BLOBS) {
        EXPECT_EQ(info["files"].value(name, uint64_t{0}), fs::file_size(dir / "index/" + std::string(name))) << name;
    }
    // index.bin holds a 4-byte sentinel and one 4-byte entry per character
    // of every key.
    size_t characters = 0;
    for (const auto& item : word_items()) {
        for (char c : item.first) {
            characters += (static_cast<unsigned char>(c) & 0xC0) != 0x80;
        }
    }
    EXPECT_EQ(info.value("posting_entries", uint64_t{0}), characters);
    EXPECT_EQ(fs::file_size(dir / "index/index.bin"), 4 + 4 * characters);
    uint64_t keys = 0;
    for (const json& bucket : info["key_lengths"]) {
        keys += bucket.value("keys", uint64_t{0});
    }
    EXPECT_EQ(keys, word_items().size());
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
    for (const json& bucket : info["key_lengths"]) {
        lengths[bucket.value("characters", "")] = bucket.value("keys", -1);
    }
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
        EXPECT_EQ(report.value("items", -1), info_json(index).value("items", -2));
    }
}

TEST(CliVerify, DamagedSetsExitWithOneNamingTheBlob) {
    for (const DamagedSet& set : DAMAGED_SETS) {
        SCOPED_TRACE(set.name);
        const std::string directory = DATA + "/" + set.name;
        for (bool deep : {false, true}) {
            std::vector<std::string> args{"verify", directory};
            if (deep) {
                args.insert(args.begin() + 1, "--deep");
            }
            ToolRun r = run(args);
            EXPECT_TRUE(exited(r, 1));
            EXPECT_EQ(r.out, "");
            EXPECT_TRUE(contains(r.err, directory + "/" + set.blob)) << r.err;
            for (const std::string& line : lines_of(r.err)) {
                EXPECT_TRUE(starts_with(line, "quorvex: ")) << line;
            }
        }

        ToolRun r = run({"verify", "--json", directory});
        EXPECT_TRUE(exited(r, 1));
        json report = json::parse(r.out, nullptr, false);
        ASSERT_FALSE(report.is_discarded()) << r.out;
        EXPECT_EQ(report.value("sound", true), false);
        ASSERT_TRUE(report.contains("problems") && report["problems"].is_array() && !report["problems"].empty())
            << report.dump();
        EXPECT_GE(report.value("problem_count", uint64_t{0}), report["problems"].size());
        const json& first = report["problems"][0];
        EXPECT_EQ(first.value("blob", ""), set.blob) << report.dump();
        EXPECT_TRUE(first.contains("offset") && first["offset"].is_number_unsigned()) << report.dump();
        EXPECT_FALSE(first.value("message", "").empty()) << report.dump();
    }
}

// ---------------------------------------------------------------- regressions

TEST(CliRegression, TrailingSlashOnTheOutputNamesTheDirectoryItself) {
    TempDir dir;
    build_ok(CLI_DATA + "/words.tsv", dir / "index/");
    EXPECT_EQ(entries(dir / "index"), std::set<std::string>(std::begin(BLOBS), std::end(BLOBS)));
    build_ok(CLI_DATA + "/duplicates.tsv", dir / "index//", {"--force"});
    EXPECT_EQ(info_json(dir / "index").value("items", -1), 3);
    EXPECT_EQ(entries(dir.path), std::set<std::string>{"index"});
}

TEST(CliRegression, TruncatedDictDzIsBadData) {
    TempDir dir;
    std::string compressed = read_file(CLI_DATA + "/de-en-gz.dict.dz");
    ASSERT_GT(compressed.size(), 40u);
    std::string index = read_file(CLI_DATA + "/de-en-gz.index");
    // Without its 8-byte trailer, and cut in the middle of the stream.
    for (size_t keep : {compressed.size() - 8, size_t{40}}) {
        SCOPED_TRACE(keep);
        write_file(dir / "cut.index", index);
        write_file(dir / "cut.dict.dz", compressed.substr(0, keep));
        ToolRun r = build({"-q", dir / "cut.index", dir / "out"});
        EXPECT_TRUE(exited(r, 1));
        EXPECT_TRUE(contains(r.err, "cut.dict.dz")) << r.err;
        EXPECT_FALSE(fs::exists(dir / "out"));
    }
}

TEST(CliRegression, ValuesHoldingNulArePrintedWhole) {
    TempDir dir;
    write_file(dir / "nul.jsonl", "{\"key\":\"nul\",\"value\":\"before\\u0000after\\nsecond\"}\n");
    build_ok(dir / "nul.jsonl", dir / "index");
    ToolRun full = run({"search", "--full", dir / "index", "nul"});
    EXPECT_TRUE(exited(full, 0));
    EXPECT_EQ(full.out, std::string("nul\tbefore\0after\nsecond\n\n", 25));
    ToolRun plain = run({"search", dir / "index", "nul"});
    EXPECT_EQ(plain.out, std::string("nul\tbefore\0after\n", 17));
}

TEST(CliRegression, UsageErrorsCarryThePrefix) {
    for (std::vector<std::string> args : std::vector<std::vector<std::string>>{
             {"search", "--limit", "0", "dir", "b"}, {"bogus"}, {}, {"build", "only-one-argument"},
             {"info", "--no-such-flag", "dir"}}) {
        ToolRun r = run(args);
        EXPECT_TRUE(exited(r, 2));
        EXPECT_TRUE(starts_with(r.err, "quorvex: ")) << r.err;
    }
}

TEST(CliRegression, ASymlinkIsNeverReplaced) {
    TempDir dir;
    build_ok(CLI_DATA + "/words.tsv", dir / "real");
    const auto before = index_bytes(dir / "real");
    fs::create_directory_symlink(dir / "real", dir / "link");
    ToolRun r = build({"-q", "--force", CLI_DATA + "/duplicates.tsv", dir / "link"});
    EXPECT_TRUE(exited(r, 1));
    EXPECT_TRUE(contains(r.err, "symbolic link")) << r.err;
    EXPECT_TRUE(fs::is_symlink(dir / "link"));
    EXPECT_TRUE(same_bytes(index_bytes(dir / "real"), before));
    EXPECT_EQ(entries(dir.path), (std::set<std::string>{"link", "real"}));
}
