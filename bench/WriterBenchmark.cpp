// Writer benchmarks: the whole add + build for 100k, 500k and 1M generated
// dictionary items, the build alone, and the fixed cost of an empty index.
// bench/README.md explains the counters.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

#include "ItemGenerator.h"
#include "Writer/IndexWriter.h"

namespace {

using Lexarium::Bench::ItemSet;
using Lexarium::Writer::_IndexData;
using Lexarium::Writer::IndexWriter;

// ---- Items ------------------------------------------------------------------

// Generated and checked once per count, then shared by every benchmark and
// repetition that uses that count.
const ItemSet& cached_items(size_t count) {
    static std::map<size_t, std::unique_ptr<ItemSet>> cache;
    std::unique_ptr<ItemSet>& slot = cache[count];
    if (!slot) {
        auto set = std::make_unique<ItemSet>(Lexarium::Bench::generate_items(count));
        Lexarium::Bench::check_items(*set);
        slot = std::move(set);
    }
    return *slot;
}

// Null (after SkipWithError) when the items cannot be made.
const ItemSet* items_for(benchmark::State& state) {
    try {
        return &cached_items(static_cast<size_t>(state.range(0)));
    } catch (const std::exception& error) {
        state.SkipWithError(error.what());
        return nullptr;
    }
}

void add_all(IndexWriter& writer, const ItemSet& set) {
    for (const Lexarium::Bench::Item& item : set.items) {
        writer.add_word(item.key, item.value);
    }
}

// ---- Blob sizes -------------------------------------------------------------

uint64_t chunks_bytes(const std::vector<Rc<ByteArray>>& chunks) {
    uint64_t total = 0;
    for (const Rc<ByteArray>& chunk : chunks) {
        total += chunk->length;
    }
    return total;
}

struct BlobSizes {
    uint64_t table = 0;
    uint64_t index = 0;
    uint64_t key = 0;
    uint64_t data = 0;

    uint64_t total() const { return this->table + this->index + this->key + this->data; }
};

BlobSizes blob_sizes(const _IndexData& data) {
    BlobSizes sizes;
    sizes.table = chunks_bytes(data.table_chunks);
    sizes.index = chunks_bytes(data.index_chunks);
    sizes.key = chunks_bytes(data.key_chunks);
    sizes.data = chunks_bytes(data.data_chunks);
    benchmark::DoNotOptimize(sizes.table);
    benchmark::DoNotOptimize(sizes.index);
    benchmark::DoNotOptimize(sizes.key);
    benchmark::DoNotOptimize(sizes.data);
    return sizes;
}

// ---- Peak memory ------------------------------------------------------------

// A "VmXxx:   1234 kB" line of /proc/self/status, in bytes; 0 if missing.
uint64_t status_bytes(const char* field) {
    std::ifstream status("/proc/self/status");
    std::string line;
    std::string prefix = std::string(field) + ":";
    while (std::getline(status, line)) {
        if (line.compare(0, prefix.size(), prefix) == 0) {
            return std::stoull(line.substr(prefix.size())) * 1024;
        }
    }
    return 0;
}

// Writing "5" to clear_refs sets the peak (VmHWM) back to the current
// resident size, so the peak read afterwards belongs to the window alone.
bool reset_peak_rss() {
    std::FILE* file = std::fopen("/proc/self/clear_refs", "w");
    if (file == nullptr) {
        return false;
    }
    bool written = std::fputs("5", file) >= 0;
    return std::fclose(file) == 0 && written;
}

// Peak resident memory over one window of work (a build).
//
// When the peak can be reset, `peak` is how far the peak rose above the
// resident size at the start of the window. When it cannot (no write access
// to clear_refs), `peak` is the process's lifetime VmHWM, and the counters
// say so in their names.
class PeakRssWindow {
public:
    void start() {
#if defined(__GLIBC__)
        // Hand memory freed by the previous build back to the system, so this
        // build cannot grow into it unseen.
        malloc_trim(0);
#endif
        this->reset = reset_peak_rss();
        this->baseline = this->reset ? status_bytes("VmRSS") : 0;
    }

    void stop() {
        uint64_t high_water = status_bytes("VmHWM");
        uint64_t growth = high_water > this->baseline ? high_water - this->baseline : 0;
        this->peak = std::max(this->peak, growth);
        this->all_reset = this->all_reset && this->reset;
    }

