// Quorvex against other ways of answering "which keys contain this
// keyword", on real dictionaries: a scan over all keys, a suffix array,
// SQLite FTS5 with the trigram tokenizer and a plain SQLite table searched
// with LIKE. With --folded, keywords are found as people type them: Quorvex's
// folded index beside its exact one, a scan over folded keys and FTS5
// folding case. Every contender gets the same items and the same keywords, in
// one process; the program prints a table per dictionary and can write it as
// Markdown, plus the latency distributions for a plot.
// bench/README.md and docs/PERFORMANCE.md explain what is measured.

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "CompareContenders.h"
#include "CompareData.h"
#include "Reader/IndexReader.h"

namespace {

using namespace Lexarium::Bench::Compare;

typedef std::chrono::steady_clock Clock;

constexpr size_t PRESENT_KEYWORDS = 1000;
constexpr size_t ABSENT_KEYWORDS = 100;
constexpr uint64_t PRESENT_SEED = 0x6b6579776f726473ULL;
constexpr uint64_t ABSENT_SEED = 0x6e6f776865726521ULL;

constexpr uint32_t LIMITS[2] = {20, 65535};
constexpr size_t LIMIT_COUNT = 2;
constexpr size_t FULL = 1;  // index of 65535 in LIMITS

constexpr int LOAD_ROUNDS = 5;
// Builds per contender; the median counts. A single build of a second or
// less swings by half from run to run on a shared machine.
constexpr int BUILD_ROUNDS = 3;

const char* const DEFAULT_DICTIONARIES[] = {
    "/usr/share/dictd/freedict-deu-eng.index",
    "/usr/share/dictd/freedict-jpn-eng.index",
    "/usr/share/dictd/gcide.index",
};

double seconds_since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// ---- Options ----------------------------------------------------------------

struct Options {
    std::vector<std::string> dictionaries;
    std::string markdown_path;
    std::string plot_path;
    // Timed passes over all keywords, the same for every contender, after
    // one untimed pass that warms each up and checks its answers.
    int passes = 3;
    size_t keywords = PRESENT_KEYWORDS;
    // Names of the contenders to run besides Quorvex, which always runs
    // (it is the reference); empty: all of them.
    std::vector<std::string> contenders;
    // How many of Quorvex's slowest keywords to list per limit.
    size_t slowest = 0;
    // The folded comparison instead of the exact one.
    bool folded = false;
};

void usage() {
    std::fprintf(stderr,
                 "usage: quorvex_bench_compare [--markdown FILE] [--plot-data FILE] [--passes N]\n"
                 "                             [--keywords N] [--contenders NAME,...] [--slowest N] [--folded]\n"
                 "                             [DICTD_INDEX...]\n"
                 "Without DICTD_INDEX: the FreeDict German-English and Japanese-English dictionaries and GCIDE\n"
                 "from /usr/share/dictd. --passes: timed passes of every contender (default 3), after an untimed one.\n"
                 "--contenders runs Quorvex and the named ones only (scan, suffix-array, sqlite-fts5-trigram,\n"
                 "sqlite-like); --slowest lists Quorvex's N slowest keywords per limit on standard error.\n"
                 "--folded: Quorvex's folded index (find) beside its exact one (search, find), a scan over\n"
                 "folded keys (folded-scan) and FTS5 folding case (sqlite-fts5-nocase).\n");
}

Options parse_options(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        std::string argument = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc) {
                usage();
                std::exit(2);
            }
            return argv[++i];
        };
        auto count = [&]() {
            std::string text = value();
            char* end = nullptr;
            long number = std::strtol(text.c_str(), &end, 10);
            if (*end != '\0' || number < 1) {
                usage();
                std::exit(2);
            }
            return number;
        };
        if (argument == "--markdown") {
            options.markdown_path = value();
        } else if (argument == "--plot-data") {
            options.plot_path = value();
        } else if (argument == "--passes") {
            options.passes = static_cast<int>(count());
        } else if (argument == "--keywords") {
            options.keywords = static_cast<size_t>(count());
        } else if (argument == "--contenders") {
            std::stringstream names(value());
            std::string name;
            while (std::getline(names, name, ',')) {
                if (!name.empty()) {
                    options.contenders.push_back(name);
                }
            }
        } else if (argument == "--folded") {
            options.folded = true;
        } else if (argument == "--slowest") {
            options.slowest = static_cast<size_t>(count());
        } else if (argument == "-h" || argument == "--help") {
            usage();
            std::exit(0);
        } else if (!argument.empty() && argument[0] == '-') {
            usage();
            std::exit(2);
        } else {
            options.dictionaries.push_back(argument);
        }
    }
    if (options.dictionaries.empty()) {
        options.dictionaries.assign(std::begin(DEFAULT_DICTIONARIES), std::end(DEFAULT_DICTIONARIES));
    }
    return options;
}

// ---- Temporary directories --------------------------------------------------

class TemporaryDirectory {
public:
    TemporaryDirectory() {
        std::string pattern = (std::filesystem::temp_directory_path() / "quorvex_bench_compare.XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("cannot create a directory like " + pattern);
        }
        this->path = pattern;
    }
    ~TemporaryDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(this->path, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    std::string make(const std::string& name) const {
        std::string directory = this->path + "/" + name;
        std::filesystem::create_directory(directory);
        return directory;
    }

    std::string path;
};

uint64_t directory_bytes(const std::string& directory) {
    uint64_t bytes = 0;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        if (entry.is_regular_file()) {
            bytes += entry.file_size();
        }
    }
    return bytes;
}

std::string directory_name(const std::string& contender) {
    std::string name = contender;
    std::replace(name.begin(), name.end(), ' ', '-');
    return name;
}

