// find() on real dictionaries: folded search against the exact search,
// patterns against the plain search, typos, each beside a peer run in the
// same process: SQLite FTS5 with the trigram tokenizer (case folded, so
// LIKE, with "_" for patterns) and a scan over the folded keys that gives
// find()'s own answer (for typos, Sellers' algorithm over every key). bench/README.md
// says what each figure means; docs/PERFORMANCE.md has a run.
//
// Usage: quorvex_bench_find [--keywords N] [--passes P] [--scan-keywords S] DICTD_INDEX...
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <sqlite3.h>
#include <stdlib.h>
#include <unistd.h>

#include "CompareData.h"
#include "Fold.h"
#include "Reader/IndexReader.h"
#include "Utf8.h"
#include "Writer/IndexBuilder.h"

using namespace Lexarium;
using Clock = std::chrono::steady_clock;

namespace {

struct Options {
    size_t keywords = 300;
    size_t passes = 3;
    size_t scan_keywords = 30;
    std::vector<std::string> dictionaries;
};

double microseconds_since(Clock::time_point start) {
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

double percentile(std::vector<double> values, double q) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    size_t rank = static_cast<size_t>(q * static_cast<double>(values.size()) + 0.999999);
    return values[std::min(values.size(), std::max<size_t>(rank, 1)) - 1];
}

std::vector<uint32> characters_of(const std::string& text) {
    std::vector<uint32> out;
    Utf8::decode_well_formed(reinterpret_cast<const uint8*>(text.data()), text.size(), out);
    return out;
}

std::string text_of(const std::vector<uint32>& characters) {
    std::string out;
    for (uint32 c : characters) Utf8::append(out, c);
    return out;
}

// Times `run` on every keyword, `passes` times over (after one untimed warm
// pass); the latencies in µs.
std::vector<double> latencies(const std::vector<std::string>& keywords, size_t passes,
                              const std::function<void(const std::string&)>& run) {
    for (const std::string& keyword : keywords) run(keyword);
    std::vector<double> out;
    for (size_t pass = 0; pass < passes; ++pass) {
        for (const std::string& keyword : keywords) {
            Clock::time_point start = Clock::now();
            run(keyword);
            out.push_back(microseconds_since(start));
        }
    }
    return out;
}

void print_row(const char* what, const std::vector<double>& ours, const char* peer_name, const std::vector<double>& peer) {
    double m = percentile(ours, 0.5), p = percentile(ours, 0.99);
    std::printf("  %-34s median %9.1f  p99 %9.1f", what, m, p);
    if (!peer.empty()) {
        double pm = percentile(peer, 0.5), pp = percentile(peer, 0.99);
        std::printf("   | %-22s median %9.1f  p99 %9.1f  (x%.2f / x%.2f)", peer_name, pm, pp, m / pm, p / pp);
    }
    std::printf("\n");
}

Rc<Reader::IndexReader> build_index(const Bench::Compare::Dictionary& dictionary, bool folded, const std::string& dir,
                                    double& seconds) {
    Clock::time_point start = Clock::now();
    Writer::IndexSettings settings;
    settings.folded = folded;
    Writer::IndexBuilder builder(settings);
    for (size_t i = 0; i < dictionary.keys.size(); ++i) builder.add(dictionary.keys[i], dictionary.values[i]);
    Writer::IndexWriter writer;
    std::string problem = builder.fill(writer);
    if (!problem.empty()) {
        std::fprintf(stderr, "%s\n", problem.c_str());
        std::exit(1);
    }
    writer.write_into_directory_with_default_file_name(dir);
    seconds = microseconds_since(start) / 1e6;
    std::string error;
    return Reader::IndexReader::from_directory_mapped(dir, &error);
}

// SQLite FTS5 over the keys, trigram tokenizer folding case.
class Fts5 {
public:
    explicit Fts5(const std::vector<std::string>& keys) {
        sqlite3_open(":memory:", &db_);
        exec("CREATE VIRTUAL TABLE items USING fts5(key, tokenize='trigram case_sensitive 0', detail=none)");
        exec("BEGIN");
        sqlite3_stmt* insert = nullptr;
        sqlite3_prepare_v2(db_, "INSERT INTO items(rowid, key) VALUES (?, ?)", -1, &insert, nullptr);
        for (size_t i = 0; i < keys.size(); ++i) {
            sqlite3_bind_int64(insert, 1, static_cast<sqlite3_int64>(i));
            sqlite3_bind_text(insert, 2, keys[i].data(), static_cast<int>(keys[i].size()), SQLITE_STATIC);
            sqlite3_step(insert);
            sqlite3_reset(insert);
        }
        sqlite3_finalize(insert);
        exec("COMMIT");
        // With case_sensitive 0 the trigram index serves LIKE (not GLOB):
        // "%text%" for a keyword, "_" for one character.
        sqlite3_prepare_v2(db_, "SELECT rowid FROM items WHERE key LIKE ? LIMIT ?", -1, &like_, nullptr);
    }
    ~Fts5() {
        sqlite3_finalize(like_);
        sqlite3_close(db_);
    }
    // Rows whose key is like `pattern` (3 characters at least for the index).
    std::vector<int64_t> like(const std::string& pattern, int limit) { return rows(like_, pattern, limit); }

private:
    void exec(const char* sql) {
        char* error = nullptr;
        if (sqlite3_exec(db_, sql, nullptr, nullptr, &error) != SQLITE_OK) {
            std::fprintf(stderr, "sqlite: %s\n", error);
            std::exit(1);
        }
    }
    std::vector<int64_t> rows(sqlite3_stmt* statement, const std::string& text, int limit) {
        std::vector<int64_t> out;
        sqlite3_bind_text(statement, 1, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
        sqlite3_bind_int(statement, 2, limit);
        int status;
        while ((status = sqlite3_step(statement)) == SQLITE_ROW) out.push_back(sqlite3_column_int64(statement, 0));
        if (status != SQLITE_DONE) {
            std::fprintf(stderr, "sqlite: %s\n", sqlite3_errmsg(db_));
            std::exit(1);
        }
        sqlite3_reset(statement);
        return out;
    }
    sqlite3* db_ = nullptr;
    sqlite3_stmt* like_ = nullptr;
};

// The fewest edits of any run of `key` against `keyword` (Sellers), and the
// first character where a run within them starts; UINT32_MAX when above
// `budget`.
std::pair<uint32, uint32> sellers(const std::vector<uint32>& keyword, const std::vector<uint32>& key, uint32 budget) {
    std::pair<uint32, uint32> best{UINT32_MAX, 0};
    // Anchored at each start: swaps included (the optimal string alignment).
    size_t n = keyword.size();
    std::vector<std::vector<uint32>> d(n + 1, std::vector<uint32>(n + budget + 2));
    for (size_t s = 0; s <= key.size(); ++s) {
        size_t m = std::min(key.size() - s, n + budget);
        for (size_t i = 0; i <= n; ++i) {
            for (size_t j = 0; j <= m; ++j) {
                if (i == 0 || j == 0) {
                    d[i][j] = static_cast<uint32>(i + j);
                    continue;
                }
                uint32 v = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + (keyword[i - 1] != key[s + j - 1])});
                if (i > 1 && j > 1 && keyword[i - 1] == key[s + j - 2] && keyword[i - 2] == key[s + j - 1]) {
                    v = std::min(v, d[i - 2][j - 2] + 1);
                }
                d[i][j] = v;
            }
        }
        uint32 e = *std::min_element(d[n].begin(), d[n].begin() + static_cast<std::ptrdiff_t>(m + 1));
        if (e <= budget && e < best.first) best = {e, static_cast<uint32>(s)};
    }
    return best;
}

