// find(): the search that returns each item once, folded or exact, and
// never stops the process over its keyword.
#include <algorithm>
#include <new>

#include "Fold.h"
#include "Reader/IndexReader.h"
#include "Reader/SearchParts.h"
#include "Utf8.h"

namespace Lexarium::Reader {

using std::string;

namespace {

bool is_space(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v'; }

std::string trimmed(const std::string& text) {
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

// The entries that hold `text`, each once, at most `limit` of them, with the
// position of each: position by position as search() goes, each position
// told which entries earlier ones found so that it passes them over.
void IndexReader::find_entries(const string& text, uint16 limit, std::vector<Rc<SearchResult>>& entries,
                               std::vector<uint8>& positions) const {
    Keyword prepared = this->prepare(text);
    std::vector<uint32> found;  // key record offsets, ascending
    prepared.found = &found;
    int32_t last = this->last_position(prepared);
    bool intersect = prepared.characters.size() >= 2;
    Scratch scratch;
    scratch.steps_left = ENTRY_BY_ENTRY_STEPS;
    scratch.chunk_size = 0;
    for (int32_t char_position = 0; char_position <= last && entries.size() < limit; ++char_position) {
        size_t before = entries.size();
        uint16 remaining = static_cast<uint16>(limit - entries.size());
        uint8 position = static_cast<uint8>(char_position);
        if (intersect) {
            this->search_intersecting(prepared, remaining, &entries, position, scratch);
        } else {
            this->search_one_character(prepared, remaining, &entries, position);
        }
        positions.resize(entries.size(), position);
        // The new entries ascend (key order is key.bin order): merge them in.
        size_t middle = found.size();
        for (size_t i = before; i < entries.size(); ++i) {
            found.push_back(static_cast<uint32>(entries[i]->key->data - this->key_bytes->data) -
                            Format::KEY_RECORD_HEADER_SIZE);
        }
        std::inplace_merge(found.begin(), found.begin() + static_cast<std::ptrdiff_t>(middle), found.end());
    }
}

// Appends the items of one entry found at `position`: of a folded index,
// those whose key holds the keyword as typed first, then the rest, each
// group in input order; of an exact index, the entry itself.
void IndexReader::add_items(const SearchResult& entry, uint8 position, const string& typed, uint16 limit,
                            std::vector<Hit>& hits) const {
    std::string_view key = view_of(entry.key->data, entry.key->length);
    std::string_view value = view_of(entry.value->data, entry.value->length);
    if (this->folding_version == 0) {
        hits.push_back(Hit{key, value, position});
        return;
    }
    size_t first = hits.size();
    for (uint64_t offset = 0; offset < value.size();) {
        Records::Pair pair;
        if (!Records::Pair::decode_from(entry.value->data, value.size(), offset, pair)) {
            this->passed_over[DATA].fetch_add(1, std::memory_order_relaxed);
            break;
        }
        std::string_view original = pair.first_length == 0 ? key : view_of(pair.first, pair.first_length);
        hits.push_back(Hit{original, view_of(pair.second, pair.second_length), position});
        offset += pair.size();
    }
    auto exactly_typed = [&typed](const Hit& hit) { return hit.key.find(typed) != std::string_view::npos; };
    std::stable_partition(hits.begin() + static_cast<std::ptrdiff_t>(first), hits.end(), exactly_typed);
    if (hits.size() > limit) {
        hits.resize(limit);
    }
}

bool IndexReader::find(const string& keyword, const SearchOptions& options, std::vector<Hit>& hits,
                       string* error) const {
    try {
        hits.clear();
        string text;
        if (!this->searched_form(keyword, text, error)) {
            return false;
        }
        if (text.empty() || options.limit == 0) {
            return true;
        }
        std::vector<Rc<SearchResult>> entries;
        std::vector<uint8> positions;
        this->find_entries(text, options.limit, entries, positions);
        string typed = trimmed(keyword);
        for (size_t i = 0; i < entries.size() && hits.size() < options.limit; ++i) {
            this->add_items(*entries[i], positions[i], typed, options.limit, hits);
        }
        return true;
    } catch (const std::bad_alloc&) {
        hits.clear();
        if (error != nullptr) {
            *error = "out of memory";
        }
        return false;
    }
}

}  // namespace Lexarium::Reader