// The first is the reference for the others. In the folded comparison the
// exact index runs in every pass beside the folded one, its peer.
std::vector<std::unique_ptr<Contender>> all_contenders(bool folded) {
    std::vector<std::unique_ptr<Contender>> contenders;
    if (folded) {
        contenders.push_back(make_quorvex_built(BuiltIndex::Folded));
        contenders.push_back(make_quorvex_built(BuiltIndex::ExactSearch));
        contenders.push_back(make_quorvex_built(BuiltIndex::ExactFind));
        contenders.push_back(make_folded_scan());
        contenders.push_back(make_sqlite_fts5_nocase());
        return contenders;
    }
    contenders.push_back(make_quorvex());
    contenders.push_back(make_scan());
    contenders.push_back(make_suffix_array());
    contenders.push_back(make_sqlite_fts5());
    contenders.push_back(make_sqlite_like());
    return contenders;
}

bool is_quorvex(const Contender& contender) { return contender.name().rfind("quorvex", 0) == 0; }

// Quorvex (all of its forms) and those of `names` (empty: all); an unknown
// name is an error.
std::vector<std::unique_ptr<Contender>> chosen_contenders(const std::vector<std::string>& names, bool folded) {
    std::vector<std::unique_ptr<Contender>> all = all_contenders(folded);
    for (const std::string& name : names) {
        bool known = false;
        for (const auto& contender : all) {
            known = known || directory_name(contender->name()) == name;
        }
        if (!known) {
            throw std::invalid_argument("no contender is called \"" + name + "\"");
        }
    }
    std::vector<std::unique_ptr<Contender>> chosen;
    for (auto& contender : all) {
        std::string name = directory_name(contender->name());
        if (is_quorvex(*contender) || names.empty() || std::find(names.begin(), names.end(), name) != names.end()) {
            chosen.push_back(std::move(contender));
        }
    }
    return chosen;
}

// ---- Agreement with Quorvex -------------------------------------------------

std::string describe_keys(const std::vector<uint32_t>& keys, const Dictionary& dictionary) {
    std::string text = std::to_string(keys.size()) + " result(s)";
    if (!keys.empty()) {
        text += ", first \"" + dictionary.stored[keys.front()] + "\"";
    }
    return text;
}

// Tallies how often a contender's answer agrees with Quorvex's:
// - limit 65535, when Quorvex's answer is not cut: the same set of keys;
// - limit 20, for a contender in the index's order: the same list; for one
//   with an order of its own (SQLite), distinct keys, all in Quorvex's
//   uncut answer at 65535, as many as the limit lets through.
struct Agreement {
    size_t compared = 0;
    size_t agreed = 0;
    // Of the differing key sets: those that only lack keys, only add keys.
    size_t fewer = 0;
    size_t more = 0;
    std::string first_difference;

    void note(bool same, const std::string& keyword, const std::string& detail) {
        ++this->compared;
        if (same) {
            ++this->agreed;
        } else if (this->first_difference.empty()) {
            this->first_difference = "\"" + keyword + "\": " + detail;
        }
    }

    std::string summary() const {
        if (this->compared == 0) {
            return "-";
        }
        std::string text = std::to_string(this->agreed) + "/" + std::to_string(this->compared);
        if (this->fewer + this->more > 0) {
            text += " (fewer " + std::to_string(this->fewer) + ", more " + std::to_string(this->more) + ")";
        }
        return text;
    }
};

void check_answer(const Contender& contender, size_t limit_index, const std::vector<uint32_t>& answer,
                  const Reference& reference, const std::string& keyword, const Dictionary& dictionary,
                  Agreement& agreement) {
    std::set<uint32_t> expected(reference.full.begin(), reference.full.end());
    std::set<uint32_t> got(answer.begin(), answer.end());
    std::string detail = "quorvex " + describe_keys(limit_index == FULL ? reference.full : reference.first, dictionary) +
                         "; " + contender.name() + " " + describe_keys(answer, dictionary);
    if (limit_index == FULL) {
        if (reference.cut) {
            return;  // nothing exact to compare with
        }
        agreement.note(got == expected, keyword, detail);
        if (got != expected) {
            bool only_lacks = std::includes(expected.begin(), expected.end(), got.begin(), got.end());
            bool only_adds = std::includes(got.begin(), got.end(), expected.begin(), expected.end());
            agreement.fewer += only_lacks ? 1 : 0;
            agreement.more += only_adds ? 1 : 0;
        }
        return;
    }
    if (contender.index_order()) {
        agreement.note(answer == reference.first, keyword, detail);
        return;
    }
    if (reference.cut) {
        return;
    }
    bool distinct = got.size() == answer.size();
    bool inside = std::includes(expected.begin(), expected.end(), got.begin(), got.end());
    bool enough = answer.size() == std::min<size_t>(LIMITS[0], expected.size());
    agreement.note(distinct && inside && enough, keyword, detail);
}

// ---- Latency ----------------------------------------------------------------

// Percentile `q` (0 < q <= 1) of `values` by nearest rank.
double percentile(std::vector<double> values, double q) {
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    size_t rank = static_cast<size_t>(std::ceil(q * static_cast<double>(values.size())));
    return values[std::max<size_t>(rank, 1) - 1];
}

double median_of(std::vector<double> values) {
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    return values[(values.size() - 1) / 2];
}

struct LimitFigures {
    std::vector<std::vector<double>> samples;  // per keyword, microseconds, one per pass
    std::vector<size_t> results;               // per keyword, from the first pass
    Agreement agreement;

    // A keyword's latency: the median of its passes, so one unlucky pass
    // (an interrupt, another process) does not decide it. Only keywords
    // that were asked (all but those a contender does not support), and
    // of them only those `chosen` when given.
    std::vector<double> latencies_us(const std::vector<bool>* chosen = nullptr) const {
        std::vector<double> latencies;
        for (size_t k = 0; k < this->samples.size(); ++k) {
            if (!this->samples[k].empty() && (chosen == nullptr || (*chosen)[k])) {
                latencies.push_back(median_of(this->samples[k]));
            }
        }
        return latencies;
    }

    double mean_results() const {
        double sum = 0;
        size_t asked = 0;
        for (size_t k = 0; k < this->results.size(); ++k) {
            if (!this->samples[k].empty()) {
                sum += static_cast<double>(this->results[k]);
                ++asked;
            }
        }
        return asked == 0 ? 0 : sum / static_cast<double>(asked);
    }
};