void run_dictionary(const std::string& path, const Options& options) {
    Bench::Compare::Dictionary dictionary = Bench::Compare::load_dictd(path);
    std::printf("\n%s: %zu items\n", dictionary.name.c_str(), dictionary.keys.size());
    char pattern[] = "/tmp/quorvex-bench-find-XXXXXX";
    std::string root = ::mkdtemp(pattern);
    // Builds, alternating, three of each.
    std::vector<double> builds[2];
    Rc<Reader::IndexReader> readers[2];
    for (int round = 0; round < 3; ++round) {
        for (int folded = 0; folded < 2; ++folded) {
            double seconds = 0;
            std::string dir = root + (folded ? "/folded" : "/exact") + std::to_string(round);
            readers[folded] = build_index(dictionary, folded != 0, dir, seconds);
            builds[folded].push_back(seconds);
        }
    }
    std::printf("  build (s, median of 3)   exact %.2f  folded %.2f  (x%.2f)\n", percentile(builds[0], 0.5),
                percentile(builds[1], 0.5), percentile(builds[1], 0.5) / percentile(builds[0], 0.5));
    Reader::IndexReader& exact = *readers[0];
    Reader::IndexReader& folded = *readers[1];

    std::vector<std::string> folded_keys(dictionary.keys.size());
    for (size_t i = 0; i < dictionary.keys.size(); ++i) fold(dictionary.keys[i], &folded_keys[i]);
    std::vector<Bench::Compare::Keyword> drawn = Bench::Compare::present_keywords(folded_keys, options.keywords, 1905);
    std::vector<std::string> plain;
    for (const auto& keyword : drawn) plain.push_back(keyword.text);

    auto find = [](Reader::IndexReader& reader, const std::string& text, uint16 limit, Reader::MatchMode mode,
                   uint8 typos) {
        Reader::SearchOptions o;
        o.limit = limit;
        o.mode = mode;
        o.typos = typos;
        std::vector<Reader::Hit> hits;
        reader.find(text, o, hits, nullptr);
        return hits.size();
    };
    Fts5 fts(dictionary.keys);
    for (uint16 limit : {uint16{20}, uint16{65535}}) {
        std::printf(" limit %u, %zu keywords x %zu passes (µs):\n", limit, plain.size(), options.passes);
        std::vector<double> exact_times = latencies(plain, options.passes, [&](const std::string& k) { exact.search(k, limit); });
        std::vector<double> folded_times = latencies(
            plain, options.passes, [&](const std::string& k) { find(folded, k, limit, Reader::MatchMode::Plain, 0); });
        print_row("folded find vs exact search", folded_times, "exact search", exact_times);
        std::vector<std::string> long_enough;
        for (const std::string& k : plain) {
            if (characters_of(k).size() >= 3) long_enough.push_back(k);
        }
        std::vector<double> fts_times =
            latencies(long_enough, options.passes, [&](const std::string& k) { fts.like("%" + k + "%", limit); });
        std::vector<double> ours_long = latencies(
            long_enough, options.passes, [&](const std::string& k) { find(folded, k, limit, Reader::MatchMode::Plain, 0); });
        print_row("folded find, 3+ characters", ours_long, "fts5 trigram", fts_times);
    }

    // Patterns: one or two characters of each keyword of 3+ characters as
    // "?", a quarter anchored at the start.
    std::mt19937 random(7);
    std::vector<std::string> patterns, globs, originals;
    for (const std::string& k : plain) {
        std::vector<uint32> c = characters_of(k);
        if (c.size() < 3) continue;
        std::string p, g;
        size_t holes = c.size() >= 5 ? 2 : 1;
        std::vector<size_t> at;
        while (at.size() < holes) {
            size_t i = random() % c.size();
            if (std::find(at.begin(), at.end(), i) == at.end()) at.push_back(i);
        }
        bool anchored = random() % 4 == 0;
        for (size_t i = 0; i < c.size(); ++i) {
            bool hole = std::find(at.begin(), at.end(), i) != at.end();
            p += hole ? "?" : Utf8::encode(c[i]);
            g += hole ? "_" : Utf8::encode(c[i]);
        }
        patterns.push_back((anchored ? "^" : "") + p);
        globs.push_back((anchored ? "" : "%") + g + "%");
        originals.push_back(k);
    }
    std::printf(" patterns at limit 20, %zu of them (µs):\n", patterns.size());
    std::vector<double> pattern_times = latencies(
        patterns, options.passes, [&](const std::string& k) { find(folded, k, 20, Reader::MatchMode::Pattern, 0); });
    std::vector<double> plain_times = latencies(
        originals, options.passes, [&](const std::string& k) { find(folded, k, 20, Reader::MatchMode::Plain, 0); });
    print_row("pattern", pattern_times, "plain, same keywords", plain_times);
    std::vector<double> glob_times = latencies(globs, 1, [&](const std::string& g) { fts.like(g, 20); });
    print_row("pattern", pattern_times, "fts5 LIKE with _", glob_times);

    // Typos: runs of 4 to 10 characters of folded keys with one edit.
    std::vector<std::string> typo_keywords;
    while (typo_keywords.size() < std::min<size_t>(options.keywords, 150)) {
        std::vector<uint32> c = characters_of(folded_keys[random() % folded_keys.size()]);
        if (c.size() < 4) continue;
        size_t length = std::min<size_t>(c.size(), 4 + random() % 7);
        size_t from = random() % (c.size() - length + 1);
        std::vector<uint32> run(c.begin() + static_cast<std::ptrdiff_t>(from),
                                c.begin() + static_cast<std::ptrdiff_t>(from + length));
        size_t i = random() % run.size();
        switch (random() % 4) {
            case 0: run[i] = 'a' + random() % 26; break;
            case 1: run.insert(run.begin() + static_cast<std::ptrdiff_t>(i), 'e'); break;
            case 2: if (run.size() > 4) run.erase(run.begin() + static_cast<std::ptrdiff_t>(i)); break;
            default: if (i + 1 < run.size()) std::swap(run[i], run[i + 1]);
        }
        typo_keywords.push_back(text_of(run));
    }
    std::printf(" typos at limit 20, %zu keywords (µs):\n", typo_keywords.size());
    for (uint8 budget : {uint8{1}, uint8{2}}) {
        std::vector<double> times = latencies(typo_keywords, options.passes, [&](const std::string& k) {
            find(folded, k, 20, Reader::MatchMode::Plain, budget);
        });
        // The same answer by a scan, on the first few keywords only.
        std::vector<std::string> sample(typo_keywords.begin(),
                                        typo_keywords.begin() + static_cast<std::ptrdiff_t>(
                                                                    std::min(options.scan_keywords, typo_keywords.size())));
        std::vector<double> scan = latencies(sample, 1, [&](const std::string& k) {
            std::vector<uint32> wanted = characters_of(k);
            uint32 cap = wanted.size() < 4 ? 0 : wanted.size() < 8 ? 1 : budget;
            size_t hits = 0;
            for (const std::string& key : folded_keys) hits += sellers(wanted, characters_of(key), cap).first != UINT32_MAX;
            (void)hits;
        });
        std::string what = "typos " + std::to_string(budget);
        print_row(what.c_str(), times, "scan (Sellers)", scan);
    }
    std::string command = "rm -rf " + root;
    if (std::system(command.c_str()) != 0) std::fprintf(stderr, "could not remove %s\n", root.c_str());
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if ((arg == "--keywords" || arg == "--passes" || arg == "--scan-keywords") && i + 1 < argc) {
            size_t value = std::strtoul(argv[++i], nullptr, 10);
            (arg == "--keywords" ? options.keywords : arg == "--passes" ? options.passes : options.scan_keywords) = value;
        } else if (arg.rfind("--", 0) == 0) {
            std::fprintf(stderr, "usage: quorvex_bench_find [--keywords N] [--passes P] [--scan-keywords S] DICTD_INDEX...\n");
            return 2;
        } else {
            options.dictionaries.push_back(arg);
        }
    }
    if (options.dictionaries.empty()) {
        options.dictionaries = {"/usr/share/dictd/freedict-deu-eng.index", "/usr/share/dictd/freedict-jpn-eng.index",
                                "/usr/share/dictd/gcide.index"};
    }
    std::printf("quorvex_bench_find: SQLite %s, load %s\n", sqlite3_libversion(), "see uptime");
    for (const std::string& path : options.dictionaries) run_dictionary(path, options);
    return 0;
}
