// find() with a pattern or with typos. Both go position by position, as
// the plain search does, and take their candidates from the cells the
// index keeps for each character at each position: a pattern from the
// cells of its literal characters (a "?" is a position no list is asked
// for), typos from the cells of pieces of the keyword that an edit leaves
// whole. Each candidate is then checked on its key's characters.
#include <algorithm>
#include <map>

#include "Fold.h"
#include "Reader/IndexReader.h"
#include "Reader/SearchParts.h"
#include "Utf8.h"

namespace Lexarium::Reader {

using std::string;

namespace {

constexpr uint32 ANY = UINT32_MAX;  // a "?" in a parsed pattern
// Stands for "?" while a pattern is folded: a private-use character, which
// folding leaves as it is.
constexpr uint32 WILDCARD_MARK = 0xE000;

struct Pattern {
    std::vector<uint32> characters;  // ANY for "?"
    bool at_start = false;
    bool at_end = false;
};

// Reads `text` as a pattern, folded when `folded`; false with the reason in
// `why`.
bool parse_pattern(const string& text, bool folded, Pattern& pattern, string& why) {
    std::vector<uint32> raw;
    if (!Utf8::decode_well_formed(reinterpret_cast<const uint8*>(text.data()), text.size(), raw)) {
        why = "the pattern is not valid UTF-8";
        return false;
    }
    string literal;  // the pattern with WILDCARD_MARK for each "?"
    for (size_t i = 0; i < raw.size(); ++i) {
        uint32 c = raw[i];
        if (c == '\\') {
            if (++i == raw.size()) {
                why = "the pattern ends with an escape (\\) that has nothing to escape";
                return false;
            }
            c = raw[i];
        } else if (c == '^' || c == '$') {
            bool first = i == 0 && c == '^';
            bool last = i + 1 == raw.size() && c == '$' && (i > 0 || raw.size() == 1);
            if (!first && !last) {
                why = string("the anchor ") + static_cast<char>(c) + " may only come " + (c == '^' ? "first" : "last") +
                      " (escape it as \\" + static_cast<char>(c) + " to find it)";
                return false;
            }
            (c == '^' ? pattern.at_start : pattern.at_end) = true;
            continue;
        } else if (c == '?') {
            c = WILDCARD_MARK;
        } else if (c == WILDCARD_MARK) {
            why = "the pattern holds U+E000, which patterns keep for themselves";
            return false;
        }
        Utf8::append(literal, c);
    }
    string searched = literal;
    if (folded) {
        fold(literal, &searched);
    }
    std::vector<uint32> characters;
    Utf8::decode_well_formed(reinterpret_cast<const uint8*>(searched.data()), searched.size(), characters);
    bool has_literal = false;
    for (uint32 c : characters) {
        if (c != WILDCARD_MARK && (c < Format::MIN_INDEXED_CODE_POINT || c > Format::MAX_INDEXED_CODE_POINT)) {
            why = "the pattern holds a character outside U+0001..U+FFFE, which no key can hold";
            return false;
        }
        has_literal |= c != WILDCARD_MARK;
        pattern.characters.push_back(c == WILDCARD_MARK ? ANY : c);
    }
    if (!has_literal) {
        why = "a pattern needs at least one character other than ? and the anchors";
        return false;
    }
    if (pattern.characters.size() > Format::MAX_STORED_KEY_BYTES) {
        why = "the pattern has more characters than any key";
        return false;
    }
    return true;
}

// The characters of a stored key.
void characters_of(const Records::Key& key, std::vector<uint32>& out) {
    out.clear();
    Utf8::decode_well_formed(key.text, key.length, out);
}

// Whether `pattern` matches `key` from character `position` on.
bool pattern_matches(const Pattern& pattern, const std::vector<uint32>& key, size_t position) {
    size_t end = position + pattern.characters.size();
    if (end > key.size() || (pattern.at_end && end != key.size())) {
        return false;
    }
    for (size_t j = 0; j < pattern.characters.size(); ++j) {
        if (pattern.characters[j] != ANY && pattern.characters[j] != key[position + j]) {
            return false;
        }
    }
    return true;
}

// The fewest edits (substitutions, insertions, deletions, swaps of two
// adjacent characters, no character edited twice) that turn `keyword` into
// a run of `key` that starts at `position`, or `budget` + 1 when it takes
// more than `budget`. Rows of the table by keyword character, columns by
// key character from `position`; a column past keyword length + budget
// cannot be within budget.
uint32 edits_from(const std::vector<uint32>& keyword, const std::vector<uint32>& key, size_t position, uint32 budget,
                  std::vector<uint32> rows[3]) {
    size_t n = keyword.size();
    size_t m = std::min(key.size() - std::min(key.size(), position), n + budget);
    // The key's characters from `position` on (none past its end).
    const uint32* b = m == 0 ? nullptr : key.data() + position;
    for (int r = 0; r < 3; ++r) {
        rows[r].assign(m + 1, budget + 1);
    }
    for (size_t j = 0; j <= m; ++j) {
        rows[0][j] = static_cast<uint32>(j);
    }
    uint32 best = n <= budget ? static_cast<uint32>(n) : budget + 1;  // the empty run
    for (size_t i = 1; i <= n; ++i) {
        std::vector<uint32>& row = rows[i % 3];
        const std::vector<uint32>& above = rows[(i - 1) % 3];
        const std::vector<uint32>& two_above = rows[(i + 1) % 3];
        row[0] = static_cast<uint32>(i);
        uint32 smallest = row[0];
        for (size_t j = 1; j <= m; ++j) {
            uint32 cost = keyword[i - 1] == b[j - 1] ? 0 : 1;
            uint32 value = std::min({above[j] + 1, row[j - 1] + 1, above[j - 1] + cost});
            if (i > 1 && j > 1 && keyword[i - 1] == b[j - 2] && keyword[i - 2] == b[j - 1]) {
                value = std::min(value, two_above[j - 2] + 1);
            }
            row[j] = std::min(value, budget + 1);
            smallest = std::min(smallest, row[j]);
        }
        if (smallest > budget) {
            return budget + 1;
        }
        if (i == n) {
            best = *std::min_element(row.begin(), row.end());
        }
    }
    return std::min(best, budget + 1);
}

// Splits `count` characters into `pieces` runs as even as can be: the
// first character of each.
std::vector<size_t> piece_starts(size_t count, size_t pieces) {
    std::vector<size_t> starts;
    for (size_t k = 0; k <= pieces; ++k) {
        starts.push_back(count * k / pieces);
    }
    return starts;
}

// Every way to swap `swaps` disjoint pairs of adjacent characters of
// `keyword`, from character `from` on, each passed to `visit`.
template <typename Visit>
void with_swaps(std::vector<uint32>& keyword, size_t from, uint32 swaps, Visit&& visit) {
    if (swaps == 0) {
        visit(static_cast<const std::vector<uint32>&>(keyword));
        return;
    }
    for (size_t i = from; i + 1 < keyword.size(); ++i) {
        std::swap(keyword[i], keyword[i + 1]);
        with_swaps(keyword, i + 2, swaps - 1, visit);
        std::swap(keyword[i], keyword[i + 1]);
    }
}

// Checks the candidates of one position (ascending, each once) in key order:
// each not met at an earlier position whose key record `key_of` reads and
// whose characters `accepts` joins `found`, until `limit`; `seen` (the
// entries met so far, ascending) gains them.
template <typename FoundList, typename KeyOf, typename Accepts>
void keep_matches(const std::vector<uint32>& candidates, uint32 position, uint32 edits, uint16 limit,
                  std::vector<uint32>& seen, FoundList& found, KeyOf&& key_of, Accepts&& accepts) {
    std::vector<uint32> characters;
    size_t middle = seen.size();
    for (uint32 entry : candidates) {
        Records::Key key;
        if (found.size() >= limit || std::binary_search(seen.begin(), seen.begin() + middle, entry) ||
            !key_of(entry, key)) {
            continue;
        }
        characters_of(key, characters);
        if (accepts(characters)) {
            found.push_back(typename FoundList::value_type{entry, static_cast<uint8>(position), static_cast<uint8>(edits)});
            seen.push_back(entry);
        }
    }
    std::inplace_merge(seen.begin(), seen.begin() + static_cast<std::ptrdiff_t>(middle), seen.end());
}

}  // namespace

// The entries whose keys hold every character of `cells` at its position,
// ascending: the shortest posting list, each entry looked up in the others.
void IndexReader::entries_with(const std::vector<Cell>& cells, std::vector<uint32>& out) const {
    PostingList lists[Format::MAX_CELLS_PER_ROW + 1];
    uint32 cursors[Format::MAX_CELLS_PER_ROW + 1] = {};
    size_t count = std::min<size_t>(cells.size(), Format::MAX_CELLS_PER_ROW + 1);
    if (count == 0) {
        return;
    }
    for (size_t k = 0; k < count; ++k) {
        if (!this->find_list(cells[k].code_point, cells[k].position, lists[k]) || lists[k].count == 0) {
            return;
        }
    }
    std::sort(lists, lists + count, [](const PostingList& a, const PostingList& b) { return a.count < b.count; });
    // Leapfrog: the shortest list proposes, each other list either holds the
    // entry or names the next it could hold, where the proposals go on.
    uint32 i = 0;
    while (i < lists[0].count) {
        uint32 entry = lists[0].at(i);
        uint32 next = entry;
        for (size_t k = 1; k < count && next == entry; ++k) {
            if (!lists[k].seek(cursors[k], entry)) {
                return;
            }
            next = lists[k].at(cursors[k]);
        }
        if (next == entry) {
            out.push_back(entry);
            ++i;
        } else if (!lists[0].seek(i, next)) {
            return;
        }
    }
}

// One past the last position at which any of `characters` stands in a key.
uint32 IndexReader::horizon(const std::vector<uint32>& characters) const {
    uint32 most = 0;
    for (uint32 c : characters) {
        if (c < Format::TABLE_ROW_COUNT) {
            most = std::max<uint32>(most, this->row(c).cells_count);
        }
    }
    return most;
}

bool IndexReader::find_pattern(const string& text, uint16 limit, std::vector<Found>& found, string* error) const {
    Pattern pattern;
    string why;
    if (!parse_pattern(text, this->folding_version != 0, pattern, why)) {
        return this->fail(why.c_str(), error);
    }
    std::vector<Cell> cells;
    std::vector<uint32> candidates;
    std::vector<uint32> seen;  // ascending
    auto key_of = [this](uint32 entry, Records::Key& key) { return this->entry_of(entry, key, nullptr); };
    uint32 last = pattern.at_start ? 0 : this->horizon(pattern.characters);
    for (uint32 position = 0; position <= last && position < Format::MAX_CELLS_PER_ROW && found.size() < limit;
         ++position) {
        cells.clear();
        for (size_t j = 0; j < pattern.characters.size(); ++j) {
            if (pattern.characters[j] != ANY) {
                cells.push_back(Cell{pattern.characters[j], static_cast<uint32>(position + j)});
            }
        }
        candidates.clear();
        this->entries_with(cells, candidates);
        keep_matches(candidates, position, 0, limit, seen, found, key_of,
                     [&](const std::vector<uint32>& key) { return pattern_matches(pattern, key, position); });
    }
    return true;
}

// Level by level, fewest edits first: the plain search for none, then for
// each number of edits every position in turn. Candidates at a position are
// the keys that hold, at the right place, a piece of the keyword that the
// edits left whole; the check on each key's characters decides.
//
// Which pieces: a run within e edits of the keyword is, once one of its
// swaps (of two adjacent characters; no two overlap) is applied to the
// keyword, or none, within s = e - swaps (0 or 1) other edits of that
// keyword. Cut it into s + 1 pieces: each substitution, insertion or
// deletion spoils one piece at most, so one comes through whole, shifted by
// the insertions less the deletions before it, at most s either way. Two
// swaps need not both be applied: cut in two halves, the keyword with one
// of them applied keeps a half whole unless the other swap straddles the
// middle, and two disjoint swaps cannot both do that.
void IndexReader::find_with_typos(const string& text, uint8 typos, uint16 limit, std::vector<Found>& found) const {
    std::vector<uint32> keyword;
    Utf8::decode_well_formed(reinterpret_cast<const uint8*>(text.data()), text.size(), keyword);
    uint32 budget = keyword.size() < 4 ? 0 : keyword.size() < 8 ? std::min<uint32>(typos, 1) : typos;
    std::vector<uint32> seen;  // ascending
    this->find_entries(text, limit, seen, found);
    uint32 last = this->horizon(keyword);
    std::vector<uint32> candidates, rows[3];
    auto key_of = [this](uint32 entry, Records::Key& key) { return this->entry_of(entry, key, nullptr); };
    std::vector<Cell> cells;
    // A piece at a place serves several positions (one per shift) and often
    // several variants of the keyword: its entries are kept until the
    // positions have passed it.
    std::map<std::pair<uint32, std::vector<uint32>>, std::vector<uint32>> pieces_at;
    for (uint32 edits = 1; edits <= budget && found.size() < limit; ++edits) {
        pieces_at.clear();
        for (uint32 position = 0; position < last + edits && position < Format::MAX_CELLS_PER_ROW && found.size() < limit;
             ++position) {
            while (!pieces_at.empty() && pieces_at.begin()->first.first + edits < position) {
                pieces_at.erase(pieces_at.begin());
            }
            candidates.clear();
            for (uint32 swaps = 0; swaps <= 1; ++swaps) {
                uint32 others = edits - swaps;
                std::vector<size_t> starts = piece_starts(keyword.size(), others + 1);
                with_swaps(keyword, 0, swaps, [&](const std::vector<uint32>& swapped) {
                    for (size_t piece = 0; piece + 1 < starts.size(); ++piece) {
                        for (int32_t shift = -static_cast<int32_t>(others); shift <= static_cast<int32_t>(others); ++shift) {
                            int64_t at = int64_t{position} + static_cast<int64_t>(starts[piece]) + shift;
                            if (at < 0) {
                                continue;
                            }
                            auto key = std::make_pair(static_cast<uint32>(at),
                                                      std::vector<uint32>(swapped.begin() + static_cast<std::ptrdiff_t>(starts[piece]),
                                                                          swapped.begin() + static_cast<std::ptrdiff_t>(starts[piece + 1])));
                            auto cached = pieces_at.find(key);
                            if (cached == pieces_at.end()) {
                                cells.clear();
                                for (size_t j = 0; j < key.second.size(); ++j) {
                                    cells.push_back(Cell{key.second[j], key.first + static_cast<uint32>(j)});
                                }
                                cached = pieces_at.emplace(std::move(key), std::vector<uint32>()).first;
                                this->entries_with(cells, cached->second);
                            }
                            candidates.insert(candidates.end(), cached->second.begin(), cached->second.end());
                        }
                    }
                });
            }
            std::sort(candidates.begin(), candidates.end());
            candidates.erase(std::unique(candidates.begin(), candidates.end()), candidates.end());
            keep_matches(candidates, position, edits, limit, seen, found, key_of, [&](const std::vector<uint32>& key) {
                return edits_from(keyword, key, position, edits, rows) <= edits;
            });
        }
    }
}

}  // namespace Lexarium::Reader