struct ContenderFigures {
    std::string name;
    Contender::Checked checked = Contender::Checked::Must;
    int passes = 0;
    double build_seconds = 0;
    uint64_t disk_bytes = 0;
    double load_ms = 0;
    LimitFigures limits[LIMIT_COUNT];
    std::string remark;  // from Contender::examine
};

struct DictionaryReport {
    std::string name;
    size_t items = 0;
    uint64_t invalid = 0;
    uint64_t merged = 0;
    bool folded = false;   // the folded comparison
    uint64_t refused = 0;  // folded comparison: items an IndexBuilder refuses, left out
    uint64_t key_bytes = 0;
    uint64_t value_bytes = 0;
    size_t shortened_keys = 0;
    std::vector<Keyword> keywords;
    std::vector<ContenderFigures> contenders;
    size_t quorvex_cut = 0;  // keywords whose Quorvex answer at 65535 filled the limit
    double read_ms = 0;  // reading Quorvex's four files plainly, the yardstick for its load
    double mapped_ms = 0;  // Quorvex opened mapped, to its first answer
    std::string load_before;
    std::string load_after;
    double seconds = 0;
};

std::string load_average() {
    std::ifstream in("/proc/loadavg");
    std::string one, five, fifteen;
    in >> one >> five >> fifteen;
    return one + " " + five + " " + fifteen;
}

void progress(const std::string& message) {
    std::fprintf(stderr, "quorvex_bench_compare: %s\n", message.c_str());
}

// Reads the four files of the index in `directory` into fresh arrays, as a
// program that only wants the bytes would (size, allocation, one fread each),
// and returns the milliseconds it took. Releasing the arrays is not timed.
double read_index_files_ms(const std::string& directory) {
    std::vector<std::unique_ptr<unsigned char[]>> arrays;
    Clock::time_point start = Clock::now();
    for (const char* name : {"/table.bin", "/index.bin", "/key.bin", "/data.bin"}) {
        std::string path = directory + name;
        uintmax_t size = std::filesystem::file_size(path);
        arrays.emplace_back(new unsigned char[size]);
        FILE* file = std::fopen(path.c_str(), "rb");
        if (file == nullptr || std::fread(arrays.back().get(), 1, size, file) != size) {
            throw std::runtime_error("cannot read " + path);
        }
        std::fclose(file);
    }
    return seconds_since(start) * 1e3;
}

// Opens the index in `directory` mapped (IndexReader::from_directory_mapped)
// and asks it `keyword` at `limit`: the milliseconds from the call to the
// answer. The reader goes afterwards, untimed, and with it the mapping, as
// no other mapped reader of these files lives: each call is the first open
// of the index in the process, mapping the files and walking table.bin.
// `results` is the answer's length.
double mapped_first_answer_ms(const std::string& directory, const std::string& keyword, uint32_t limit,
                              size_t& results) {
    Clock::time_point start = Clock::now();
    std::string error;
    Rc<Lexarium::Reader::IndexReader> reader = Lexarium::Reader::IndexReader::from_directory_mapped(directory, &error);
    if (reader.is_null()) {
        throw std::runtime_error(error);
    }
    results = reader->search(keyword, static_cast<uint16_t>(limit))->size();
    return seconds_since(start) * 1e3;
}

// ---- One dictionary ---------------------------------------------------------

