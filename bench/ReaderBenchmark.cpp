// Reader benchmarks on 500,000 generated dictionary items: loading an index
// from its directory up to the first answer (read whole, and mapped with and
// without another reader of it alive), search latency per keyword at
// two limits, the same keywords answered by a plain scan over all keys, and
// searches per second with one and two threads sharing one reader.
// bench/README.md explains the counters.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Format.h"
#include "ItemGenerator.h"
#include "QuorvexTesting.h"
#include "Reader/IndexReader.h"
#include "Writer/IndexWriter.h"

namespace {

using Lexarium::Reader::IndexReader;
using Lexarium::Reader::SearchResult;
using Lexarium::Writer::IndexWriter;

typedef std::chrono::steady_clock Clock;
typedef Rc<std::vector<Rc<SearchResult>>> Results;

constexpr size_t ITEM_COUNT = 500000;

// Keywords are pieces of stored keys, 1..6 code points long.
constexpr size_t KEYWORD_COUNT = 1000;
constexpr uint64_t MAX_KEYWORD_CODE_POINTS = 6;
constexpr uint64_t KEYWORD_SEED = 0x6b6579776f726473ULL;

// The first this many keywords are compared with a plain scan, at this limit.
constexpr size_t CHECKED_KEYWORD_COUNT = 100;
constexpr uint16_t CHECK_LIMIT = 65535;

// What a search box would ask for on the first keystroke.
constexpr uint16_t FIRST_SEARCH_LIMIT = 20;

// ---- Keywords ---------------------------------------------------------------

// Uniform in [0, n), by rejection, so the keywords depend only on
// mt19937_64 and not on the standard library's distributions.
uint64_t below(std::mt19937_64& rng, uint64_t n) {
    uint64_t threshold = (0 - n) % n;
    uint64_t x;
    do {
        x = rng();
    } while (x < threshold);
    return x % n;
}

// Throws std::logic_error unless `keyword` is something the reader accepts
// and the index can find: UTF-8 of 1..254 bytes, code points U+0001..U+FFFE.
void check_keyword(const std::string& keyword) {
    if (keyword.empty() || keyword.size() >= 255) {
        throw std::logic_error("keyword of " + std::to_string(keyword.size()) + " bytes");
    }
    std::vector<uint32_t> code_points;
    if (!Lexarium::Utf8::decode_indexable(reinterpret_cast<const uint8_t*>(keyword.data()), keyword.size(),
                                          code_points)) {
        throw std::logic_error("keyword that is not UTF-8 of code points the index holds");
    }
}

// `count` keywords, the same on every run: a random key, a random length of
// 1..6 code points (at most the key's), a random start that fits, cut on
// code point boundaries.
std::vector<std::string> sample_keywords(const std::vector<std::string>& keys, size_t count, uint64_t seed) {
    std::mt19937_64 rng(seed);
    std::vector<std::string> keywords;
    keywords.reserve(count);
    for (size_t i = 0; i < count; ++i) {
        const std::string& key = keys[below(rng, keys.size())];
        std::vector<size_t> starts = quorvex_testing::character_starts(key);
        uint64_t key_code_points = starts.size() - 1;
        uint64_t length = std::min(1 + below(rng, MAX_KEYWORD_CODE_POINTS), key_code_points);
        uint64_t first = below(rng, key_code_points - length + 1);
        keywords.push_back(key.substr(starts[first], starts[first + length] - starts[first]));
        check_keyword(keywords.back());
    }
    return keywords;
}

// ---- The plain scan ---------------------------------------------------------

// What a user without an index might write, and the yardstick for search:
// walk every key (held as std::string, in the index's key order) and note
// the number of each key that contains `keyword` (std::string_view::find);
// then move the keys that begin with it to the front, keeping key order on
// both sides (std::stable_partition); then keep the first `limit`. Each key
// is listed once. The scan cannot stop early: until it has seen every key it
// does not know which keys come first. Keys and values are not copied; the
// key numbers are the answer.
std::vector<uint32_t> naive_scan(const std::vector<std::string>& keys, const std::string& keyword, size_t limit) {
    std::string_view wanted(keyword);
    std::vector<uint32_t> hits;
    for (uint32_t i = 0; i < keys.size(); ++i) {
        if (std::string_view(keys[i]).find(wanted) != std::string_view::npos) {
            hits.push_back(i);
        }
    }
    std::stable_partition(hits.begin(), hits.end(),
                          [&](uint32_t i) { return keys[i].compare(0, wanted.size(), wanted) == 0; });
    if (hits.size() > limit) {
        hits.resize(limit);
    }
    return hits;
}

// ---- Agreement with the plain scan ------------------------------------------

std::string key_text(const SearchResult& result) {
    return std::string(reinterpret_cast<const char*>(result.key->data), result.key->length);
}

// A key as the brute-force search takes it: stored whole, no value.
quorvex_testing::ReferenceKey reference_key(const std::string& key) {
    quorvex_testing::ReferenceKey reference{key, {}, ""};
    Lexarium::Utf8::decode(key, reference.characters);
    return reference;
}

struct Agreement {
    std::string error;  // empty when every checked keyword agreed
    size_t truncated = 0;
};

// For each checked keyword, searched with CHECK_LIMIT:
// - when the index returns fewer results than the limit, the distinct keys
//   it returns are exactly the keys the plain scan finds; when it fills the
//   limit, they are among them;
// - the results, in order, are those of the brute-force reference_search.
// This holds because every generated key is within what the index stores
// whole: code points U+0001..U+FFFE, at most 254 bytes (checked when the
// fixture is made).
Agreement check_agreement(IndexReader& reader, const std::vector<std::string>& keys,
                          const std::vector<std::string>& keywords) {
    Agreement agreement;
    std::vector<quorvex_testing::ReferenceKey> reference;
    reference.reserve(keys.size());
    for (const std::string& key : keys) {
        reference.push_back(reference_key(key));
    }
    size_t count = std::min(CHECKED_KEYWORD_COUNT, keywords.size());
    for (size_t k = 0; k < count; ++k) {
        const std::string& keyword = keywords[k];
        Results results = reader.search(keyword, CHECK_LIMIT);
        std::vector<std::string> found;
        for (const Rc<SearchResult>& result : *results) {
            found.push_back(key_text(*result));
        }
        std::set<std::string> index_keys(found.begin(), found.end());
        std::set<std::string> scan_keys;
        for (uint32_t i : naive_scan(keys, keyword, keys.size())) {
            scan_keys.insert(keys[i]);
        }
        bool truncated = found.size() >= CHECK_LIMIT;
        agreement.truncated += truncated ? 1 : 0;
        bool sets_agree = truncated ? std::includes(scan_keys.begin(), scan_keys.end(), index_keys.begin(),
                                                    index_keys.end())
                                    : index_keys == scan_keys;

        std::vector<quorvex_testing::Hit> predicted =
            quorvex_testing::reference_search(reference, keyword, reference_key(keyword).characters[0], CHECK_LIMIT);
        bool order_agrees = predicted.size() == found.size();
        for (size_t i = 0; order_agrees && i < found.size(); ++i) {
            order_agrees = predicted[i].key == found[i];
        }

        if (!sets_agree || !order_agrees) {
            agreement.error = "keyword #" + std::to_string(k) + " \"" + keyword + "\": the index returns " +
                              std::to_string(found.size()) + " results, " + std::to_string(index_keys.size()) +
                              " distinct keys; the plain scan finds " + std::to_string(scan_keys.size()) +
                              " keys and predicts " + std::to_string(predicted.size()) + " results" +
                              (sets_agree ? " (same keys, different order)" : " (different keys)");
            return agreement;
        }
    }
    return agreement;
}

// ---- Fixture ----------------------------------------------------------------

// The index files in a temporary directory, the reader and the plain-scan
// keys over them, and the keywords. Made once, on first use; the directory
// goes when the fixture does.
struct Fixture {
    quorvex_testing::TemporaryDirectory temporary;
    std::string directory = temporary.path;
    uint64_t file_bytes = 0;
    std::vector<std::string> keys;  // byte order, as the index holds them
    std::vector<std::string> keywords;
    Rc<IndexReader> reader;
    Agreement agreement;
};

std::unique_ptr<Fixture> make_fixture() {
    auto fixture = std::make_unique<Fixture>();
    if (fixture->directory.empty()) {
        throw std::runtime_error("cannot create a temporary directory");
    }
    {
        // The items (about 450 MB) and the writer live only for the build.
        Lexarium::Bench::ItemSet set = Lexarium::Bench::generate_items(ITEM_COUNT);
        Lexarium::Bench::check_items(set);
        {
            IndexWriter writer;
            for (const Lexarium::Bench::Item& item : set.items) {
                writer.add_word(item.key, item.value);
            }
            writer.write_into_directory_with_default_file_name(fixture->directory);
        }
        fixture->keys.reserve(set.items.size());
        for (const Lexarium::Bench::Item& item : set.items) {
            if (item.key.size() > Lexarium::Format::MAX_STORED_KEY_BYTES) {
                throw std::logic_error("a key the index would store shortened");
            }
            fixture->keys.push_back(item.key);
        }
    }
    // std::string compares as unsigned bytes, like the writer's std::map.
    std::sort(fixture->keys.begin(), fixture->keys.end());

    for (const char* name : {Lexarium::Format::TABLE_FILE_NAME, Lexarium::Format::INDEX_FILE_NAME,
                             Lexarium::Format::KEY_FILE_NAME, Lexarium::Format::DATA_FILE_NAME}) {
        fixture->file_bytes += std::filesystem::file_size(fixture->directory + name);
    }
    fixture->keywords = sample_keywords(fixture->keys, KEYWORD_COUNT, KEYWORD_SEED);
    fixture->reader = IndexReader::from_directory(fixture->directory);
    fixture->agreement = check_agreement(*fixture->reader, fixture->keys, fixture->keywords);
    return fixture;
}

std::unique_ptr<Fixture> the_fixture;
std::string fixture_error;
std::mutex fixture_mutex;  // threaded benchmarks ask from every thread

// Null (after SkipWithError) when the fixture cannot be made or the index
// disagrees with the plain scan. Every thread of a run gets the same answer,
// so either all of them skip or none does.
const Fixture* fixture_for(benchmark::State& state) {
    std::lock_guard<std::mutex> lock(fixture_mutex);
    if (!the_fixture && fixture_error.empty()) {
        try {
            the_fixture = make_fixture();
        } catch (const std::exception& error) {
            fixture_error = error.what();
        }
    }
    if (!fixture_error.empty()) {
        state.SkipWithError(fixture_error.c_str());
        return nullptr;
    }
    if (!the_fixture->agreement.error.empty()) {
        state.SkipWithError(("index and plain scan disagree: " + the_fixture->agreement.error).c_str());
        return nullptr;
    }
    return the_fixture.get();
}

// ---- Latency statistics -----------------------------------------------------

// Every timed call of every keyword, in seconds, one row per keyword.
//
// Each keyword is timed on its own with steady_clock, once per pass. A
// keyword's latency is the median of its passes, which keeps one unlucky
// pass (an interrupt, a page fault) from deciding its figure; the counters
// are percentiles of these per-keyword latencies over all keywords, by
// nearest rank.
class KeywordTimes {
public:
    explicit KeywordTimes(size_t keyword_count) : samples(keyword_count) {}

