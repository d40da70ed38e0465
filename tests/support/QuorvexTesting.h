// What the tests, the fuzz targets and the benchmarks share (the
// quorvex_testing library): byte arrays, whole files and temporary
// directories, and the brute-force searches the library's searches are
// compared with. Header only: each program links the build of the library it needs
// (the fuzz targets an instrumented one).
#ifndef QUORVEX_TESTING_H
#define QUORVEX_TESTING_H

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <functional>
#include <fstream>
#include <iterator>
#include <map>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <stdlib.h>
#include <sys/stat.h>

#include "Fold.h"
#include "Reader/IndexReader.h"
#include "Records.h"
#include "TypeDefinitions.h"
#include "Utf8.h"

namespace quorvex_testing {

// A new owning array of exactly the size of `bytes`, so that a read one byte
// past it is a sanitizer report.
inline Rc<ByteArray> make_bytes(const std::vector<uint8>& bytes) {
    Rc<ByteArray> array(new ByteArray(static_cast<uint32>(bytes.size())));
    if (!bytes.empty()) {
        std::memcpy(array->data, bytes.data(), bytes.size());
    }
    return array;
}

inline Rc<ByteArray> bytes_of(const std::string& text) { return make_bytes(std::vector<uint8>(text.begin(), text.end())); }

inline std::vector<uint8> concatenate(const std::vector<Rc<ByteArray>>& chunks) {
    std::vector<uint8> bytes;
    for (const Rc<ByteArray>& chunk : chunks) {
        bytes.insert(bytes.end(), chunk->data, chunk->data + chunk->length);
    }
    return bytes;
}

inline std::string hex(const std::string& bytes) {
    std::string out;
    for (unsigned char byte : bytes) {
        out += "0123456789abcdef"[byte >> 4];
        out += "0123456789abcdef"[byte & 15];
    }
    return out;
}

// The bytes of the file at `path`; empty, and `*readable` false, when it
// cannot be opened.
inline std::string file_contents(const std::string& path, bool* readable = nullptr) {
    std::ifstream in(path, std::ios::binary);
    std::string bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    if (readable != nullptr) {
        *readable = in.is_open() && !in.bad();
    }
    return bytes;
}

inline void make_file(const std::string& path, const std::string& bytes) { std::ofstream(path, std::ios::binary) << bytes; }

// A fresh directory under the system's temporary directory (`path` empty if
// none could be made), removed with everything in it (even if a test made it
// read-only) at the end of scope.
class TemporaryDirectory {
public:
    TemporaryDirectory() {
        std::string pattern = (std::filesystem::temp_directory_path() / "quorvex-test-XXXXXX").string();
        if (::mkdtemp(pattern.data()) != nullptr) {
            this->path = pattern;
        }
    }
    ~TemporaryDirectory() {
        ::chmod(this->path.c_str(), 0700);
        std::error_code ignored;
        std::filesystem::remove_all(this->path, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    std::string operator/(const std::string& name) const { return this->path + "/" + name; }

    std::string path;
};

typedef std::vector<std::pair<uint32, std::string>> KeyRecords;  // (data pointer, stored text)

// The key records of a key blob, in order, while they fit in it.
inline KeyRecords key_records(const uint8* blob, size_t size) {
    KeyRecords records;
    Lexarium::Records::Key key{};
    for (uint64_t at = 0; Lexarium::Records::Key::decode_from(blob, size, at, key); at += key.size()) {
        records.emplace_back(key.data_pointer, std::string(reinterpret_cast<const char*>(key.text), key.length));
    }
    return records;
}

// The byte offsets where the characters of `text` start, then text.size().
inline std::vector<size_t> character_starts(const std::string& text) {
    std::vector<size_t> starts;
    for (size_t i = 0; i < text.size(); ++i) {
        if (!Lexarium::Utf8::is_continuation(static_cast<uint8>(text[i]))) {
            starts.push_back(i);
        }
    }
    starts.push_back(text.size());
    return starts;
}

// ---- The brute-force search --------------------------------------------

// Whole characters from `from`, at most `count`, while the text stays
// within the 254 bytes a keyword may have.
inline std::string encode_within(const std::vector<uint32>& code_points, size_t from, size_t count) {
    std::string out;
    for (size_t i = from; i < code_points.size() && i < from + count; ++i) {
        std::string character = Lexarium::Utf8::encode(code_points[i]);
        if (out.size() + character.size() > 254) {
            break;
        }
        out += character;
    }
    return out;
}

// One key as the brute-force search sees it.
struct ReferenceKey {
    std::string stored;              // the key's bytes in key.bin
    std::vector<uint32> characters;  // every character the index lists it under, by position
    std::string value;
};

// A key added with `characters`, as key.bin holds it: whole characters
// while it fits in 254 bytes.
inline ReferenceKey reference_key(const std::vector<uint32>& characters, const std::string& value) {
    return ReferenceKey{encode_within(characters, 0, characters.size()), characters, value};
}

struct Hit {
    std::string key;
    std::string value;
    bool operator==(const Hit& other) const { return key == other.key && value == other.value; }
};

inline std::ostream& operator<<(std::ostream& out, const Hit& hit) { return out << '"' << hit.key << '"'; }

// The search by its rules alone, over `keys` in posting-list order: position
// by position, every key whose character at that position is the keyword's
// first and whose stored text holds the keyword's bytes from there. Each
// position is asked for what is still missing (modulo 2^16) and checks after
// appending, so limit 0 yields at most the first hit at position 0.
inline std::vector<Hit> reference_search(const std::vector<ReferenceKey>& keys, const std::string& keyword,
                                         uint32 first, uint16 limit) {
    // Every key at every position first (one pass, so that large sets stay
    // cheap), then the positions in order.
    std::vector<std::vector<const ReferenceKey*>> at(255);
    for (const ReferenceKey& key : keys) {
        const uint8* stored = reinterpret_cast<const uint8*>(key.stored.data());
        // A character past the stored text (a shortened key) starts at its
        // end, where no keyword fits. A byte that starts no character
        // stands for itself.
        for (size_t position = 0, start = 0; position < key.characters.size() && position < at.size(); ++position) {
            if (key.characters[position] == first && key.stored.compare(start, keyword.size(), keyword) == 0) {
                at[position].push_back(&key);
            }
            uint32 ignored = 0;
            size_t size = start < key.stored.size()
                              ? Lexarium::Utf8::read_character(stored + start, key.stored.size() - start, ignored)
                              : 0;
            start = std::min(key.stored.size(), start + (size == 0 ? 1 : size));
        }
    }
    std::vector<Hit> hits;
    uint32 total = 0;
    for (size_t position = 0; position < at.size() && (position == 0 || total < limit); ++position) {
        uint16 wanted = static_cast<uint16>(limit - total);
        uint16 found = 0;
        for (const ReferenceKey* key : at[position]) {
            hits.push_back(Hit{key->stored, key->value});
            if (++found >= wanted) {
                break;
            }
        }
        total += found;
    }
    return hits;
}

typedef Rc<std::vector<Rc<Lexarium::Reader::SearchResult>>> Results;

// Each result's key and value.
inline std::vector<Hit> result_hits(const std::vector<Rc<Lexarium::Reader::SearchResult>>& results) {
    std::vector<Hit> hits;
    for (const auto& result : results) {
        const ByteArray& key = *result->key;
        const ByteArray& value = *result->value;
        hits.push_back(Hit{std::string(reinterpret_cast<const char*>(key.data), key.length),
                           std::string(reinterpret_cast<const char*>(value.data), value.length)});
    }
    return hits;
}

// The key records the results point at, to compare two searches element for
// element.
inline std::vector<const uint8*> key_pointers(const std::vector<Rc<Lexarium::Reader::SearchResult>>& results) {
    std::vector<const uint8*> keys;
    for (const auto& result : results) {
        keys.push_back(result->key->data);
    }
    return keys;
}

// The search done literally, as the two-argument search is defined to
// behave: positions 0 to 254 one at a time through the public one-position
// search, each asked for what the limit leaves.
inline std::vector<const uint8*> literal_walk(Lexarium::Reader::IndexReader& reader, const std::string& keyword,
                                              uint16 limit) {
    std::vector<Rc<Lexarium::Reader::SearchResult>> walked;
    uint32 total = 0;
    uint32 visited = 0;
    for (uint32 position = 0; position <= 254 && (position == 0 || total < limit); ++position) {
        total += reader.search(keyword, static_cast<uint16>(limit - total), &walked, visited,
                               static_cast<uint8>(position));
    }
    return key_pointers(walked);
}

// ---- The brute-force find ------------------------------------------------

// An item as put into an IndexBuilder.
struct InputItem {
    std::string key;
    std::string value;
};

// One hit of find: the key as put in, the value, where the match begins and
// the edits it took.
struct FoundItem {
    std::string key;
    std::string value;
    uint32 position;
    uint32 edits = 0;
    bool operator==(const FoundItem& other) const {
        return key == other.key && value == other.value && position == other.position && edits == other.edits;
    }
};

inline std::ostream& operator<<(std::ostream& out, const FoundItem& hit) {
    return out << '"' << hit.key << "\"@" << hit.position << "+" << hit.edits;
}

inline std::vector<uint32> characters_of(const std::string& text) {
    std::vector<uint32> characters;
    Lexarium::Utf8::decode_well_formed(reinterpret_cast<const uint8*>(text.data()), text.size(), characters);
    return characters;
}

// Where a key matches, by its rules: the fewest edits, then the first
// character; none when it does not.
struct Match {
    uint32 edits;
    uint32 position;
};
typedef std::function<bool(const std::vector<uint32>& key, Match& best)> Matcher;

// The plain search: the first character from which the key holds `searched`.
inline Matcher plain_matcher(const std::string& searched) {
    std::vector<uint32> wanted = characters_of(searched);
    return [wanted](const std::vector<uint32>& key, Match& best) {
        for (size_t p = 0; !wanted.empty() && p + wanted.size() <= key.size(); ++p) {
            if (std::equal(wanted.begin(), wanted.end(), key.begin() + static_cast<std::ptrdiff_t>(p))) {
                best = Match{0, static_cast<uint32>(p)};
                return true;
            }
        }
        return false;
    };
}

// Typos: every run of the key against the keyword, within `budget` edits:
// from each start, the edit table of the keyword against the key's
// characters from there, whose last row holds every run's edits (a run
// longer than the keyword by more than the budget never is within it).
inline Matcher typo_matcher(const std::string& searched, uint32 budget) {
    std::vector<uint32> wanted = characters_of(searched);
    return [wanted, budget](const std::vector<uint32>& key, Match& best) {
        size_t n = wanted.size();
        std::vector<uint32> d((n + 1) * (n + budget + 1));
        bool any = false;
        for (size_t s = 0; s <= key.size(); ++s) {
            size_t m = std::min(key.size() - s, n + budget);
            auto at = [&](size_t i, size_t j) -> uint32& { return d[i * (n + budget + 1) + j]; };
            for (size_t i = 0; i <= n; ++i) {
                for (size_t j = 0; j <= m; ++j) {
                    if (i == 0 || j == 0) {
                        at(i, j) = static_cast<uint32>(i + j);
                        continue;
                    }
                    const uint32* b = key.data() + s;
                    at(i, j) = std::min({at(i - 1, j) + 1, at(i, j - 1) + 1,
                                         at(i - 1, j - 1) + (wanted[i - 1] == b[j - 1] ? 0u : 1u)});
                    if (i > 1 && j > 1 && wanted[i - 1] == b[j - 2] && wanted[i - 2] == b[j - 1]) {
                        at(i, j) = std::min(at(i, j), at(i - 2, j - 2) + 1);
                    }
                }
            }
            for (size_t j = 0; j <= m; ++j) {
                uint32 e = at(n, j);
                if (e <= budget && (!any || e < best.edits)) {
                    best = Match{e, static_cast<uint32>(s)};
                    any = true;
                }
            }
        }
        return any;
    };
}

// A pattern already parsed: characters, UINT32_MAX for "?", and anchors.
inline Matcher pattern_matcher(const std::vector<uint32>& pattern, bool at_start, bool at_end) {
    return [=](const std::vector<uint32>& key, Match& best) {
        for (size_t p = 0; p + pattern.size() <= key.size() && (p == 0 || !at_start); ++p) {
            bool matches = !at_end || p + pattern.size() == key.size();
            for (size_t j = 0; j < pattern.size() && matches; ++j) {
                matches = pattern[j] == UINT32_MAX || pattern[j] == key[p + j];
            }
            if (matches) {
                best = Match{0, static_cast<uint32>(p)};
                return true;
            }
        }
        return false;
    };
}

// find by its rules alone, over the items as given to an IndexBuilder (all
// of them accepted): entries are the folded keys (or, exact, the keys, the
// last value winning); each entry at its best match; entries by edits, then
// position, then key bytes; within an entry the items whose key holds the
// keyword as typed (`typed`) first, then the rest, in input order.
inline std::vector<FoundItem> reference_find(const std::vector<InputItem>& items, bool folded, const Matcher& matches,
                                             const std::string& typed, uint16 limit) {
    std::map<std::string, std::vector<const InputItem*>> entries;
    for (const InputItem& item : items) {
        std::string stored = item.key;
        if (folded) {
            Lexarium::fold(item.key, &stored);
            entries[stored].push_back(&item);
        } else {
            entries[stored] = {&item};
        }
    }
    std::vector<std::pair<Match, const std::string*>> found;
    for (const auto& entry : entries) {
        Match best{};
        if (matches(characters_of(entry.first), best)) {
            found.emplace_back(best, &entry.first);
        }
    }
    std::stable_sort(found.begin(), found.end(), [](const auto& a, const auto& b) {
        return std::make_pair(a.first.edits, a.first.position) < std::make_pair(b.first.edits, b.first.position);
    });
    std::vector<FoundItem> hits;
    for (const auto& match : found) {
        std::vector<const InputItem*> group = entries[*match.second];
        std::stable_partition(group.begin(), group.end(), [&](const InputItem* item) {
            return !folded || item->key.find(typed) != std::string::npos;
        });
        for (const InputItem* item : group) {
            hits.push_back(FoundItem{item->key, item->value, match.first.position, match.first.edits});
        }
    }
    if (hits.size() > limit) {
        hits.resize(limit);
    }
    return hits;
}

inline std::vector<FoundItem> found_items(const std::vector<Lexarium::Reader::Hit>& hits) {
    std::vector<FoundItem> out;
    for (const auto& hit : hits) {
        out.push_back(FoundItem{std::string(hit.key), std::string(hit.value), hit.position, hit.edits});
    }
    return out;
}

}  // namespace quorvex_testing

#endif