DictionaryReport run_dictionary(const std::string& path, const Options& options) {
    Clock::time_point start = Clock::now();
    DictionaryReport report;
    report.load_before = load_average();
    progress("reading " + path);
    Dictionary dictionary = load_dictd(path);
    report.folded = options.folded;
    if (options.folded) {
        dictionary = buildable_items(dictionary, report.refused);
    }
    report.name = dictionary.name;
    report.items = dictionary.keys.size();
    report.invalid = dictionary.invalid;
    report.merged = dictionary.merged;
    report.key_bytes = dictionary.key_bytes;
    report.value_bytes = dictionary.value_bytes;
    for (size_t k = 0; k < dictionary.keys.size(); ++k) {
        report.shortened_keys += dictionary.keys[k].size() != dictionary.stored[k].size() ? 1 : 0;
    }
    progress(std::to_string(report.items) + " items in " + std::to_string(seconds_since(start)) + " s");

    report.keywords = present_keywords(dictionary.stored, options.keywords, PRESENT_SEED);
    for (Keyword& keyword : absent_keywords(dictionary.keys, ABSENT_KEYWORDS, ABSENT_SEED)) {
        report.keywords.push_back(std::move(keyword));
    }
    const std::vector<Keyword>& keywords = report.keywords;

    TemporaryDirectory temporary;
    std::vector<std::unique_ptr<Contender>> contenders = chosen_contenders(options.contenders, options.folded);
    std::vector<std::string> directories;
    for (auto& contender : contenders) {
        ContenderFigures figures;
        figures.name = contender->name();
        figures.checked = contender->checked();
        figures.passes = options.passes;
        std::vector<double> build_seconds;
        std::string rounds;
        for (int round = 0; round < BUILD_ROUNDS; ++round) {
            // Each build into a fresh directory; the last one stays.
            if (round > 0) {
                std::filesystem::remove_all(directories.back());
                directories.pop_back();
            }
            directories.push_back(temporary.make(dictionary.name + "-" + directory_name(figures.name) + "-" +
                                                 std::to_string(round)));
            Clock::time_point build_start = Clock::now();
            contender->build(dictionary, directories.back());
            build_seconds.push_back(seconds_since(build_start));
            rounds += " " + std::to_string(build_seconds.back());
        }
        figures.build_seconds = median_of(build_seconds);
        figures.disk_bytes = directory_bytes(directories.back());
        progress("builds of " + figures.name + " (s):" + rounds);
        report.contenders.push_back(std::move(figures));
    }

    // Files to first answer, warm page cache: open, then one search with
    // limit 20 for the first keyword. Rounds go through all contenders in
    // turn; the median round counts. The last load stays for the searches.
    // Each round also reads Quorvex's files plainly and opens them mapped,
    // just before loading them, so that its load can be set against both.
    std::vector<std::vector<double>> load_ms(contenders.size());
    std::vector<double> read_ms;
    std::vector<double> mapped_ms;
    for (int round = 0; round < LOAD_ROUNDS; ++round) {
        for (size_t c = 0; c < contenders.size(); ++c) {
            contenders[c]->unload();
            size_t mapped_results = 0;
            bool yardstick = c == 0 && !options.folded;  // the plain index's files
            if (yardstick) {
                read_ms.push_back(read_index_files_ms(directories[c]));
                mapped_ms.push_back(
                    mapped_first_answer_ms(directories[c], keywords.front().text, LIMITS[0], mapped_results));
            }
            Clock::time_point load_start = Clock::now();
            contenders[c]->load(directories[c]);
            size_t results = contenders[c]->search(keywords.front().text, LIMITS[0]);
            load_ms[c].push_back(seconds_since(load_start) * 1e3);
            contenders[c]->release();
            if (yardstick && results != mapped_results) {
                throw std::logic_error("quorvex answers the first keyword with " + std::to_string(results) +
                                       " results, mapped with " + std::to_string(mapped_results));
            }
        }
    }
    report.read_ms = median_of(read_ms);
    report.mapped_ms = median_of(mapped_ms);
    std::string read_rounds;
    for (double ms : read_ms) {
        read_rounds += " " + std::to_string(ms);
    }
    progress("plain reads of quorvex's files (ms):" + read_rounds);
    std::string mapped_rounds;
    for (double ms : mapped_ms) {
        mapped_rounds += " " + std::to_string(ms);
    }
    progress("mapped opens of quorvex's files to the first answer (ms):" + mapped_rounds);
    for (size_t c = 0; c < contenders.size(); ++c) {
        report.contenders[c].load_ms = median_of(load_ms[c]);
        std::string rounds;
        for (double ms : load_ms[c]) {
            rounds += " " + std::to_string(ms);
        }
        progress("loads of " + report.contenders[c].name + " (ms):" + rounds);
        contenders[c]->verify(dictionary);
    }
    progress("loaded and verified");

    // Quorvex's answers, the yardstick for the others.
    std::vector<Reference> references(keywords.size());
    for (size_t k = 0; k < keywords.size(); ++k) {
        contenders[0]->search(keywords[k].text, LIMITS[0]);
        references[k].first = contenders[0]->answer_keys();
        contenders[0]->search(keywords[k].text, LIMITS[FULL]);
        references[k].full = contenders[0]->answer_keys();
        references[k].cut = references[k].full.size() >= LIMITS[FULL];
        report.quorvex_cut += references[k].cut ? 1 : 0;
        contenders[0]->release();
        // Folding may find what no key holds as typed.
        if (!options.folded && keywords[k].kind == KeywordKind::Absent && !references[k].full.empty()) {
            throw std::logic_error("the absent keyword \"" + keywords[k].text + "\" was found");
        }
    }
    for (size_t c = 0; c < contenders.size(); ++c) {
        report.contenders[c].remark = contenders[c]->examine(keywords, references);
    }
    progress("references taken");

    // One untimed pass per contender and limit first: it warms the
    // contender up and checks its answers, outside any timed loop.
    for (size_t l = 0; l < LIMIT_COUNT; ++l) {
        for (size_t c = 0; c < contenders.size(); ++c) {
            ContenderFigures& figures = report.contenders[c];
            LimitFigures& limit = figures.limits[l];
            limit.samples.assign(keywords.size(), {});
            limit.results.assign(keywords.size(), 0);
            Contender& contender = *contenders[c];
            for (size_t k = 0; k < keywords.size(); ++k) {
                if (!contender.supports(keywords[k])) {
                    continue;
                }
                limit.results[k] = contender.search(keywords[k].text, LIMITS[l]);
                if (c != 0 && figures.checked != Contender::Checked::Not) {
                    check_answer(contender, l, contender.answer_keys(), references[k], keywords[k].text, dictionary,
                                 limit.agreement);
                }
                contender.release();
            }
        }
    }
    progress("answers checked");

    // The timed searches. Each pass runs every contender over all keywords,
    // limit by limit, one contender after the other, so each sees its own
    // data in the caches as an application using only it would; passes
    // spread every contender over the run's time. Each call is timed on its
    // own.
    for (int pass = 0; pass < options.passes; ++pass) {
        for (size_t l = 0; l < LIMIT_COUNT; ++l) {
            for (size_t c = 0; c < contenders.size(); ++c) {
                ContenderFigures& figures = report.contenders[c];
                Contender& contender = *contenders[c];
                LimitFigures& limit = figures.limits[l];
                Clock::time_point pass_start = Clock::now();
                for (size_t k = 0; k < keywords.size(); ++k) {
                    if (!contender.supports(keywords[k])) {
                        continue;
                    }
                    Clock::time_point call_start = Clock::now();
                    contender.search(keywords[k].text, LIMITS[l]);
                    Clock::time_point call_stop = Clock::now();
                    limit.samples[k].push_back(std::chrono::duration<double, std::micro>(call_stop - call_start).count());
                    contender.release();
                }
                progress("pass " + std::to_string(pass + 1) + " " + figures.name + " limit " +
                         std::to_string(LIMITS[l]) + ": " + std::to_string(seconds_since(pass_start)) + " s");
            }
        }
    }
    for (auto& contender : contenders) {
        contender->unload();
    }
    for (size_t l = 0; l < LIMIT_COUNT && options.slowest > 0; ++l) {
        std::vector<double> latencies = report.contenders[0].limits[l].latencies_us();
        std::vector<size_t> order(keywords.size());
        for (size_t k = 0; k < order.size(); ++k) {
            order[k] = k;
        }
        std::sort(order.begin(), order.end(), [&](size_t a, size_t b) { return latencies[a] > latencies[b]; });
        order.resize(std::min(order.size(), options.slowest));
        for (size_t k : order) {
            progress("slow at limit " + std::to_string(LIMITS[l]) + ": \"" + keywords[k].text + "\" " +
                     std::to_string(latencies[k]) + " us, " +
                     std::to_string(report.contenders[0].limits[l].results[k]) + " result(s)");
        }
    }
    report.load_after = load_average();
    report.seconds = seconds_since(start);
    return report;
}