    uint64_t peak = 0;
    bool all_reset = true;

private:
    bool reset = false;
    uint64_t baseline = 0;
};

// ---- Counters ---------------------------------------------------------------

benchmark::Counter byte_counter(uint64_t bytes) {
    return benchmark::Counter(static_cast<double>(bytes), benchmark::Counter::kDefaults, benchmark::Counter::kIs1024);
}

void report(benchmark::State& state, const BlobSizes& sizes, uint64_t input_bytes, const PeakRssWindow& window) {
    state.counters["table_bytes"] = byte_counter(sizes.table);
    state.counters["index_bytes"] = byte_counter(sizes.index);
    state.counters["key_bytes"] = byte_counter(sizes.key);
    state.counters["data_bytes"] = byte_counter(sizes.data);
    state.counters["input_bytes"] = byte_counter(input_bytes);

    const char* peak_name = window.all_reset ? "peak_rss_bytes" : "vmhwm_unreset_bytes";
    const char* ratio_name =
        window.all_reset ? "peak_over_blobs_plus_input" : "vmhwm_unreset_over_blobs_plus_input";
    state.counters[peak_name] = byte_counter(window.peak);
    state.counters[ratio_name] = static_cast<double>(window.peak) / static_cast<double>(sizes.total() + input_bytes);

    if (input_bytes > 0) {
        state.SetItemsProcessed(state.iterations() * state.range(0));
        state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(input_bytes));
    }
}

// ---- Benchmarks -------------------------------------------------------------
//
// Every iteration times one build and nothing else: the peak-memory probe
// and the destruction of the writer and the blobs run with the timer paused.

// Construct a writer, add every item, build.
void BM_WriterAddAndBuild(benchmark::State& state) {
    const ItemSet* set = items_for(state);
    if (set == nullptr) {
        return;
    }
    PeakRssWindow window;
    BlobSizes sizes;
    for (auto _ : state) {
        state.PauseTiming();
        window.start();
        state.ResumeTiming();

        auto writer = std::make_unique<IndexWriter>();
        add_all(*writer, *set);
        Rc<_IndexData> data = writer->to_bytes();

        state.PauseTiming();
        window.stop();
        sizes = blob_sizes(*data);
        data = Rc<_IndexData>();
        writer.reset();
        state.ResumeTiming();
    }
    report(state, sizes, set->input_bytes(), window);
}

// The build alone: the writer is constructed and filled untimed.
void BM_WriterBuildOnly(benchmark::State& state) {
    const ItemSet* set = items_for(state);
    if (set == nullptr) {
        return;
    }
    PeakRssWindow window;
    BlobSizes sizes;
    for (auto _ : state) {
        state.PauseTiming();
        auto writer = std::make_unique<IndexWriter>();
        add_all(*writer, *set);
        window.start();
        state.ResumeTiming();

        Rc<_IndexData> data = writer->to_bytes();

        state.PauseTiming();
        window.stop();
        sizes = blob_sizes(*data);
        data = Rc<_IndexData>();
        writer.reset();
        state.ResumeTiming();
    }
    report(state, sizes, set->input_bytes(), window);
}

// Construct an empty writer and build: the cost every index pays.
void BM_WriterEmpty(benchmark::State& state) {
    PeakRssWindow window;
    BlobSizes sizes;
    for (auto _ : state) {
        state.PauseTiming();
        window.start();
        state.ResumeTiming();

        auto writer = std::make_unique<IndexWriter>();
        Rc<_IndexData> data = writer->to_bytes();

        state.PauseTiming();
        window.stop();
        sizes = blob_sizes(*data);
        data = Rc<_IndexData>();
        writer.reset();
        state.ResumeTiming();
    }
    report(state, sizes, 0, window);
}

// Three runs of three builds per size; the console shows mean, median,
// standard deviation and coefficient of variation over the three runs.
void item_counts(benchmark::internal::Benchmark* benchmark) {
    benchmark->Arg(100000)->Arg(500000)->Arg(1000000);
    benchmark->Iterations(3)->Repetitions(3)->ReportAggregatesOnly(true);
    benchmark->Unit(benchmark::kMillisecond);
}

BENCHMARK(BM_WriterAddAndBuild)->Apply(item_counts);
BENCHMARK(BM_WriterBuildOnly)->Apply(item_counts);
BENCHMARK(BM_WriterEmpty)->Iterations(20)->Repetitions(3)->ReportAggregatesOnly(true)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
