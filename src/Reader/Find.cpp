// find(): the search that returns each item once, folded or exact, plain,
// as a pattern or with typos, and never stops the process over what it is
// asked. The plain search is here; patterns and typos are in Approximate.cpp.
#include <algorithm>
#include <cstring>
#include <new>

#include "Fold.h"
#include "Reader/IndexReader.h"
#include "Reader/MappedIndex.h"
#include "Reader/SearchParts.h"
#include "Utf8.h"

namespace Lexarium::Reader {

using std::string;

namespace {

bool is_space(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v'; }

string trimmed(const string& text) {
    size_t begin = 0;
    size_t end = text.size();
    while (begin < end && is_space(text[begin])) {
        ++begin;
    }
    while (end > begin && is_space(text[end - 1])) {
        --end;
    }
    return text.substr(begin, end - begin);
}

std::string_view view_of(const uint8* bytes, size_t length) {
    return std::string_view(reinterpret_cast<const char*>(bytes), length);
}

}  // namespace

// The description is the value of the empty key, which sorts first: the
// key record at offset 0 of key.bin. Every record is checked, so a damaged
// or foreign file set simply has no description.
void IndexReader::read_description() {
    Records::Key key;
    Records::Value value;
    if (!Records::decode_from(*this->key_bytes, 0, key) || key.length != 0 ||
        !Records::decode_from(*this->data_bytes, key.data_pointer, value)) {
        return;
    }
    IndexDescription::decode(value.bytes, value.length, this->described);
    this->folding_version = this->described.folding();
}

// The keyword as the index stores keys: folded for a folded index, else
// without white space at both ends; checked so that no search can stop the
// process over it.
bool IndexReader::searched_form(const string& keyword, string& text, string* error) const {
    string why;
    std::vector<uint32> characters;
    if (this->folding_version != 0) {
        if (!fold(keyword, &text, &why)) {
            why = "the keyword is not valid UTF-8 (" + why + ")";
        }
    } else {
        text = trimmed(keyword);
        if (!Utf8::decode_well_formed(reinterpret_cast<const uint8*>(text.data()), text.size(), characters)) {
            why = "the keyword is not valid UTF-8";
        }
    }
    if (why.empty() && text.size() >= 255) {
        why = "the keyword has " + std::to_string(text.size()) + " bytes" +
              (this->folding_version != 0 ? " once folded" : "") + "; keys hold at most 254";
    }
    characters.clear();
    if (why.empty() && !Utf8::decode_indexable(reinterpret_cast<const uint8*>(text.data()), text.size(), characters)) {
        why = "the keyword holds a character outside U+0001..U+FFFE, which no key can hold";
    }
    if (!why.empty() && error != nullptr) {
        *error = why;
    }
    return why.empty();
}

// Every occurrence of the keyword, as (character position << 32 | key
// record offset), ascending: the order of the posting-list walk. False when
// there is no suffix array, the keyword is not one a key could hold, it
// occurs more than `most` times, or an entry read was damaged (counted).
bool IndexReader::suffix_occurrences(const Keyword& keyword, uint32 most, std::vector<uint64_t>& occurrences) const {
    std::vector<uint32> characters;
    const uint8* text = reinterpret_cast<const uint8*>(keyword.text.data());
    if (this->suffixes.empty() || keyword.text.empty() ||
        !Utf8::decode_indexable(text, keyword.text.size(), characters)) {
        return false;
    }
    uint32 first, last;
    if (!this->suffixes.range(this->key_bytes->data, this->key_bytes->length, keyword.text, first, last)) {
        this->passed_over[SUFFIX].fetch_add(1, std::memory_order_relaxed);
        return false;
    }
    if (last - first > most) {
        return false;
    }
    occurrences.clear();
    occurrences.reserve(last - first);
    for (uint32 i = first; i < last; ++i) {
        Records::Suffix suffix = this->suffixes.at(i);
        occurrences.push_back(uint64_t{suffix.position} << 32 | suffix.key);
    }
    std::sort(occurrences.begin(), occurrences.end());
    return true;
}

// Whether the key at `entry` holds `text` from character `position` on. An
// occurrence the suffix array gives always does, unless suffix.bin is
// damaged: such an entry is counted and passed over.
bool IndexReader::holds_at(uint32 entry, uint8 position, const string& text) const {
    Records::Key key;
    if (!this->entry_of(entry, key, nullptr)) {
        return false;
    }
    uint32 byte = Utf8::char_byte_offset(key.text, key.length, position);
    if (key.length - byte < text.size() || std::memcmp(key.text + byte, text.data(), text.size()) != 0) {
        this->passed_over[SUFFIX].fetch_add(1, std::memory_order_relaxed);
        return false;
    }
    return true;
}

// find_entries() from the suffix array: each key at its first position, the
// first `limit` of them by position, then key order.
bool IndexReader::find_by_suffixes(const Keyword& keyword, uint16 limit, std::vector<uint32>& seen,
                                   std::vector<Found>& found) const {
    std::vector<uint64_t> occurrences;
    if (!this->suffix_occurrences(keyword, suffix_plan_limit(limit), occurrences)) {
        return false;
    }
    std::vector<uint64_t> by_key;  // key << 8 | position
    by_key.reserve(occurrences.size());
    for (uint64_t occurrence : occurrences) {
        by_key.push_back(uint64_t{static_cast<uint32>(occurrence)} << 8 | occurrence >> 32);
    }
    std::sort(by_key.begin(), by_key.end());
    occurrences.clear();
    for (size_t i = 0; i < by_key.size(); ++i) {
        if (i == 0 || by_key[i] >> 8 != by_key[i - 1] >> 8) {
            occurrences.push_back((by_key[i] & 0xFF) << 32 | by_key[i] >> 8);
        }
    }
    std::sort(occurrences.begin(), occurrences.end());
    for (size_t i = 0; i < occurrences.size() && found.size() < limit; ++i) {
        uint32 entry = static_cast<uint32>(occurrences[i]);
        if (this->holds_at(entry, static_cast<uint8>(occurrences[i] >> 32), keyword.text)) {
            found.push_back(Found{entry, static_cast<uint8>(occurrences[i] >> 32), 0});
            seen.push_back(entry);
        }
    }
    std::sort(seen.begin(), seen.end());
    return true;
}

// The entries that hold `text` and are not in `seen` (ascending key record
// offsets, which gains them), each once, at most `limit` of them, with
// the position of each: position by position as search() goes, each
// position told which entries earlier ones found so that it passes them
// over.
void IndexReader::find_entries(const string& text, uint16 limit, std::vector<uint32>& seen,
                               std::vector<Found>& found) const {
    Keyword prepared = this->prepare(text);
    if (this->find_by_suffixes(prepared, limit, seen, found)) {
        return;
    }
    prepared.found = &seen;
    int32_t last = this->last_position(prepared);
    bool intersect = prepared.characters.size() >= 2;
    Scratch scratch;
    scratch.steps_left = ENTRY_BY_ENTRY_STEPS;
    scratch.chunk_size = 0;
    std::vector<Rc<SearchResult>> entries;
    for (int32_t char_position = 0; char_position <= last && found.size() < limit; ++char_position) {
        uint16 remaining = static_cast<uint16>(limit - found.size());
        uint8 position = static_cast<uint8>(char_position);
        entries.clear();
        if (intersect) {
            this->search_intersecting(prepared, remaining, &entries, position, scratch);
        } else {
            this->search_one_character(prepared, remaining, &entries, position);
        }
        // The new entries ascend (key order is key.bin order): merge them in.
        size_t middle = seen.size();
        for (const Rc<SearchResult>& entry : entries) {
            uint32 offset = static_cast<uint32>(entry->key->data - this->key_bytes->data) - Format::KEY_RECORD_HEADER_SIZE;
            found.push_back(Found{offset, position, 0});
            seen.push_back(offset);
        }
        std::inplace_merge(seen.begin(), seen.begin() + static_cast<std::ptrdiff_t>(middle), seen.end());
    }
}

// The key record of the entry at `entry` and, when `value` is not null, its
// value record, checked as a search checks them; false (counted as damage)
// when one lies outside its file.
bool IndexReader::entry_of(uint32 entry, Records::Key& key, Records::Value* value) const {
    if (!Records::decode_from(*this->key_bytes, entry, key)) {
        bool starts_inside = uint64_t{entry} + Format::KEY_RECORD_HEADER_SIZE <= this->key_bytes->length;
        this->outside(*this->key_bytes, starts_inside ? KEY : INDEX);
        return false;
    }
    if (value != nullptr && !Records::decode_from(*this->data_bytes, key.data_pointer, *value)) {
        bool starts_inside = uint64_t{key.data_pointer} + Format::VALUE_RECORD_HEADER_SIZE <= this->data_bytes->length;
        this->outside(*this->data_bytes, starts_inside ? DATA : KEY);
        return false;
    }
    return true;
}

// Appends the items of one entry in input order: of a folded index, every
// (key, value) pair its value holds, a pair without a key of its own taking
// the entry's key; of an exact index, the entry itself.
void IndexReader::expand_entry(std::string_view key, std::string_view value, uint8 position, uint8 edits,
                               std::vector<Hit>& hits) const {
    if (this->folding_version == 0) {
        hits.push_back(Hit{key, value, position, edits});
        return;
    }
    const uint8* bytes = reinterpret_cast<const uint8*>(value.data());
    for (uint64_t offset = 0; offset < value.size();) {
        Records::Pair pair;
        if (!Records::Pair::decode_from(bytes, value.size(), offset, pair)) {
            this->passed_over[DATA].fetch_add(1, std::memory_order_relaxed);
            break;
        }
        std::string_view original = pair.first_length == 0 ? key : view_of(pair.first, pair.first_length);
        hits.push_back(Hit{original, view_of(pair.second, pair.second_length), position, edits});
        offset += pair.size();
    }
}

// The items of one found entry, those whose key holds the keyword as typed
// first, each group in input order.
void IndexReader::add_items(std::string_view key, std::string_view value, const Found& found, const string& typed,
                            uint16 limit, std::vector<Hit>& hits) const {
    size_t first = hits.size();
    this->expand_entry(key, value, found.position, found.edits, hits);
    auto exactly_typed = [&typed](const Hit& hit) { return hit.key.find(typed) != std::string_view::npos; };
    std::stable_partition(hits.begin() + static_cast<std::ptrdiff_t>(first), hits.end(), exactly_typed);
    if (hits.size() > limit) {
        hits.resize(limit);
    }
}

// Key records lie back to back in key order, so the walk is a read of
// key.bin from the front; the empty key (the description) is skipped.
bool IndexReader::next_items(uint64_t& cursor, size_t batch, std::vector<Hit>& items) const {
    size_t before = items.size();
    size_t wanted = before + batch;
    while (items.size() < wanted && cursor < this->key_bytes->length) {
        Records::Key key;
        Records::Value value;
        if (!this->entry_of(static_cast<uint32>(cursor), key, &value)) {
            cursor = this->key_bytes->length;
            break;
        }
        cursor += key.size();
        if (key.length != 0) {
            this->expand_entry(view_of(key.text, key.length), view_of(value.bytes, value.length), 0, 0, items);
        }
    }
    return items.size() > before || cursor < this->key_bytes->length;
}

uint64_t IndexReader::item_count() const {
    const string& stored = this->described.get("items");
    if (!stored.empty() && stored.size() < 20 &&
        stored.find_first_not_of("0123456789") == string::npos) {
        return std::stoull(stored);
    }
    uint64_t count = 0;
    std::vector<Hit> items;
    for (uint64_t cursor = 0; cursor < this->key_bytes->length;) {
        items.clear();
        this->next_items(cursor, 4096, items);
        count += items.size();
    }
    return count;
}

bool IndexReader::find(const string& keyword, const SearchOptions& options, std::vector<Hit>& hits,
                       string* error) const {
    try {
        hits.clear();
        std::vector<Found> found;
        string typed;  // what items of one entry are ordered by
        if (options.mode != MatchMode::Plain && options.mode != MatchMode::Pattern) {
            return this->fail("unknown match mode", error);
        }
        if (options.mode == MatchMode::Pattern) {
            if (options.typos != 0) {
                return this->fail("typos do not combine with a pattern", error);
            }
            if (!this->find_pattern(keyword, options.limit, found, error)) {
                return false;
            }
        } else {
            string text;
            if (options.typos > 2) {
                return this->fail("at most 2 typos can be forgiven", error);
            }
            if (!this->searched_form(keyword, text, error)) {
                return false;
            }
            if (text.empty() || options.limit == 0) {
                return true;
            }
            typed = trimmed(keyword);
            if (options.typos == 0) {
                std::vector<uint32> seen;
                this->find_entries(text, options.limit, seen, found);
            } else {
                this->find_with_typos(text, options.typos, options.limit, found);
            }
        }
        for (size_t i = 0; i < found.size() && hits.size() < options.limit; ++i) {
            Records::Key key;
            Records::Value value;
            if (this->entry_of(found[i].entry, key, &value)) {
                this->add_items(view_of(key.text, key.length), view_of(value.bytes, value.length), found[i], typed,
                                options.limit, hits);
            }
        }
        return true;
    } catch (const std::bad_alloc&) {
        hits.clear();
        return this->fail("out of memory", error);
    }
}

const std::string& IndexReader::suffix_array_problem() const {
    static const std::string none;
    return this->mapping != nullptr ? this->mapping->suffix_problem : none;
}

bool IndexReader::fail(const char* why, string* error) const {
    if (error != nullptr) {
        *error = why;
    }
    return false;
}

}  // namespace Lexarium::Reader
