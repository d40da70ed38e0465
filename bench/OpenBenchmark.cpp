// Opening an index mapped (IndexReader::from_directory_mapped) against
// reading it whole (IndexReader::from_directory), on an index the quorvex
// tool built, warm page cache. Three parts, each run on its own so that one
// does not leave its memory to the next:
//
//   quorvex_bench_open open DIR     open times, median and p99 over many opens
//   quorvex_bench_open first DIR    the process's first open alone (run it many times)
//   quorvex_bench_open check DIR    what checking every key and value record at open would cost
//   quorvex_bench_open memory DIR   resident memory with 1 and with N readers
//   quorvex_bench_open search DIR   search latency, mapped against whole
//
// bench/README.md ("Opening an index") says what each figure means.

#include <malloc.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "CompareData.h"
#include "Records.h"
#include "Reader/IndexReader.h"

namespace {

using Lexarium::Bench::Compare::Keyword;
using Lexarium::Reader::IndexReader;
using Lexarium::Reader::SearchResult;

typedef std::chrono::steady_clock Clock;
typedef Rc<std::vector<Rc<SearchResult>>> Results;

// The comparison benchmark's seeds, so the keywords are the ones it asks.
constexpr uint64_t PRESENT_SEED = 0x6b6579776f726473ULL;
constexpr uint64_t ABSENT_SEED = 0x6e6f776865726521ULL;
constexpr size_t ABSENT_KEYWORDS = 100;
constexpr uint16_t LIMITS[] = {20, 65535};

struct Options {
    std::string mode;
    std::string directory;
    int rounds = 5;
    int opens = 200;       // mapped opens per variant and round
    int whole_opens = 10;  // whole-file opens per round
    int readers = 10;
    bool whole = false;  // memory: readers made by from_directory
    int limit = 0;       // memory: search at this limit only (0: at 20 and at 65535)
    size_t keywords = 1000;
    int passes = 5;
};

[[noreturn]] void usage(const std::string& problem) {
    if (!problem.empty()) {
        std::fprintf(stderr, "quorvex_bench_open: %s\n", problem.c_str());
    }
    std::fprintf(stderr,
                 "usage: quorvex_bench_open open|first|check|memory|search INDEX_DIR [options]\n"
                 "  open:   --rounds N (5) --opens N (200 mapped opens per variant and round)\n"
                 "          --whole-opens N (10 from_directory opens per round)\n"
                 "  memory: --readers N (10) --whole (readers made by from_directory) --keywords N (1000)\n"
                 "          --limit N (search at N only; both 20 and 65535 without it)\n"
                 "  search: --keywords N (1000) --passes N (5)\n");
    std::exit(2);
}

Options parse(int argc, char** argv) {
    Options options;
    std::vector<std::string> positional;
    for (int i = 1; i < argc; ++i) {
        std::string argument = argv[i];
        auto number = [&]() -> long {
            if (i + 1 >= argc) {
                usage(argument + " needs a number");
            }
            char* end = nullptr;
            long value = std::strtol(argv[++i], &end, 10);
            if (*end != '\0' || value < 1) {
                usage(argument + " needs a positive number");
            }
            return value;
        };
        if (argument == "--rounds") {
            options.rounds = static_cast<int>(number());
        } else if (argument == "--opens") {
            options.opens = static_cast<int>(number());
        } else if (argument == "--whole-opens") {
            options.whole_opens = static_cast<int>(number());
        } else if (argument == "--readers") {
            options.readers = static_cast<int>(number());
        } else if (argument == "--keywords") {
            options.keywords = static_cast<size_t>(number());
        } else if (argument == "--limit") {
            options.limit = static_cast<int>(std::min(number(), 65535L));
        } else if (argument == "--passes") {
            options.passes = static_cast<int>(number());
        } else if (argument == "--whole") {
            options.whole = true;
        } else if (argument == "--help" || argument == "-h") {
            usage("");
        } else if (!argument.empty() && argument[0] == '-') {
            usage("unknown option " + argument);
        } else {
            positional.push_back(argument);
        }
    }
    if (positional.size() != 2) {
        usage("expected a mode and an index directory");
    }
    options.mode = positional[0];
    options.directory = positional[1];
    return options;
}

double elapsed_us(Clock::time_point start) {
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

// Percentile `q` of `samples` by nearest rank.
double percentile(std::vector<double> samples, double q) {
    if (samples.empty()) {
        return 0;
    }
    std::sort(samples.begin(), samples.end());
    size_t rank = static_cast<size_t>(std::ceil(q * static_cast<double>(samples.size())));
    return samples[std::max<size_t>(rank, 1) - 1];
}

Rc<IndexReader> open_mapped(const std::string& directory) {
    std::string error;
    Rc<IndexReader> reader = IndexReader::from_directory_mapped(directory, &error);
    if (reader.is_null()) {
        throw std::runtime_error(error);
    }
    return reader;
}

// The stored keys of the index, in key order: key.bin walked record by
// record with the codec. The file is read into memory and let go again.
std::vector<std::string> stored_keys(const std::string& directory) {
    Rc<ByteArray> blob = Lexarium::Reader::read_file(directory + "/key.bin");
    std::vector<std::string> keys;
    for (uint64_t offset = 0; offset < blob->length;) {
        Lexarium::Records::Key key;
        if (!Lexarium::Records::decode_from(*blob, offset, key)) {
            throw std::runtime_error(directory + "/key.bin: a key record at offset " + std::to_string(offset) +
                                     " runs past the end");
        }
        keys.emplace_back(reinterpret_cast<const char*>(key.text), key.length);
        offset += key.size();
    }
    return keys;
}

// Pieces of stored keys and keywords found nowhere, as the comparison
// benchmark makes them.
std::vector<std::string> make_keywords(const std::string& directory, size_t count) {
    std::vector<std::string> keys = stored_keys(directory);
    std::vector<std::string> keywords;
    for (const Keyword& keyword : Lexarium::Bench::Compare::present_keywords(keys, count, PRESENT_SEED)) {
        keywords.push_back(keyword.text);
    }
    for (const Keyword& keyword : Lexarium::Bench::Compare::absent_keywords(keys, ABSENT_KEYWORDS, ABSENT_SEED)) {
        keywords.push_back(keyword.text);
    }
    return keywords;
}

// ---- open -------------------------------------------------------------------

// Involuntary context switches of the calling thread so far: an open
// during which this grows was taken off the CPU for another process.
long preemptions() {
    struct rusage usage;
    return getrusage(RUSAGE_THREAD, &usage) == 0 ? usage.ru_nivcsw : 0;
}

// Minor page faults of the calling thread so far: pages mapped in on first
// touch, the part of an open that depends on what the process did before.
long minor_faults() {
    struct rusage usage;
    return getrusage(RUSAGE_THREAD, &usage) == 0 ? usage.ru_minflt : 0;
}

struct OpenSamples {
    std::string name;
    std::vector<double> us;
    std::vector<double> undisturbed_us;  // the opens that kept the CPU throughout
    long faults = 0;

    template <typename Open>
    void time(Open&& open) {
        long before = preemptions();
        long faults_before = minor_faults();
        Clock::time_point start = Clock::now();
        open();
        double us = elapsed_us(start);
        this->faults += minor_faults() - faults_before;
        this->us.push_back(us);
        if (preemptions() == before) {
            this->undisturbed_us.push_back(us);
        }
    }
};

void print_samples(const OpenSamples& samples) {
    std::printf("%-34s %7zu opens  median %9.1f us  p99 %9.1f us  min %9.1f us  max %9.1f us\n",
                samples.name.c_str(), samples.us.size(), percentile(samples.us, 0.5), percentile(samples.us, 0.99),
                percentile(samples.us, 0), percentile(samples.us, 1));
    std::printf("%-34s %7zu opens  median %9.1f us  p99 %9.1f us  (%zu preempted left out; %.1f faults per open)\n",
                "  never preempted", samples.undisturbed_us.size(), percentile(samples.undisturbed_us, 0.5),
                percentile(samples.undisturbed_us, 0.99), samples.us.size() - samples.undisturbed_us.size(),
                static_cast<double>(samples.faults) / static_cast<double>(samples.us.size()));
}

// Each open is timed on its own; releasing the reader is not timed. Rounds
// take the variants in turn, so a busy moment of the machine falls on all
// of them. A "first" open finds no live reader of the index in the process:
// the shared mapping went with the last reader, so the open maps the four
// files and walks table.bin again. A "second" open is made while another
// mapped reader of the same files lives and shares its mapping.
int run_open(const Options& options) {
    OpenSamples very_first{"mapped, first of the process", {}, {}};
    OpenSamples first{"mapped, first (no reader alive)", {}, {}};
    OpenSamples second{"mapped, second (one reader alive)", {}, {}};
    OpenSamples whole{"from_directory (whole read)", {}, {}};

    Rc<IndexReader> reader;
    very_first.time([&] { reader = open_mapped(options.directory); });
    reader = Rc<IndexReader>();

    for (int round = 0; round < options.rounds; ++round) {
        for (int i = 0; i < options.whole_opens; ++i) {
            whole.time([&] { reader = IndexReader::from_directory(options.directory); });
            reader = Rc<IndexReader>();
        }
        for (int i = 0; i < options.opens; ++i) {
            first.time([&] { reader = open_mapped(options.directory); });
            reader = Rc<IndexReader>();
        }
        Rc<IndexReader> alive = open_mapped(options.directory);
        for (int i = 0; i < options.opens; ++i) {
            second.time([&] { reader = open_mapped(options.directory); });
            if (reader->key_bytes->data != alive->key_bytes->data) {
                throw std::logic_error("a second reader did not share the first one's mapping");
            }
            reader = Rc<IndexReader>();
        }
    }
    std::printf("open %s, %d rounds, warm page cache\n", options.directory.c_str(), options.rounds);
    for (const OpenSamples* samples : {&very_first, &first, &second, &whole}) {
        print_samples(*samples);
    }
    std::printf("whole / mapped first, medians: %.0fx\n", percentile(whole.us, 0.5) / percentile(first.us, 0.5));
    return 0;
}

// The first mapped open of the process and nothing else, in microseconds:
// what a program that opens one index once pays. One sample per process;
// scripts/measure-open.sh runs it many times.
int run_first(const Options& options) {
    long before = preemptions();
    long faults_before = minor_faults();
    Clock::time_point start = Clock::now();
    Rc<IndexReader> reader = open_mapped(options.directory);
    double us = elapsed_us(start);
    long faults = minor_faults() - faults_before;
    std::printf("first mapped open of the process: %.1f us (%ld minor faults)%s\n", us, faults,
                preemptions() == before ? "" : " preempted");
    return 0;
}

// ---- memory -----------------------------------------------------------------

// One line of /proc/self/status or /proc/self/smaps_rollup, in KiB; -1 when
// the file or the line is missing.
long proc_kib(const char* file, const char* field) {
    std::ifstream in(file);
    std::string line;
    size_t length = std::strlen(field);
    while (std::getline(in, line)) {
        if (line.compare(0, length, field) == 0 && line.size() > length && line[length] == ':') {
            return std::strtol(line.c_str() + length + 1, nullptr, 10);
        }
    }
    return -1;
}

void print_memory(const std::string& when) {
    std::printf("%-44s RSS %8ld KiB (anon %7ld, file %7ld)  PSS %8ld KiB (anon %7ld, file %7ld)\n", when.c_str(),
                proc_kib("/proc/self/status", "VmRSS"), proc_kib("/proc/self/status", "RssAnon"),
                proc_kib("/proc/self/status", "RssFile"), proc_kib("/proc/self/smaps_rollup", "Pss"),
                proc_kib("/proc/self/smaps_rollup", "Pss_Anon"), proc_kib("/proc/self/smaps_rollup", "Pss_File"));
}

uint64_t search_all(IndexReader& reader, const std::vector<std::string>& keywords, int only_limit) {
    uint64_t results = 0;
    for (const std::string& keyword : keywords) {
        for (uint16_t limit : LIMITS) {
            results += reader.search(keyword, only_limit != 0 ? static_cast<uint16_t>(only_limit) : limit)->size();
            if (only_limit != 0) {
                break;
            }
        }
    }
    return results;
}

// Resident memory of the whole process before any reader, after one reader
// has answered every keyword at both limits (or at --limit), and after `readers` readers of
// the same index (the first one among them) have each answered them all.
// Results are freed as soon as they are counted.
int run_memory(const Options& options) {
    std::vector<std::string> keywords = make_keywords(options.directory, options.keywords);
    malloc_trim(0);
    auto open = [&]() {
        return options.whole ? IndexReader::from_directory(options.directory) : open_mapped(options.directory);
    };
    const char* kind = options.whole ? "from_directory" : "mapped";
    std::string limits = options.limit != 0 ? "limit " + std::to_string(options.limit) : "limits 20 and 65535";
    std::printf("memory %s, %s readers, %zu keywords at %s\n", options.directory.c_str(), kind, keywords.size(),
                limits.c_str());
    print_memory("before any reader");
    std::vector<Rc<IndexReader>> readers;
    readers.push_back(open());
    uint64_t first_results = search_all(*readers.front(), keywords, options.limit);
    malloc_trim(0);
    print_memory("1 reader, keywords searched");
    long rss_one = proc_kib("/proc/self/status", "VmRSS");
    long pss_one = proc_kib("/proc/self/smaps_rollup", "Pss");
    for (int r = 1; r < options.readers; ++r) {
        readers.push_back(open());
    }
    for (Rc<IndexReader>& reader : readers) {
        if (search_all(*reader, keywords, options.limit) != first_results) {
            throw std::logic_error("a reader of the same index answered differently");
        }
    }
    malloc_trim(0);
    print_memory(std::to_string(options.readers) + " readers, keywords searched on each");
    long rss_many = proc_kib("/proc/self/status", "VmRSS");
    long pss_many = proc_kib("/proc/self/smaps_rollup", "Pss");
    std::printf("%d readers / 1 reader: RSS %.3fx, PSS %.3fx (%llu results per reader)\n", options.readers,
                static_cast<double>(rss_many) / static_cast<double>(rss_one),
                static_cast<double>(pss_many) / static_cast<double>(pss_one),
                static_cast<unsigned long long>(first_results));
    return 0;
}

// What open would cost if it checked every record rather than only the
// table: after a mapped open, every key record of key.bin and the value
// record it points at are decoded with the codec and checked against their
// files, as a search checks the ones it reaches. Prints the time and what it
// did to resident memory: the walk touches every page of both files.
int run_check(const Options& options) {
    Rc<IndexReader> reader;
    double open_us = 0;
    {
        Clock::time_point start = Clock::now();
        reader = open_mapped(options.directory);
        open_us = elapsed_us(start);
    }
    long rss_before = proc_kib("/proc/self/status", "VmRSS");
    long faults_before = minor_faults();
    Clock::time_point start = Clock::now();
    const ByteArray& keys = *reader->key_bytes;
    const ByteArray& data = *reader->data_bytes;
    uint64_t records = 0;
    uint64_t outside = 0;
    uint64_t value_bytes = 0;
    for (uint64_t offset = 0; offset < keys.length;) {
        Lexarium::Records::Key key;
        if (!Lexarium::Records::decode_from(keys, offset, key)) {
            ++outside;
            break;
        }
        Lexarium::Records::Value value;
        if (Lexarium::Records::decode_from(data, key.data_pointer, value)) {
            value_bytes += value.length;
        } else {
            ++outside;
        }
        ++records;
        offset += key.size();
    }
    double check_us = elapsed_us(start);
    long faults = minor_faults() - faults_before;
    long rss_after = proc_kib("/proc/self/status", "VmRSS");
    std::printf("check %s: open %.1f us; every key record and its value record checked: %.1f ms, %llu records "
                "(%llu outside), %llu value bytes, %ld minor faults, RSS %ld -> %ld KiB\n",
                options.directory.c_str(), open_us, check_us / 1e3, static_cast<unsigned long long>(records),
                static_cast<unsigned long long>(outside), static_cast<unsigned long long>(value_bytes), faults,
                rss_before, rss_after);
    return 0;
}

// ---- search -----------------------------------------------------------------

bool same_answer(const Results& a, const Results& b) {
    if (a->size() != b->size()) {
        return false;
    }
    for (size_t i = 0; i < a->size(); ++i) {
        const ByteArray& x = *(*a)[i]->key;
        const ByteArray& y = *(*b)[i]->key;
        const ByteArray& u = *(*a)[i]->value;
        const ByteArray& v = *(*b)[i]->value;
        if (x.length != y.length || std::memcmp(x.data, y.data, x.length) != 0 || u.length != v.length ||
            std::memcmp(u.data, v.data, u.length) != 0) {
            return false;
        }
    }
    return true;
}

// Per-keyword latency of both readers, in one process, on the same keywords.
// Each call is timed on its own; a keyword's latency is the median of its
// passes. Passes alternate which reader goes first, so neither always finds
// the other's data in the caches. The first pass also checks that both
// readers give the same answer.
int run_search(const Options& options) {
    std::vector<std::string> keywords = make_keywords(options.directory, options.keywords);
    Rc<IndexReader> whole = IndexReader::from_directory(options.directory);
    Rc<IndexReader> mapped = open_mapped(options.directory);
    std::printf("search %s, %zu keywords (%zu found nowhere), %d passes\n", options.directory.c_str(),
                keywords.size(), ABSENT_KEYWORDS, options.passes);
    for (uint16_t limit : LIMITS) {
        std::vector<std::vector<double>> samples[2];  // [0] whole, [1] mapped; per keyword
        samples[0].assign(keywords.size(), {});
        samples[1].assign(keywords.size(), {});
        IndexReader* readers[2] = {whole.get(), mapped.get()};
        for (int pass = 0; pass < options.passes; ++pass) {
            for (size_t k = 0; k < keywords.size(); ++k) {
                Results results[2];
                for (int turn = 0; turn < 2; ++turn) {
                    int r = (pass + turn) % 2;
                    Clock::time_point start = Clock::now();
                    results[r] = readers[r]->search(keywords[k], limit);
                    samples[r][k].push_back(elapsed_us(start));
                }
                if (pass == 0 && !same_answer(results[0], results[1])) {
                    throw std::logic_error("the readers answer \"" + keywords[k] + "\" differently at limit " +
                                           std::to_string(limit));
                }
            }
        }
        double figures[2][2];  // [reader][median, p99]
        for (int r = 0; r < 2; ++r) {
            std::vector<double> latencies;
            for (const std::vector<double>& row : samples[r]) {
                latencies.push_back(percentile(row, 0.5));
            }
            figures[r][0] = percentile(latencies, 0.5);
            figures[r][1] = percentile(latencies, 0.99);
        }
        std::printf("limit %5u  from_directory median %8.2f us p99 %9.2f us | mapped median %8.2f us p99 %9.2f us "
                    "| mapped/whole median %.3f p99 %.3f\n",
                    limit, figures[0][0], figures[0][1], figures[1][0], figures[1][1], figures[1][0] / figures[0][0],
                    figures[1][1] / figures[0][1]);
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    Options options = parse(argc, argv);
    try {
        if (options.mode == "open") {
            return run_open(options);
        }
        if (options.mode == "first") {
            return run_first(options);
        }
        if (options.mode == "check") {
            return run_check(options);
        }
        if (options.mode == "memory") {
            return run_memory(options);
        }
        if (options.mode == "search") {
            return run_search(options);
        }
        usage("unknown mode " + options.mode);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "quorvex_bench_open: %s\n", error.what());
        return 1;
    }
}