    // Times `call` for keyword `k` and returns the seconds it took.
    template <typename Call>
    double time(size_t k, Call&& call) {
        Clock::time_point start = Clock::now();
        call();
        Clock::time_point stop = Clock::now();
        double seconds = std::chrono::duration<double>(stop - start).count();
        this->samples[k].push_back(seconds);
        return seconds;
    }

    // Percentile `q` (0 < q <= 1) of the per-keyword medians, in microseconds.
    double percentile_us(double q) const {
        std::vector<double> medians;
        for (std::vector<double> row : this->samples) {
            if (row.empty()) {
                continue;
            }
            std::sort(row.begin(), row.end());
            medians.push_back(row[(row.size() - 1) / 2]);
        }
        if (medians.empty()) {
            return 0;
        }
        std::sort(medians.begin(), medians.end());
        size_t rank = static_cast<size_t>(std::ceil(q * static_cast<double>(medians.size())));
        return medians[std::max<size_t>(rank, 1) - 1] * 1e6;
    }

private:
    std::vector<std::vector<double>> samples;
};

// ---- Benchmarks -------------------------------------------------------------

// from_directory, then one search with limit 20 for the first keyword: the
// time from "open this dictionary" to its first answer. The files are in
// the page cache after the first load (they were written just before), so
// this is a warm-cache figure. Dropping the reader runs with the timer
// paused.
void BM_ReaderLoadFromDirectory(benchmark::State& state) {
    const Fixture* fixture = fixture_for(state);
    if (fixture == nullptr) {
        return;
    }
    const std::string& keyword = fixture->keywords.front();
    size_t first_results = 0;
    for (auto _ : state) {
        Rc<IndexReader> reader = IndexReader::from_directory(fixture->directory);
        Results results = reader->search(keyword, FIRST_SEARCH_LIMIT);

        state.PauseTiming();
        first_results = results->size();
        results = Results();
        reader = Rc<IndexReader>();
        state.ResumeTiming();
    }
    state.counters["first_results"] = static_cast<double>(first_results);
    state.counters["index_file_bytes"] = benchmark::Counter(static_cast<double>(fixture->file_bytes),
                                                            benchmark::Counter::kDefaults, benchmark::Counter::kIs1024);
}

// from_directory_mapped, then the same first search. With `alive` 0 no
// other mapped reader of the files lives, so each open maps the four files
// and walks table.bin: the first open of the index in a process. With 1 one
// mapped reader lives throughout, and each open shares its mapping (the
// second open). Dropping the reader runs with the timer paused.
void BM_ReaderLoadMapped(benchmark::State& state) {
    const Fixture* fixture = fixture_for(state);
    if (fixture == nullptr) {
        return;
    }
    std::string error;
    Rc<IndexReader> alive;
    if (state.range(0) != 0) {
        alive = IndexReader::from_directory_mapped(fixture->directory, &error);
    }
    const std::string& keyword = fixture->keywords.front();
    size_t first_results = 0;
    for (auto _ : state) {
        Rc<IndexReader> reader = IndexReader::from_directory_mapped(fixture->directory, &error);
        if (reader.is_null()) {
            state.SkipWithError(error.c_str());
            break;
        }
        Results results = reader->search(keyword, FIRST_SEARCH_LIMIT);

        state.PauseTiming();
        first_results = results->size();
        results = Results();
        reader = Rc<IndexReader>();
        state.ResumeTiming();
    }
    state.counters["first_results"] = static_cast<double>(first_results);
}

// Per-keyword latency of search(keyword, limit). One iteration is one pass
// over all keywords; the iteration time is the sum of the timed calls, so
// the bookkeeping between them and freeing the results are not in it.
void BM_ReaderSearch(benchmark::State& state) {
    const Fixture* fixture = fixture_for(state);
    if (fixture == nullptr) {
        return;
    }
    uint16_t limit = static_cast<uint16_t>(state.range(0));
    const std::vector<std::string>& keywords = fixture->keywords;
    IndexReader& reader = *fixture->reader;
    KeywordTimes times(keywords.size());
    uint64_t result_count = 0;
    for (auto _ : state) {
        double pass_seconds = 0;
        for (size_t k = 0; k < keywords.size(); ++k) {
            Results results;
            pass_seconds += times.time(k, [&] { results = reader.search(keywords[k], limit); });
            result_count += results->size();
        }
        state.SetIterationTime(pass_seconds);
    }
    state.counters["median_us"] = times.percentile_us(0.5);
    state.counters["p99_us"] = times.percentile_us(0.99);
    state.counters["mean_results"] =
        static_cast<double>(result_count) / static_cast<double>(state.iterations() * keywords.size());
    state.counters["keywords"] = static_cast<double>(keywords.size());
}

// Per-keyword latency of the plain scan (naive_scan) with the same keywords
// and limit, and how many times longer it takes than the index. Each keyword
// is answered by the scan and then by the index, one right after the other,
// so both see the same machine state; the iteration time is the scans'.
void BM_NaiveScan(benchmark::State& state) {
    const Fixture* fixture = fixture_for(state);
    if (fixture == nullptr) {
        return;
    }
    uint16_t limit = static_cast<uint16_t>(state.range(0));
    const std::vector<std::string>& keywords = fixture->keywords;
    const std::vector<std::string>& keys = fixture->keys;
    IndexReader& reader = *fixture->reader;
    KeywordTimes scan_times(keywords.size());
    KeywordTimes index_times(keywords.size());
    uint64_t result_count = 0;
    for (auto _ : state) {
        double pass_seconds = 0;
        for (size_t k = 0; k < keywords.size(); ++k) {
            std::vector<uint32_t> hits;
            pass_seconds += scan_times.time(k, [&] { hits = naive_scan(keys, keywords[k], limit); });
            result_count += hits.size();

            Results results;
            index_times.time(k, [&] { results = reader.search(keywords[k], limit); });
            benchmark::DoNotOptimize(results->size());
        }
        state.SetIterationTime(pass_seconds);
    }
    double median = scan_times.percentile_us(0.5);
    double p99 = scan_times.percentile_us(0.99);
    double index_median = index_times.percentile_us(0.5);
    double index_p99 = index_times.percentile_us(0.99);
    state.counters["median_us"] = median;
    state.counters["p99_us"] = p99;
    state.counters["mean_results"] =
        static_cast<double>(result_count) / static_cast<double>(state.iterations() * keywords.size());
    state.counters["index_median_us"] = index_median;
    state.counters["index_p99_us"] = index_p99;
    state.counters["speedup_median"] = median / index_median;
    state.counters["speedup_p99"] = p99 / index_p99;
    state.counters["checked_keywords"] = static_cast<double>(std::min(CHECKED_KEYWORD_COUNT, keywords.size()));
    state.counters["checked_truncated"] = static_cast<double>(fixture->agreement.truncated);
}

// Searches per second when 1 or 2 threads search the one shared reader at
// the same time, at limit 20. One iteration is one pass of a thread over all
// keywords; each thread starts its pass at its own share of the list, so the
// threads do the same work but are not on the same keyword at once. Each
// search's results are the thread's own and are freed on it, inside the
// timed loop. The threads reach the reader through a plain reference taken
// before the loop: its handle is never copied while they search.
void BM_ReaderSearchThreads(benchmark::State& state) {
    const Fixture* fixture = fixture_for(state);
    if (fixture == nullptr) {
        return;
    }
    const std::vector<std::string>& keywords = fixture->keywords;
    IndexReader& reader = *fixture->reader;
    size_t first = static_cast<size_t>(state.thread_index()) * keywords.size() /
                   static_cast<size_t>(state.threads());
    for (auto _ : state) {
        for (size_t i = 0; i < keywords.size(); ++i) {
            size_t k = first + i < keywords.size() ? first + i : first + i - keywords.size();
            Results results = reader.search(keywords[k], FIRST_SEARCH_LIMIT);
            benchmark::DoNotOptimize(results->size());
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * keywords.size()));
}

void search_limits(benchmark::internal::Benchmark* benchmark) {
    benchmark->ArgName("limit")->Arg(20)->Arg(65535);
    benchmark->UseManualTime()->Unit(benchmark::kMillisecond);
}

BENCHMARK(BM_ReaderLoadFromDirectory)
    ->Iterations(5)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReaderLoadMapped)
    ->ArgName("alive")
    ->Arg(0)
    ->Arg(1)
    ->Iterations(200)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ReaderSearch)->Apply(search_limits)->Iterations(5);
BENCHMARK(BM_NaiveScan)->Apply(search_limits)->Iterations(3);
BENCHMARK(BM_ReaderSearchThreads)->Threads(1)->Threads(2)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    the_fixture.reset();  // removes the index directory
    return 0;
}