// ---- Output -----------------------------------------------------------------

std::string with_thousands(uint64_t value) {
    std::string digits = std::to_string(value);
    std::string text;
    for (size_t i = 0; i < digits.size(); ++i) {
        if (i != 0 && (digits.size() - i) % 3 == 0) {
            text += ',';
        }
        text += digits[i];
    }
    return text;
}

std::string format(const char* pattern, double value) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, pattern, value);
    return buffer;
}

// Three significant digits or whole numbers: 1.23, 12.3, 123, 1,234.
std::string figure(double value) {
    if (value < 10) {
        return format("%.2f", value);
    }
    if (value < 100) {
        return format("%.1f", value);
    }
    return with_thousands(static_cast<uint64_t>(std::llround(value)));
}

std::string mebibytes(uint64_t bytes) { return format("%.1f", static_cast<double>(bytes) / (1024.0 * 1024.0)); }

struct Group {
    const char* title;
    bool (*contains)(const Keyword&);
};

const Group GROUPS[] = {
    {"1 char", [](const Keyword& k) { return k.kind == KeywordKind::Present && k.code_points == 1; }},
    {"2 chars", [](const Keyword& k) { return k.kind == KeywordKind::Present && k.code_points == 2; }},
    {"3-6 chars", [](const Keyword& k) { return k.kind == KeywordKind::Present && k.code_points >= 3; }},
    {"absent", [](const Keyword& k) { return k.kind == KeywordKind::Absent; }},
};

size_t group_size(const DictionaryReport& report, const Group& group) {
    return static_cast<size_t>(std::count_if(report.keywords.begin(), report.keywords.end(), group.contains));
}

std::vector<bool> members(const DictionaryReport& report, const Group& group) {
    std::vector<bool> chosen;
    for (const Keyword& keyword : report.keywords) {
        chosen.push_back(group.contains(keyword));
    }
    return chosen;
}

// The group's median latency, "-" when the contender was asked none of it.
// The median of the group's keyword latencies, or their 99th percentile.
std::string group_figure(const DictionaryReport& report, const LimitFigures& limit, const Group& group,
                         double q = 0.5) {
    std::vector<bool> chosen = members(report, group);
    std::vector<double> latencies = limit.latencies_us(&chosen);
    return latencies.empty() ? "-" : figure(q == 0.5 ? median_of(latencies) : percentile(latencies, q));
}

// Quorvex's cost per returned result at 65535: the sum of the per-keyword
// latencies over the sum of their results, for keywords with results.
double nanoseconds_per_result(const ContenderFigures& quorvex) {
    const LimitFigures& limit = quorvex.limits[FULL];
    std::vector<double> latencies = limit.latencies_us();
    double microseconds = 0;
    double results = 0;
    for (size_t k = 0, asked = 0; k < limit.samples.size(); ++k) {
        if (limit.samples[k].empty()) {
            continue;
        }
        if (limit.results[k] > 0) {
            microseconds += latencies[asked];
            results += static_cast<double>(limit.results[k]);
        }
        ++asked;
    }
    return results == 0 ? 0 : microseconds * 1e3 / results;
}

std::string describe(const DictionaryReport& report) {
    std::ostringstream out;
    out << with_thousands(report.items) << " items (" << with_thousands(report.invalid) << " invalid skipped, "
        << with_thousands(report.merged) << " merged"
        << (report.folded ? ", " + with_thousands(report.refused) + " refused by IndexBuilder" : std::string())
        << "), keys " << mebibytes(report.key_bytes) << " MiB, values "
        << mebibytes(report.value_bytes) << " MiB, " << with_thousands(report.shortened_keys)
        << " key(s) longer than 254 bytes; keywords: " << with_thousands(report.keywords.size() - ABSENT_KEYWORDS)
        << " present (";
    for (size_t g = 0; g < 3; ++g) {
        out << (g ? ", " : "") << group_size(report, GROUPS[g]) << " of " << GROUPS[g].title;
    }
    out << ") + " << group_size(report, GROUPS[3]) << (report.folded ? " absent as typed" : " absent");
    return out.str();
}

// The folded comparison: Quorvex's folded index against each other
// contender on the keywords that contender was asked.
struct PeerFigures {
    std::string name;
    size_t keywords = 0;
    double folded[LIMIT_COUNT][2] = {};  // median, p99 of quorvex folded
    double peer[LIMIT_COUNT][2] = {};
    double folded_results = 0;  // mean results at 65535 over the same keywords
    double peer_results = 0;
};

double mean_results_of(const LimitFigures& limit, const std::vector<bool>& chosen) {
    double sum = 0;
    size_t count = 0;
    for (size_t k = 0; k < chosen.size(); ++k) {
        if (chosen[k]) {
            sum += static_cast<double>(limit.results[k]);
            ++count;
        }
    }
    return count == 0 ? 0 : sum / static_cast<double>(count);
}

std::vector<PeerFigures> folded_peers(const DictionaryReport& report) {
    std::vector<PeerFigures> peers;
    const ContenderFigures& folded = report.contenders.front();
    for (size_t c = 1; c < report.contenders.size(); ++c) {
        const ContenderFigures& other = report.contenders[c];
        PeerFigures peer;
        peer.name = other.name;
        std::vector<bool> asked;
        for (const std::vector<double>& row : other.limits[0].samples) {
            asked.push_back(!row.empty());
            peer.keywords += row.empty() ? 0 : 1;
        }
        for (size_t l = 0; l < LIMIT_COUNT; ++l) {
            std::vector<double> mine = folded.limits[l].latencies_us(&asked);
            std::vector<double> theirs = other.limits[l].latencies_us();
            peer.folded[l][0] = percentile(mine, 0.5);
            peer.folded[l][1] = percentile(mine, 0.99);
            peer.peer[l][0] = percentile(theirs, 0.5);
            peer.peer[l][1] = percentile(theirs, 0.99);
        }
        peer.folded_results = mean_results_of(folded.limits[FULL], asked);
        peer.peer_results = mean_results_of(other.limits[FULL], asked);
        peers.push_back(peer);
    }
    return peers;
}

