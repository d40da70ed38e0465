#ifndef QUORVEX_BENCH_COMPARE_CONTENDERS_H
#define QUORVEX_BENCH_COMPARE_CONTENDERS_H

// The contenders of the comparison benchmark: ways to answer "which keys
// contain this keyword" over the same items, exactly (five) or folded as
// people type (Quorvex's folded index, a scan over folded keys and FTS5
// folding case, with Quorvex's exact index beside them). Each writes its own files
// into a directory (build), opens them again (load) and answers keywords
// (search). Answers are key numbers: positions in the dictionary's key
// order.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "CompareData.h"

namespace Lexarium::Bench::Compare {

// Quorvex's answers to one keyword, the yardstick for the other contenders.
struct Reference {
    std::vector<uint32_t> first;  // at limit 20
    std::vector<uint32_t> full;   // at limit 65535
    bool cut = false;             // `full` filled the limit
};

class Contender {
public:
    virtual ~Contender() = default;

    // Short name for tables ("quorvex", "scan", ...).
    virtual std::string name() const = 0;

    // How its answers are held against the reference's (the first
    // contender's): they must agree (a difference fails the run), their
    // differences are counted (another notion of a match), or they answer
    // another question and are not compared.
    enum class Checked { Must, Counted, Not };
    virtual Checked checked() const { return Checked::Must; }

    // False for keywords it cannot answer as asked (FTS5's trigrams need
    // three characters): those are neither timed nor compared.
    virtual bool supports(const Keyword&) const { return true; }

    // True when answers come in the index's order: by the code point
    // position the keyword starts at, then key order, one result per
    // position. Otherwise each key comes once, in an order of the
    // contender's own.
    virtual bool index_order() const = 0;

    // Writes the contender's files for `dictionary` into the existing,
    // empty `directory`.
    virtual void build(const Dictionary& dictionary, const std::string& directory) = 0;

    // Opens what build() wrote into `directory`, replacing anything opened
    // before. Uses nothing but those files.
    virtual void load(const std::string& directory) = 0;

    // Closes what load() opened.
    virtual void unload() = 0;

    // Answers `keyword` with at most `limit` results (limit >= 1) and holds
    // the answer until release(); returns the number of results. This is
    // the call that is timed.
    virtual size_t search(const std::string& keyword, uint32_t limit) = 0;

    // The key numbers of the held answer, in its order.
    virtual std::vector<uint32_t> answer_keys() const = 0;

    // Drops the held answer and its memory.
    virtual void release() = 0;

    // Checks, after load(), that the opened files hold `dictionary` as
    // expected (and, for SQLite, that the query plan is the intended one).
    // Throws std::runtime_error describing the first difference.
    virtual void verify(const Dictionary& dictionary) = 0;

    // Anything about the keywords worth reporting beside the figures
    // (untimed, after verify); "" when there is nothing. `references` are
    // Quorvex's answers, one per keyword.
    virtual std::string examine(const std::vector<Keyword>&, const std::vector<Reference>&) { return ""; }
};

// "SQLite 3.40.1, libdivsufsort 2.0.1": the versions the contenders run.
std::string contender_versions();

std::unique_ptr<Contender> make_quorvex();
std::unique_ptr<Contender> make_scan();
std::unique_ptr<Contender> make_suffix_array();
std::unique_ptr<Contender> make_sqlite_fts5();
std::unique_ptr<Contender> make_sqlite_like();

// Built with IndexBuilder: exact and asked with search() or find(), or
// folded and asked with find(). Answers are items (key numbers), each once
// but from search().
enum class BuiltIndex { ExactSearch, ExactFind, Folded };
std::unique_ptr<Contender> make_quorvex_built(BuiltIndex kind);
// Every key folded once at build; the keyword folded and found with memmem;
// items given in find()'s order.
std::unique_ptr<Contender> make_folded_scan();
// FTS5, trigram tokenizer folding case (case_sensitive 0), asked with MATCH.
std::unique_ptr<Contender> make_sqlite_fts5_nocase();

// The items both IndexBuilders (exact and folded) take, so that every
// contender of the folded comparison holds the same ones; `refused` counts
// the others.
Dictionary buildable_items(const Dictionary& dictionary, uint64_t& refused);

}  // namespace Lexarium::Bench::Compare

#endif
