// Folding a keyword of 20 characters: what a folded search adds before it
// searches. Google Benchmark; read the _median lines.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "Fold.h"
#include "Utf8.h"

namespace {

struct Keyword {
    const char* name;
    const char* text;  // 20 characters (code points; combining marks count)
};

const Keyword KEYWORDS[] = {
    {"ascii", "kindergartenfreundin"},                  // folded already
    {"german", "FußgängerÜberFührung"},                 // case, umlauts, ß
    {"russian", "Ру́сская литерату́ра"},              // stress marks (U+0301)
    {"katakana", "ソフトウェアエンジニアリングマネージャー"},  // to hiragana
    {"half_width_katakana", "ｿﾌﾄｳｪｱｴﾝｼﾞﾆｱﾘﾝｸﾞﾃﾞｰﾀ"},  // widened, voiced marks composed
    {"full_width_latin", "ＱＵＯＲＶＥＸＩＮＤＥＸＦＯＬＤＩＮＧＳ"},
};

// Stops the program when a keyword is not the 20 characters its name claims:
// the figures would not be what the table says.
const std::string& checked(const Keyword& keyword) {
    static std::string text;
    text = keyword.text;
    std::vector<uint32_t> code_points;
    Lexarium::Utf8::decode(text, code_points);
    if (code_points.size() != 20) {
        std::fprintf(stderr, "keyword %s has %zu characters, not 20\n", keyword.name, code_points.size());
        std::exit(1);
    }
    return text;
}

// Calls in a loop: the throughput figure, without clock overhead.
void BM_Fold(benchmark::State& state) {
    const std::string keyword = checked(KEYWORDS[state.range(0)]);
    std::string folded;
    for (auto _ : state) {
        Lexarium::fold(keyword, &folded);
        benchmark::DoNotOptimize(folded.data());
    }
    state.SetLabel(KEYWORDS[state.range(0)].name);
}
BENCHMARK(BM_Fold)->DenseRange(0, 5)->Repetitions(5)->ReportAggregatesOnly(true);

// Each call timed on its own: median and p99 per call, with the clock's own
// cost (clock_ns, two reads, measured the same way) included.
void BM_FoldEachCall(benchmark::State& state) {
    using Clock = std::chrono::steady_clock;
    constexpr size_t CALLS = 20000;
    const std::string keyword = checked(KEYWORDS[state.range(0)]);
    std::string folded;
    std::vector<double> fold_ns(CALLS), clock_ns(CALLS);
    auto percentile = [](std::vector<double>& ns, double q) {
        std::sort(ns.begin(), ns.end());
        return ns[std::min(ns.size() - 1, static_cast<size_t>(q * static_cast<double>(ns.size())))];
    };
    for (auto _ : state) {
        for (size_t call = 0; call < CALLS; ++call) {
            const auto start = Clock::now();
            Lexarium::fold(keyword, &folded);
            benchmark::DoNotOptimize(folded.data());
            const auto middle = Clock::now();
            const auto end = Clock::now();
            fold_ns[call] = std::chrono::duration<double, std::nano>(middle - start).count();
            clock_ns[call] = std::chrono::duration<double, std::nano>(end - middle).count();
        }
    }
    state.counters["median_ns"] = percentile(fold_ns, 0.5);
    state.counters["p99_ns"] = percentile(fold_ns, 0.99);
    state.counters["clock_ns"] = percentile(clock_ns, 0.5);
    state.SetLabel(KEYWORDS[state.range(0)].name);
}
BENCHMARK(BM_FoldEachCall)->DenseRange(0, 5)->Iterations(1)->Repetitions(5)->ReportAggregatesOnly(true);

}  // namespace

BENCHMARK_MAIN();