std::string ratio(double numerator, double denominator) {
    return denominator > 0 ? format("%.2f", numerator / denominator) : "-";
}

// One table: each peer's median and p99 beside Quorvex folded's on the same
// keywords, and folded over peer; then the builds.
void write_folded_peers(std::ostream& out, const DictionaryReport& report) {
    out << "| Peer | Keywords |";
    for (uint32_t limit : LIMITS) {
        out << " L" << limit << " median folded / peer | ratio | L" << limit << " p99 folded / peer | ratio |";
    }
    out << " L65535 results folded / peer |\n|---|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|\n";
    for (const PeerFigures& peer : folded_peers(report)) {
        out << "| " << peer.name << " | " << peer.keywords << " |";
        for (size_t l = 0; l < LIMIT_COUNT; ++l) {
            for (size_t q = 0; q < 2; ++q) {
                out << " " << figure(peer.folded[l][q]) << " / " << figure(peer.peer[l][q]) << " | "
                    << ratio(peer.folded[l][q], peer.peer[l][q]) << " |";
            }
        }
        out << " " << figure(peer.folded_results) << " / " << figure(peer.peer_results) << " |\n";
    }
    const ContenderFigures& folded = report.contenders.front();
    out << "\nBuilds (s, median of " << BUILD_ROUNDS << "): quorvex folded " << format("%.3f", folded.build_seconds);
    for (const ContenderFigures& c : report.contenders) {
        if (&c != &folded) {
            out << "; " << c.name << " " << format("%.3f", c.build_seconds) << " (folded / it "
                << ratio(folded.build_seconds, c.build_seconds) << ")";
        }
    }
    out << ".\n";
}

void print_console(const DictionaryReport& report) {
    std::printf("\n%s: %s\n", report.name.c_str(), describe(report).c_str());
    std::printf("load average %s before, %s after; %.0f s\n", report.load_before.c_str(), report.load_after.c_str(),
                report.seconds);
    std::printf("%-20s %6s %8s %9s %9s | %-36s | %-36s | %-11s %-11s\n", "", "passes", "build s", "disk MiB", "load ms",
                "limit 20: median / p99 / max us, res", "limit 65535: median / p99 / max us, res", "same@65535",
                "same@20");
    for (const ContenderFigures& c : report.contenders) {
        std::string cells[LIMIT_COUNT];
        for (size_t l = 0; l < LIMIT_COUNT; ++l) {
            std::vector<double> latencies = c.limits[l].latencies_us();
            cells[l] = figure(percentile(latencies, 0.5)) + " / " + figure(percentile(latencies, 0.99)) + " / " +
                       figure(percentile(latencies, 1.0)) + ", " + figure(c.limits[l].mean_results());
        }
        bool reference = &c == &report.contenders.front();
        std::printf("%-20s %6d %8.2f %9s %9.1f | %-36s | %-36s | %-11s %-11s\n", c.name.c_str(), c.passes,
                    c.build_seconds, mebibytes(c.disk_bytes).c_str(), c.load_ms, cells[0].c_str(), cells[1].c_str(),
                    reference ? "reference" : c.limits[FULL].agreement.summary().c_str(),
                    reference ? "reference" : c.limits[0].agreement.summary().c_str());
    }
    for (const ContenderFigures& c : report.contenders) {
        for (size_t l = 0; l < LIMIT_COUNT; ++l) {
            if (!c.limits[l].agreement.first_difference.empty()) {
                std::printf("  %s differs at limit %u, first: %s\n", c.name.c_str(), LIMITS[l],
                            c.limits[l].agreement.first_difference.c_str());
            }
        }
        if (!c.remark.empty()) {
            std::printf("  %s: %s\n", c.name.c_str(), c.remark.c_str());
        }
    }
    for (double q : {0.5, 0.99}) {
        std::printf("%s us by keyword kind (limit 20 | limit 65535):\n", q == 0.5 ? "median" : "p99");
        for (const ContenderFigures& c : report.contenders) {
            std::printf("  %-20s", c.name.c_str());
            for (size_t l = 0; l < LIMIT_COUNT; ++l) {
                for (const Group& group : GROUPS) {
                    std::printf(" %s %8s", group.title, group_figure(report, c.limits[l], group, q).c_str());
                }
                std::printf(l == 0 ? " |" : "\n");
            }
        }
    }
    std::printf("quorvex: %.1f ns per returned result at limit 65535; %zu answer(s) cut at 65535\n",
                nanoseconds_per_result(report.contenders.front()), report.quorvex_cut);
    if (report.folded) {
        std::ostringstream peers;
        write_folded_peers(peers, report);
        std::printf("%s", peers.str().c_str());
        return;
    }
    std::printf("quorvex: load %.1f ms, plain read of its four files %.1f ms (%.2fx); opened mapped %.2f ms\n",
                report.contenders.front().load_ms, report.read_ms, report.contenders.front().load_ms / report.read_ms,
                report.mapped_ms);
}

void write_markdown(const std::vector<DictionaryReport>& reports, const Options& options, const std::string& path) {
    std::ofstream out(path);
    out << "Timed passes over the keywords: " << options.passes << " for every contender, after one untimed pass "
        << "that warms it up and checks its answers. Latencies in microseconds. " << contender_versions() << ".\n";
    for (const DictionaryReport& report : reports) {
        out << "\n### " << report.name << "\n\n" << describe(report) << ". Load average " << report.load_before
            << " before, " << report.load_after << " after (" << format("%.0f", report.seconds) << " s).\n\n";
        out << "| Contender | Build s | On disk MiB | Load ms | L20 median | L20 p99 | L20 max | L20 results | "
               "L65535 median | L65535 p99 | L65535 max | L65535 results | Same keys, L65535 | Same answer, L20 |\n";
        out << "|---|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|\n";
        for (const ContenderFigures& c : report.contenders) {
            bool reference = &c == &report.contenders.front();
            out << "| " << c.name << " | " << format("%.2f", c.build_seconds) << " | " << mebibytes(c.disk_bytes) << " | "
                << figure(c.load_ms);
            for (size_t l = 0; l < LIMIT_COUNT; ++l) {
                std::vector<double> latencies = c.limits[l].latencies_us();
                out << " | " << figure(percentile(latencies, 0.5)) << " | " << figure(percentile(latencies, 0.99))
                    << " | " << figure(percentile(latencies, 1.0)) << " | " << figure(c.limits[l].mean_results());
            }
            for (size_t l : {FULL, size_t{0}}) {
                const Agreement& agreement = c.limits[l].agreement;
                out << " | " << (reference ? "reference" : agreement.summary());
            }
            out << " |\n";
        }
        for (double q : {0.5, 0.99}) {
            out << "\n" << (q == 0.5 ? "Median latency" : "99th percentile") << " by keyword kind, limit 20 / limit "
                << "65535:\n\n| Contender |";
            for (const Group& group : GROUPS) {
                out << " " << group.title << " (" << group_size(report, group) << ") |";
            }
            out << "\n|---|--:|--:|--:|--:|\n";
            for (const ContenderFigures& c : report.contenders) {
                out << "| " << c.name << " |";
                for (const Group& group : GROUPS) {
                    out << " " << group_figure(report, c.limits[0], group, q) << " / "
                        << group_figure(report, c.limits[FULL], group, q) << " |";
                }
                out << "\n";
            }
        }
        out << "\nQuorvex: " << format("%.1f", nanoseconds_per_result(report.contenders.front()))
            << " ns per returned result at limit 65535; " << report.quorvex_cut
            << " answer(s) filled the limit of 65535 (not compared at that limit).";
        if (report.folded) {
            out << " Quorvex folded beside each peer, on the keywords the peer was asked (microseconds):\n\n";
            write_folded_peers(out, report);
        } else {
            out << " Load "
            << figure(report.contenders.front().load_ms) << " ms against " << figure(report.read_ms)
            << " ms to read its four files plainly into memory (" << format("%.2f", report.contenders.front().load_ms / report.read_ms)
            << "x); opened mapped instead (`from_directory_mapped`), " << format("%.2f", report.mapped_ms)
            << " ms to the same first answer (medians of " << LOAD_ROUNDS << " rounds).\n";
        }
        for (const ContenderFigures& c : report.contenders) {
            for (size_t l = 0; l < LIMIT_COUNT; ++l) {
                const Agreement& agreement = c.limits[l].agreement;
                if (!agreement.first_difference.empty()) {
                    out << "\n" << c.name << " differs at limit " << LIMITS[l] << ", first: " << agreement.first_difference
                        << "\n";
                }
            }
            if (!c.remark.empty()) {
                out << "\n" << c.name << ": " << c.remark << ".\n";
            }
        }
    }
    if (!out) {
        throw std::runtime_error(path + ": write failed");
    }
}

// One block per dictionary, limit and contender (in that nesting), blocks
// separated by two blank lines for gnuplot's `index`: the per-keyword
// latencies sorted, each with the fraction of keywords at or below it.
void write_plot_data(const std::vector<DictionaryReport>& reports, const std::string& path) {
    std::ofstream out(path);
    out << "# dictionaries:";
    for (const DictionaryReport& report : reports) {
        out << " " << report.name;
    }
    out << "\n# limits: " << LIMITS[0] << " " << LIMITS[1] << "\n# contenders:";
    for (const ContenderFigures& c : reports.front().contenders) {
        out << " " << directory_name(c.name);
    }
    out << "\n";
    bool first = true;
    for (const DictionaryReport& report : reports) {
        for (size_t l = 0; l < LIMIT_COUNT; ++l) {
            for (const ContenderFigures& c : report.contenders) {
                out << (first ? "" : "\n\n") << "# " << report.name << " limit " << LIMITS[l] << " " << c.name << "\n";
                first = false;
                std::vector<double> latencies = c.limits[l].latencies_us();
                std::sort(latencies.begin(), latencies.end());
                for (size_t i = 0; i < latencies.size(); ++i) {
                    out << format("%.3f", latencies[i]) << " "
                        << format("%.5f", static_cast<double>(i + 1) / static_cast<double>(latencies.size())) << "\n";
                }
            }
        }
    }
    if (!out) {
        throw std::runtime_error(path + ": write failed");
    }
}

// ---- Self-check -------------------------------------------------------------

struct Case {
    std::string keyword;
    std::vector<uint32_t> expected;  // the reference's answer, limit 65535
    // For contenders whose differences are counted (Checked::Counted): the
    // keys they find, when it is not `expected`.
    std::vector<uint32_t> own = {};
    // For those not compared in the timed run (Checked::Not): their answer.
    std::vector<uint32_t> exact = {};
};

// Builds, loads and verifies each contender on `dictionary` and asks it
// every case at limits 20, 65535 and 5 (where supported). A contender in
// the index's order must give the expected list, cut at the limit; one with
// an order of its own distinct keys of the expected ones, as many as the
// limit lets through. The first difference stops the program.
void check_cases(const std::vector<std::unique_ptr<Contender>>& contenders, const Dictionary& dictionary,
                 const std::vector<Case>& cases) {
    TemporaryDirectory temporary;
    for (const auto& contender : contenders) {
        std::string directory = temporary.make(directory_name(contender->name()));
        contender->build(dictionary, directory);
        contender->load(directory);
        contender->verify(dictionary);
        for (const Case& item : cases) {
            if (!contender->supports(Keyword{item.keyword, code_point_count(item.keyword)})) {
                continue;
            }
            Contender::Checked checked = contender->checked();
            const std::vector<uint32_t>& whole = checked == Contender::Checked::Counted ? item.own
                                                 : checked == Contender::Checked::Not   ? item.exact
                                                                                        : item.expected;
            for (uint32_t limit : {LIMITS[0], LIMITS[1], uint32_t{5}}) {
                contender->search(item.keyword, limit);
                std::vector<uint32_t> answer = contender->answer_keys();
                contender->release();
                std::vector<uint32_t> expected(whole.begin(), whole.begin() + std::min<size_t>(limit, whole.size()));
                bool same;
                if (contender->index_order()) {
                    same = answer == expected;
                } else {
                    std::set<uint32_t> all(whole.begin(), whole.end());
                    std::set<uint32_t> got(answer.begin(), answer.end());
                    same = got.size() == answer.size() && answer.size() == std::min<size_t>(limit, all.size()) &&
                           std::includes(all.begin(), all.end(), got.begin(), got.end());
                }
                if (!same) {
                    throw std::logic_error("self-check: " + contender->name() + " answers \"" + item.keyword +
                                           "\" at limit " + std::to_string(limit) + " with " +
                                           std::to_string(answer.size()) + " result(s), expected " +
                                           std::to_string(expected.size()));
                }
            }
        }
        contender->unload();
    }
}

// A small dictionary whose answers are worked out by hand, run through every
// contender before anything is timed. It covers what the real dictionaries
// might not show clearly: characters that are special to LIKE and GLOB,
// case, overlapping occurrences, several positions in one key, multi-byte
// characters, and a key longer than 254 bytes whose tail the index does not
// search.
void self_check() {
    // 130 times é and a q: 261 bytes, of which the index stores the first
    // 127 é (254 bytes).
    std::string long_key;
    for (int i = 0; i < 130; ++i) {
        long_key += "\xC3\xA9";
    }
    long_key += "q";
    // Key numbers in byte order: 0 "%_*?[]", 1 "Ab", 2 "[x]", 3 "a%b",
    // 4 "a_b", 5 "aaa", 6 "ab", 7 "b*a", 8 "ba?", 9 "bab", 10 the long key.
    std::vector<std::string> keys = {"bab", "a%b", "aaa", "%_*?[]", "Ab", "[x]", "a_b", "ab", "b*a", "ba?", long_key};
    std::vector<std::string> values;
    for (const std::string& key : keys) {
        values.push_back("value of " + key);
    }
    Dictionary dictionary = make_dictionary("self-check", keys, values);

    std::vector<uint32_t> many_e(126, 10);  // "éé" at positions 0..125 of the stored 127
    const std::vector<Case> cases = {
        {"a", {3, 4, 5, 6, 5, 8, 9, 5, 7}},
        {"aa", {5, 5}},
        {"b", {7, 8, 9, 1, 6, 3, 4, 9}},
        {"ab", {6, 9}},
        {"bab", {9}},
        {"A", {1}},
        {"%", {0, 3}},
        {"_", {0, 4}},
        {"*", {7, 0}},
        {"?", {8, 0}},
        {"[", {2, 0}},
        {"]", {2, 0}},
        {"[x]", {2}},
        {"\xC3\xA9\xC3\xA9", many_e},
        {"q", {}},
        {"\xC3\xA9q", {}},
        {"zzz", {}},
    };

    check_cases(all_contenders(false), dictionary, cases);
}

// The same for the folded comparison: keys that fold alike (case, ß,
// diacritics, katakana and its half-width form), a quote for FTS5's
// phrase syntax. FTS5 folds case only, and not ß or kana, so its own answers
// are given beside, and the exact index's.
void folded_self_check() {
    // Key numbers in byte order: 0 "Gasthaus", 1 "HAUSTÜR", 2 "Haus",
    // 3 "Häuser", 4 "Say \"Hi\"", 5 "Straße", 6 "haus", 7 "こーひー",
    // 8 "コーヒー", 9 "ｺｰﾋｰ". Folded: "haus" holds 2 and 6; "こーひー" 7, 8, 9.
    std::vector<std::string> keys = {"haus", "Haus", "Häuser", "HAUSTÜR", "Gasthaus", "Straße", "Say \"Hi\"",
                                     "こーひー", "コーヒー", "ｺｰﾋｰ"};
    std::vector<std::string> values;
    for (const std::string& key : keys) {
        values.push_back("value of " + key);
    }
    Dictionary dictionary = make_dictionary("folded-self-check", keys, values);
    // Entries by position, then folded key order; within one, the keys that
    // hold the keyword as typed first, then input (key number) order.
    const std::vector<Case> cases = {
        {"haus", {6, 2, 3, 1, 0}, {0, 1, 2, 6}, {6, 0}},
        {"HAUS", {2, 6, 3, 1, 0}, {0, 1, 2, 6}, {1}},
        {"hä", {2, 6, 3, 1, 0}, {}, {}},
        {"HÄUS", {2, 6, 3, 1, 0}, {3}, {}},
        {"ｺｰﾋｰ", {9, 7, 8}, {9}, {9}},
        {"STRASSE", {5}, {}, {}},
        {"\"hi\"", {4}, {4}, {}},
        {"xyz", {}, {}, {}},
    };
    check_cases(all_contenders(true), dictionary, cases);
}

}  // namespace

int main(int argc, char** argv) {
    Options options = parse_options(argc, argv);
    try {
        self_check();
        folded_self_check();
        progress("self-check passed");
        std::vector<DictionaryReport> reports;
        for (const std::string& path : options.dictionaries) {
            reports.push_back(run_dictionary(path, options));
            print_console(reports.back());
            std::fflush(stdout);
        }
        std::printf("\n%s\n", contender_versions().c_str());
        if (!options.markdown_path.empty()) {
            write_markdown(reports, options, options.markdown_path);
        }
        if (!options.plot_path.empty()) {
            write_plot_data(reports, options.plot_path);
        }
        for (const DictionaryReport& report : reports) {
            for (const ContenderFigures& c : report.contenders) {
                for (const LimitFigures& limit : c.limits) {
                    if (c.checked == Contender::Checked::Must && limit.agreement.agreed != limit.agreement.compared) {
                        progress("some answers differ from Quorvex's; see the table");
                        return 1;
                    }
                }
            }
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "quorvex_bench_compare: %s\n", error.what());
        return 1;
    }
    return 0;
}
