#include "CompareContenders.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <set>
#include <stdexcept>
#include <unordered_map>

#include <divsufsort.h>
#include <sqlite3.h>

#include "Fold.h"
#include "Format.h"
#include "Reader/IndexReader.h"
#include "Records.h"
#include "Writer/IndexBuilder.h"
#include "Writer/IndexWriter.h"

namespace Lexarium::Bench::Compare {

namespace {

// Writes the index of `writer` into `directory` with its suffix array, as
// the tool builds it (without the tool's flushing to disk).
void write_index(Writer::IndexWriter& writer, const std::string& directory) {
    Rc<Writer::_IndexData> blobs = writer.to_bytes();
    blobs->add_suffix_array();
    const std::pair<const char*, const std::vector<Rc<ByteArray>>*> files[] = {
        {Format::TABLE_FILE_NAME, &blobs->table_chunks}, {Format::INDEX_FILE_NAME, &blobs->index_chunks},
        {Format::KEY_FILE_NAME, &blobs->key_chunks},     {Format::DATA_FILE_NAME, &blobs->data_chunks},
        {Format::SUFFIX_FILE_NAME, &blobs->suffix_chunks}};
    for (const auto& [name, chunks] : files) {
        FILE* file = std::fopen((directory + name).c_str(), "wb");
        bool written = file != nullptr;
        for (const Rc<ByteArray>& chunk : *chunks) {
            written = written && std::fwrite(chunk->data, 1, chunk->length, file) == chunk->length;
        }
        if (file == nullptr || std::fclose(file) != 0 || !written) {
            throw std::runtime_error(directory + name + ": cannot write");
        }
    }
}

// A mapped reader, as applications and the tool open indexes.
Rc<Reader::IndexReader> open_mapped(const std::string& directory) {
    std::string error;
    Rc<Reader::IndexReader> reader = Reader::IndexReader::from_directory_mapped(directory, &error);
    if (reader.is_null()) {
        throw std::runtime_error(error);
    }
    return reader;
}

// ---- Files ------------------------------------------------------------------

std::string read_whole_file(const std::string& path) {
    FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) {
        throw std::runtime_error(path + ": " + std::strerror(errno));
    }
    std::string bytes;
    if (std::fseek(file, 0, SEEK_END) == 0) {
        long size = std::ftell(file);
        if (size > 0) {
            bytes.resize(static_cast<size_t>(size));
        }
        std::rewind(file);
    }
    size_t done = std::fread(bytes.data(), 1, bytes.size(), file);
    bool failed = done != bytes.size() || std::ferror(file) != 0;
    std::fclose(file);
    if (failed) {
        throw std::runtime_error(path + ": read failed");
    }
    return bytes;
}

void write_whole_file(const std::string& path, const void* data, size_t size) {
    FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) {
        throw std::runtime_error(path + ": " + std::strerror(errno));
    }
    bool failed = size != 0 && std::fwrite(data, 1, size, file) != size;
    failed = std::fclose(file) != 0 || failed;
    if (failed) {
        throw std::runtime_error(path + ": write failed");
    }
}

template <typename T>
std::vector<T> read_array(const std::string& path) {
    std::string bytes = read_whole_file(path);
    if (bytes.size() % sizeof(T) != 0) {
        throw std::runtime_error(path + ": size is not a multiple of " + std::to_string(sizeof(T)));
    }
    std::vector<T> array(bytes.size() / sizeof(T));
    std::memcpy(array.data(), bytes.data(), bytes.size());
    return array;
}

// ---- Flat items: what the scan and the suffix array keep on disk ------------

// keys.txt:          the stored keys in key order, each followed by a NUL
// values.bin:        the values in key order, back to back
// value_offsets.bin: n + 1 native uint32 offsets into values.bin
struct FlatItems {
    std::string keys;
    std::vector<uint32_t> key_starts;  // n + 1: key k is keys[key_starts[k] .. key_starts[k + 1] - 1)
    std::string values;
    std::vector<uint32_t> value_offsets;

    size_t size() const { return this->key_starts.empty() ? 0 : this->key_starts.size() - 1; }

    std::string_view key(size_t k) const {
        return std::string_view(this->keys).substr(this->key_starts[k], this->key_starts[k + 1] - 1 - this->key_starts[k]);
    }

    std::string_view value(size_t k) const {
        return std::string_view(this->values).substr(this->value_offsets[k], this->value_offsets[k + 1] - this->value_offsets[k]);
    }
};

std::string joined_stored_keys(const Dictionary& dictionary) {
    std::string joined;
    for (const std::string& key : dictionary.stored) {
        joined += key;
        joined += '\0';
    }
    return joined;
}

void write_flat_items(const Dictionary& dictionary, const std::string& directory, const std::string& joined_keys) {
    if (joined_keys.size() >= UINT32_MAX) {
        throw std::runtime_error("keys too large for 32-bit offsets");
    }
    write_whole_file(directory + "/keys.txt", joined_keys.data(), joined_keys.size());
    std::vector<uint32_t> offsets;
    offsets.reserve(dictionary.values.size() + 1);
    uint64_t offset = 0;
    FILE* file = std::fopen((directory + "/values.bin").c_str(), "wb");
    if (file == nullptr) {
        throw std::runtime_error(directory + "/values.bin: " + std::strerror(errno));
    }
    bool failed = false;
    for (const std::string& value : dictionary.values) {
        offsets.push_back(static_cast<uint32_t>(offset));
        failed = failed || (!value.empty() && std::fwrite(value.data(), 1, value.size(), file) != value.size());
        offset += value.size();
    }
    failed = std::fclose(file) != 0 || failed || offset >= UINT32_MAX;
    if (failed) {
        throw std::runtime_error(directory + "/values.bin: write failed");
    }
    offsets.push_back(static_cast<uint32_t>(offset));
    write_whole_file(directory + "/value_offsets.bin", offsets.data(), offsets.size() * sizeof(uint32_t));
}

FlatItems read_flat_items(const std::string& directory) {
    FlatItems items;
    items.keys = read_whole_file(directory + "/keys.txt");
    const char* text = items.keys.data();
    size_t length = items.keys.size();
    items.key_starts.push_back(0);
    for (const char* at = text; at < text + length;) {
        const char* end = static_cast<const char*>(std::memchr(at, '\0', static_cast<size_t>(text + length - at)));
        if (end == nullptr) {
            throw std::runtime_error(directory + "/keys.txt: the last key has no NUL");
        }
        at = end + 1;
        items.key_starts.push_back(static_cast<uint32_t>(at - text));
    }
    items.values = read_whole_file(directory + "/values.bin");
    items.value_offsets = read_array<uint32_t>(directory + "/value_offsets.bin");
    if (items.value_offsets.size() != items.key_starts.size() || items.value_offsets.back() != items.values.size()) {
        throw std::runtime_error(directory + ": keys and values do not belong together");
    }
    return items;
}

void verify_flat_items(const FlatItems& items, const Dictionary& dictionary) {
    if (items.size() != dictionary.stored.size()) {
        throw std::runtime_error("flat files hold " + std::to_string(items.size()) + " items, expected " +
                                 std::to_string(dictionary.stored.size()));
    }
    for (size_t k = 0; k < items.size(); ++k) {
        if (items.key(k) != dictionary.stored[k] || items.value(k) != dictionary.values[k]) {
            throw std::runtime_error("flat files differ at item " + std::to_string(k));
        }
    }
}

// Code points of `key` before byte `offset`: the position of a hit at
// `offset` (a valid UTF-8 keyword only matches at code point starts).
uint32_t position_of(const char* key, const char* hit) {
    uint32_t position = 0;
    for (const char* at = key; at < hit; ++at) {
        position += is_continuation_byte(*at) ? 0 : 1;
    }
    return position;
}

constexpr uint64_t pack(uint32_t position, uint32_t key) { return (uint64_t{position} << 32) | key; }
constexpr uint32_t key_of(uint64_t packed) { return static_cast<uint32_t>(packed); }

// ---- Quorvex ----------------------------------------------------------------

class QuorvexContender : public Contender {
public:
    std::string name() const override { return "quorvex"; }
    bool index_order() const override { return true; }

    void build(const Dictionary& dictionary, const std::string& directory) override {
        Writer::IndexWriter writer;
        for (size_t k = 0; k < dictionary.keys.size(); ++k) {
            // The value is borrowed, not copied: the dictionary outlives the
            // writer, and the build copies the bytes into data.bin.
            const std::string& value = dictionary.values[k];
            Rc<ByteArray> bytes(
                new ByteArray(reinterpret_cast<uint8*>(const_cast<char*>(value.data())), static_cast<uint32>(value.size())));
            bytes->is_borrowed = true;
            writer.add_word(dictionary.keys[k], bytes);
        }
        write_index(writer, directory);
    }

    void load(const std::string& directory) override { this->reader = open_mapped(directory); }

    void unload() override {
        this->release();
        this->reader = Rc<Reader::IndexReader>();
    }

    size_t search(const std::string& keyword, uint32_t limit) override {
        this->results = this->reader->search(keyword, static_cast<uint16>(std::min<uint32_t>(limit, 65535)));
        return this->results->size();
    }

    std::vector<uint32_t> answer_keys() const override {
        if (this->key_offsets.empty()) {
            throw std::logic_error("verify() maps key records to key numbers; call it first");
        }
        std::vector<uint32_t> keys;
        const uint8* key_blob = this->reader->key_bytes->data;
        for (const Rc<Reader::SearchResult>& result : *this->results) {
            uint32_t offset = static_cast<uint32_t>(result->key->data - key_blob) - Format::KEY_RECORD_HEADER_SIZE;
            auto found = std::lower_bound(this->key_offsets.begin(), this->key_offsets.end(), offset);
            if (found == this->key_offsets.end() || *found != offset) {
                throw std::runtime_error("a result that is not at a key record");
            }
            keys.push_back(static_cast<uint32_t>(found - this->key_offsets.begin()));
        }
        return keys;
    }

    void release() override { this->results = Results(); }

    // Walks key.bin with the format's codec: every record must hold the
    // stored key and point at the value of the same item. Notes where each
    // key record starts.
    void verify(const Dictionary& dictionary) override {
        const ByteArray& keys = *this->reader->key_bytes;
        const ByteArray& data = *this->reader->data_bytes;
        this->key_offsets.clear();
        uint64_t offset = 0;
        for (size_t k = 0; k < dictionary.stored.size(); ++k) {
            Records::Key key;
            if (!Records::decode_from(keys, offset, key)) {
                throw std::runtime_error("key.bin ends inside the record of item " + std::to_string(k));
            }
            if (std::string_view(reinterpret_cast<const char*>(key.text), key.length) != dictionary.stored[k]) {
                throw std::runtime_error("key.bin differs from the stored keys at item " + std::to_string(k));
            }
            Records::Value value;
            if (!Records::decode_from(data, key.data_pointer, value)) {
                throw std::runtime_error("data.bin ends inside the value of item " + std::to_string(k));
            }
            if (std::string_view(reinterpret_cast<const char*>(value.bytes), value.length) != dictionary.values[k]) {
                throw std::runtime_error("data.bin differs from the values at item " + std::to_string(k));
            }
            this->key_offsets.push_back(static_cast<uint32_t>(offset));
            offset += key.size();
        }
        if (offset != keys.length) {
            throw std::runtime_error("key.bin holds more than the items");
        }
    }

private:
    typedef Rc<std::vector<Rc<Reader::SearchResult>>> Results;

    Rc<Reader::IndexReader> reader;
    Results results;
    std::vector<uint32_t> key_offsets;  // key number -> offset of its record in key.bin
};

// ---- The scan ---------------------------------------------------------------

// memmem over all stored keys at once (NUL-joined, so no hit spans two
// keys): every occurrence, overlapping ones too, in key order; a counting
// sort by code point position then gives the index's order (stable, so key
// order within a position), cut at the limit. It cannot stop early.
class ScanContender : public Contender {
public:
    std::string name() const override { return "scan"; }
    bool index_order() const override { return true; }

    void build(const Dictionary& dictionary, const std::string& directory) override {
        write_flat_items(dictionary, directory, joined_stored_keys(dictionary));
    }

    void load(const std::string& directory) override { this->items = read_flat_items(directory); }

    void unload() override {
        this->release();
        this->items = FlatItems();
    }

    size_t search(const std::string& keyword, uint32_t limit) override {
        const char* text = this->items.keys.data();
        const char* end = text + this->items.keys.size();
        const uint32_t* starts = this->items.key_starts.data();
        std::vector<uint64_t> hits;  // (position, key) in key order
        std::array<uint32_t, 256> per_position{};
        uint32_t key = 0;
        for (const char* at = static_cast<const char*>(memmem(text, this->items.keys.size(), keyword.data(), keyword.size()));
             at != nullptr;
             at = static_cast<const char*>(memmem(at + 1, static_cast<size_t>(end - at - 1), keyword.data(), keyword.size()))) {
            uint32_t offset = static_cast<uint32_t>(at - text);
            while (starts[key + 1] <= offset) {
                ++key;
            }
            uint32_t position = position_of(text + starts[key], at);
            ++per_position[position];
            hits.push_back(pack(position, key));
        }
        size_t count = std::min<size_t>(hits.size(), limit);
        std::array<uint32_t, 256> next{};
        for (size_t p = 1; p < next.size(); ++p) {
            next[p] = next[p - 1] + per_position[p - 1];
        }
        this->answer.assign(count, 0);
        for (uint64_t hit : hits) {
            uint32_t slot = next[hit >> 32]++;
            if (slot < count) {
                this->answer[slot] = key_of(hit);
            }
        }
        return this->answer.size();
    }

    std::vector<uint32_t> answer_keys() const override { return this->answer; }
    void release() override { std::vector<uint32_t>().swap(this->answer); }
    void verify(const Dictionary& dictionary) override { verify_flat_items(this->items, dictionary); }

private:
    FlatItems items;
    std::vector<uint32_t> answer;
};

// ---- Suffix array -----------------------------------------------------------

// divsufsort over the NUL-joined stored keys. A search finds the range of
// suffixes that begin with the keyword by binary search, maps each to its
// key (binary search over the key starts) and code point position, and
// sorts (position, key) to give the index's order, cut at the limit.
class SuffixArrayContender : public Contender {
public:
    std::string name() const override { return "suffix array"; }
    bool index_order() const override { return true; }

    void build(const Dictionary& dictionary, const std::string& directory) override {
        std::string joined = joined_stored_keys(dictionary);
        if (joined.size() >= static_cast<size_t>(INT32_MAX)) {
            throw std::runtime_error("keys too large for a 32-bit suffix array");
        }
        write_flat_items(dictionary, directory, joined);
        std::vector<saidx_t> suffixes(joined.size());
        if (!joined.empty() &&
            divsufsort(reinterpret_cast<const sauchar_t*>(joined.data()), suffixes.data(),
                       static_cast<saidx_t>(joined.size())) != 0) {
            throw std::runtime_error("divsufsort failed");
        }
        write_whole_file(directory + "/sa.bin", suffixes.data(), suffixes.size() * sizeof(saidx_t));
    }

    void load(const std::string& directory) override {
        this->items = read_flat_items(directory);
        this->suffixes = read_array<saidx_t>(directory + "/sa.bin");
        if (this->suffixes.size() != this->items.keys.size()) {
            throw std::runtime_error(directory + "/sa.bin does not belong to keys.txt");
        }
    }

    void unload() override {
        this->release();
        this->items = FlatItems();
        std::vector<saidx_t>().swap(this->suffixes);
    }

    size_t search(const std::string& keyword, uint32_t limit) override {
        const char* text = this->items.keys.data();
        size_t length = this->items.keys.size();
        size_t m = keyword.size();
        // Compares the first m bytes of the suffix at `at` with the keyword.
        auto compare = [&](saidx_t at) {
            size_t available = length - static_cast<size_t>(at);
            int order = std::memcmp(text + at, keyword.data(), std::min(m, available));
            return order != 0 ? order : (available < m ? -1 : 0);
        };
        auto first = std::partition_point(this->suffixes.begin(), this->suffixes.end(),
                                          [&](saidx_t at) { return compare(at) < 0; });
        auto last = std::partition_point(first, this->suffixes.end(), [&](saidx_t at) { return compare(at) == 0; });

        const std::vector<uint32_t>& starts = this->items.key_starts;
        std::vector<uint64_t> hits;
        hits.reserve(static_cast<size_t>(last - first));
        for (auto i = first; i != last; ++i) {
            uint32_t offset = static_cast<uint32_t>(*i);
            uint32_t key = static_cast<uint32_t>(std::upper_bound(starts.begin(), starts.end(), offset) - starts.begin() - 1);
            hits.push_back(pack(position_of(text + starts[key], text + offset), key));
        }
        if (hits.size() > limit) {
            std::partial_sort(hits.begin(), hits.begin() + limit, hits.end());
            hits.resize(limit);
        } else {
            std::sort(hits.begin(), hits.end());
        }
        this->answer.resize(hits.size());
        std::transform(hits.begin(), hits.end(), this->answer.begin(), key_of);
        return this->answer.size();
    }

    std::vector<uint32_t> answer_keys() const override { return this->answer; }
    void release() override { std::vector<uint32_t>().swap(this->answer); }
    void verify(const Dictionary& dictionary) override { verify_flat_items(this->items, dictionary); }

private:
    FlatItems items;
    std::vector<saidx_t> suffixes;
    std::vector<uint32_t> answer;
};

// ---- Quorvex built with IndexBuilder: exact and folded ----------------------

bool is_space(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v'; }

// The keyword as find() compares it with an item's key: without white
// space at either end.
std::string_view trimmed(std::string_view text) {
    while (!text.empty() && is_space(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && is_space(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

// Items come back as the reader's views of their keys; the key numbers are
// looked up afterwards, outside the timed call.
class BuiltQuorvexContender : public Contender {
public:
    explicit BuiltQuorvexContender(BuiltIndex kind) : kind(kind) {}

    std::string name() const override {
        switch (this->kind) {
            case BuiltIndex::ExactSearch:
                return "quorvex exact search";
            case BuiltIndex::ExactFind:
                return "quorvex exact find";
            case BuiltIndex::Folded:
                break;
        }
        return "quorvex folded";
    }
    bool index_order() const override { return true; }
    // The exact index answers another question than the folded reference.
    Checked checked() const override { return this->kind == BuiltIndex::Folded ? Checked::Must : Checked::Not; }

    void build(const Dictionary& dictionary, const std::string& directory) override {
        Writer::IndexSettings settings;
        settings.folded = this->kind == BuiltIndex::Folded;
        Writer::IndexBuilder builder(settings);
        for (size_t k = 0; k < dictionary.keys.size(); ++k) {
            std::string refused = builder.add(dictionary.keys[k], dictionary.values[k]);
            if (!refused.empty()) {
                throw std::runtime_error("IndexBuilder refuses \"" + dictionary.keys[k] + "\": " + refused);
            }
        }
        Writer::IndexWriter writer;
        std::string problem = builder.fill(writer);
        if (!problem.empty()) {
            throw std::runtime_error("IndexBuilder: " + problem);
        }
        write_index(writer, directory);
    }

    void load(const std::string& directory) override { this->reader = open_mapped(directory); }

    void unload() override {
        this->release();
        this->reader = Rc<Reader::IndexReader>();
    }

    size_t search(const std::string& keyword, uint32_t limit) override {
        uint16 cut = static_cast<uint16>(std::min<uint32_t>(limit, 65535));
        if (this->kind == BuiltIndex::ExactSearch) {
            this->results = this->reader->search(keyword, cut);
            return this->results->size();
        }
        Reader::SearchOptions options;
        options.limit = cut;
        if (!this->reader->find(keyword, options, this->hits, &this->error)) {
            throw std::runtime_error(this->name() + " refuses \"" + keyword + "\": " + this->error);
        }
        return this->hits.size();
    }

    std::vector<uint32_t> answer_keys() const override {
        std::vector<uint32_t> keys;
        auto number = [this](std::string_view key) {
            auto found = this->numbers.find(std::string(key));
            if (found == this->numbers.end()) {
                throw std::runtime_error(this->name() + " answers a key that is no item's: " + std::string(key));
            }
            return found->second;
        };
        if (this->kind == BuiltIndex::ExactSearch) {
            for (const Rc<Reader::SearchResult>& result : *this->results) {
                keys.push_back(number(std::string_view(reinterpret_cast<const char*>(result->key->data), result->key->length)));
            }
        } else {
            for (const Reader::Hit& hit : this->hits) {
                keys.push_back(number(hit.key));
            }
        }
        return keys;
    }

    // Frees the answer's memory too, so that every call allocates afresh
    // as search() does.
    void release() override {
        this->results = Results();
        std::vector<Reader::Hit>().swap(this->hits);
    }

    // The index describes itself as built: its folding and item count.
    void verify(const Dictionary& dictionary) override {
        uint32_t folding = this->kind == BuiltIndex::Folded ? FOLDING_VERSION : 0;
        std::string items = this->reader->description().get("items");
        if (this->reader->folding() != folding || items != std::to_string(dictionary.keys.size())) {
            throw std::runtime_error(this->name() + ": the index says folding " +
                                     std::to_string(this->reader->folding()) + ", " + items + " items");
        }
        this->numbers.clear();
        for (size_t k = 0; k < dictionary.keys.size(); ++k) {
            this->numbers.emplace(dictionary.keys[k], static_cast<uint32_t>(k));
            this->numbers.emplace(dictionary.stored[k], static_cast<uint32_t>(k));
        }
    }

private:
    typedef Rc<std::vector<Rc<Reader::SearchResult>>> Results;

    BuiltIndex kind;
    Rc<Reader::IndexReader> reader;
    Results results;
    std::vector<Reader::Hit> hits;
    std::string error;
    std::unordered_map<std::string, uint32_t> numbers;  // key (whole or stored) -> key number
};

// ---- The scan over folded keys ----------------------------------------------

// Besides the flat items:
// entries.txt:       the distinct folded keys in byte order, NUL after each
// entry_starts.bin:  e + 1 native uint32 offsets into entry_items.bin's numbers
// entry_items.bin:   each entry's item numbers, ascending (input order)
// A search folds the keyword, finds it with memmem in entries.txt, keeps each
// entry at its first position, orders the entries by position then key
// order, and lists their items, those whose key holds the keyword as typed
// first: find()'s order, worked out without an index.
class FoldedScanContender : public Contender {
public:
    std::string name() const override { return "folded scan"; }
    bool index_order() const override { return true; }

    void build(const Dictionary& dictionary, const std::string& directory) override {
        write_flat_items(dictionary, directory, joined_stored_keys(dictionary));
        std::vector<std::string> folded(dictionary.keys.size());
        for (size_t k = 0; k < folded.size(); ++k) {
            if (!fold(dictionary.keys[k], &folded[k])) {
                throw std::runtime_error("cannot fold \"" + dictionary.keys[k] + "\"");
            }
        }
        std::vector<uint32_t> order(folded.size());
        for (uint32_t k = 0; k < order.size(); ++k) {
            order[k] = k;
        }
        std::stable_sort(order.begin(), order.end(), [&](uint32_t a, uint32_t b) { return folded[a] < folded[b]; });
        std::string entries;
        std::vector<uint32_t> starts;
        for (size_t i = 0; i < order.size(); ++i) {
            if (i == 0 || folded[order[i]] != folded[order[i - 1]]) {
                entries += folded[order[i]];
                entries += '\0';
                starts.push_back(static_cast<uint32_t>(i));
            }
        }
        starts.push_back(static_cast<uint32_t>(order.size()));
        write_whole_file(directory + "/entries.txt", entries.data(), entries.size());
        write_whole_file(directory + "/entry_starts.bin", starts.data(), starts.size() * sizeof(uint32_t));
        write_whole_file(directory + "/entry_items.bin", order.data(), order.size() * sizeof(uint32_t));
    }

    void load(const std::string& directory) override {
        this->items = read_flat_items(directory);
        this->entries = read_whole_file(directory + "/entries.txt");
        this->entry_starts = read_array<uint32_t>(directory + "/entry_starts.bin");
        this->entry_items = read_array<uint32_t>(directory + "/entry_items.bin");
        this->entry_offsets.assign(1, 0);
        for (size_t at = this->entries.find('\0'); at != std::string::npos; at = this->entries.find('\0', at + 1)) {
            this->entry_offsets.push_back(static_cast<uint32_t>(at + 1));
        }
        if (this->entry_offsets.size() != this->entry_starts.size() ||
            this->entry_items.size() != this->items.size() || this->entry_starts.back() != this->items.size()) {
            throw std::runtime_error(directory + ": the folded entries do not belong to the items");
        }
    }

    void unload() override {
        this->release();
        this->items = FlatItems();
        std::string().swap(this->entries);
        std::vector<uint32_t>().swap(this->entry_offsets);
        std::vector<uint32_t>().swap(this->entry_starts);
        std::vector<uint32_t>().swap(this->entry_items);
    }

    size_t search(const std::string& keyword, uint32_t limit) override {
        std::string folded;
        if (!fold(keyword, &folded) || folded.empty()) {
            return 0;
        }
        std::vector<uint64_t> hits = this->first_hits(folded);  // (position, entry) in entry order
        // Counting sort by position, stable: next[p] is where position p
        // goes, the number of hits before it.
        std::array<uint32_t, 257> next{};
        for (uint64_t hit : hits) {
            ++next[(hit >> 32) + 1];
        }
        for (size_t p = 1; p < next.size(); ++p) {
            next[p] += next[p - 1];
        }
        std::vector<uint32_t> ordered(hits.size());
        for (uint64_t hit : hits) {
            ordered[next[hit >> 32]++] = key_of(hit);
        }
        std::string_view typed = trimmed(keyword);
        for (size_t i = 0; i < ordered.size() && this->answer.size() < limit; ++i) {
            this->add_items(ordered[i], typed, limit);
        }
        return this->answer.size();
    }

    std::vector<uint32_t> answer_keys() const override { return this->answer; }
    void release() override { std::vector<uint32_t>().swap(this->answer); }
    void verify(const Dictionary& dictionary) override { verify_flat_items(this->items, dictionary); }

private:
    // Each entry holding `folded`, at its first position, in entry order.
    std::vector<uint64_t> first_hits(const std::string& folded) const {
        const char* text = this->entries.data();
        const char* end = text + this->entries.size();
        std::vector<uint64_t> hits;
        uint32_t entry = 0;
        bool any = false;
        for (const char* at = static_cast<const char*>(memmem(text, this->entries.size(), folded.data(), folded.size()));
             at != nullptr;
             at = static_cast<const char*>(memmem(at + 1, static_cast<size_t>(end - at - 1), folded.data(), folded.size()))) {
            uint32_t offset = static_cast<uint32_t>(at - text);
            uint32_t before = entry;
            while (this->entry_offsets[entry + 1] <= offset) {
                ++entry;
            }
            if (!any || entry != before) {
                hits.push_back(pack(position_of(text + this->entry_offsets[entry], at), entry));
                any = true;
            }
        }
        return hits;
    }

    // The entry's items, those whose key holds `typed` first, each group in
    // input order, as far as the limit goes.
    void add_items(uint32_t entry, std::string_view typed, uint32_t limit) {
        for (bool holding : {true, false}) {
            for (uint32_t i = this->entry_starts[entry]; i < this->entry_starts[entry + 1]; ++i) {
                uint32_t item = this->entry_items[i];
                if ((this->items.key(item).find(typed) != std::string_view::npos) == holding &&
                    this->answer.size() < limit) {
                    this->answer.push_back(item);
                }
            }
        }
    }

    FlatItems items;
    std::string entries;
    std::vector<uint32_t> entry_offsets;  // e + 1: entry e's folded key starts at entries[entry_offsets[e]]
    std::vector<uint32_t> entry_starts;
    std::vector<uint32_t> entry_items;
    std::vector<uint32_t> answer;
};

// ---- SQLite -----------------------------------------------------------------

void check_sqlite(int code, sqlite3* db, const std::string& what) {
    if (code != SQLITE_OK && code != SQLITE_DONE && code != SQLITE_ROW) {
        throw std::runtime_error("sqlite: " + what + ": " + (db != nullptr ? sqlite3_errmsg(db) : sqlite3_errstr(code)));
    }
}

void execute(sqlite3* db, const std::string& sql) {
    char* message = nullptr;
    int code = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &message);
    if (code != SQLITE_OK) {
        std::string text = message != nullptr ? message : sqlite3_errstr(code);
        sqlite3_free(message);
        throw std::runtime_error("sqlite: " + sql + ": " + text);
    }
}

// One table of (rowid = key number + 1, key = stored key, value) in a file
// database, items.db. The subclasses choose the table and the query.
class SqliteContender : public Contender {
public:
    ~SqliteContender() override { this->unload(); }

    bool index_order() const override { return false; }

    void build(const Dictionary& dictionary, const std::string& directory) override {
        sqlite3* db = nullptr;
        std::string path = directory + "/items.db";
        int code = sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
        std::vector<sqlite3_stmt*> inserts;
        auto finalize = [&] {
            for (sqlite3_stmt* insert : inserts) {
                sqlite3_finalize(insert);
            }
            inserts.clear();
        };
        try {
            check_sqlite(code, db, "open " + path);
            // No journal and no fsync: the other contenders write plain files
            // without syncing them either.
            execute(db, "PRAGMA journal_mode=OFF; PRAGMA synchronous=OFF;");
            execute(db, this->create_sql());
            execute(db, "BEGIN");
            for (const std::string& sql : this->insert_sql()) {
                inserts.push_back(nullptr);
                check_sqlite(sqlite3_prepare_v2(db, sql.c_str(), -1, &inserts.back(), nullptr), db, "prepare " + sql);
            }
            for (size_t k = 0; k < dictionary.stored.size(); ++k) {
                const std::string& key = dictionary.stored[k];
                const std::string& value = dictionary.values[k];
                for (sqlite3_stmt* insert : inserts) {
                    // ?1 the rowid (key number + 1), ?2 the key, ?3 the value,
                    // as far as the statement has parameters.
                    int parameters = sqlite3_bind_parameter_count(insert);
                    sqlite3_bind_int64(insert, 1, static_cast<sqlite3_int64>(k) + 1);
                    if (parameters >= 2) {
                        sqlite3_bind_text(insert, 2, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
                    }
                    if (parameters >= 3) {
                        sqlite3_bind_blob(insert, 3, value.data(), static_cast<int>(value.size()), SQLITE_STATIC);
                    }
                    check_sqlite(sqlite3_step(insert), db, "insert");
                    sqlite3_reset(insert);
                }
            }
            finalize();
            execute(db, "COMMIT");
            std::string after = this->after_insert_sql();
            if (!after.empty()) {
                execute(db, after);
            }
        } catch (...) {
            finalize();
            sqlite3_close(db);
            throw;
        }
        check_sqlite(sqlite3_close(db), nullptr, "close " + path);
    }

    void load(const std::string& directory) override {
        this->unload();
        std::string path = directory + "/items.db";
        int code = sqlite3_open_v2(path.c_str(), &this->db, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, nullptr);
        check_sqlite(code, this->db, "open " + path);
        // Pages come straight from the page cache, as the other contenders'
        // arrays are in memory.
        execute(this->db, "PRAGMA mmap_size=1073741824");
        std::string pragmas = this->connection_sql();
        if (!pragmas.empty()) {
            execute(this->db, pragmas);
        }
        for (const std::string& sql : this->query_sql()) {
            this->queries.push_back(nullptr);
            check_sqlite(sqlite3_prepare_v2(this->db, sql.c_str(), -1, &this->queries.back(), nullptr), this->db,
                         "prepare " + sql);
        }
    }

    void unload() override {
        this->release();
        for (sqlite3_stmt* query : this->queries) {
            sqlite3_finalize(query);
        }
        this->queries.clear();
        if (this->db != nullptr) {
            sqlite3_close(this->db);
            this->db = nullptr;
        }
    }

    size_t search(const std::string& keyword, uint32_t limit) override {
        return this->run(this->query_for(keyword), keyword, limit);
    }

    std::vector<uint32_t> answer_keys() const override { return this->answer; }
    void release() override { std::vector<uint32_t>().swap(this->answer); }

    // Every row holds its item, and the query plan is the intended one.
    void verify(const Dictionary& dictionary) override {
        sqlite3_stmt* rows = nullptr;
        check_sqlite(sqlite3_prepare_v2(this->db, this->items_sql().c_str(), -1, &rows, nullptr), this->db,
                     "prepare " + this->items_sql());
        size_t k = 0;
        int code;
        bool same = true;
        while (same && (code = sqlite3_step(rows)) == SQLITE_ROW) {
            std::string_view key(reinterpret_cast<const char*>(sqlite3_column_text(rows, 1)),
                                 static_cast<size_t>(sqlite3_column_bytes(rows, 1)));
            const void* blob = sqlite3_column_blob(rows, 2);
            std::string_view value(static_cast<const char*>(blob), static_cast<size_t>(sqlite3_column_bytes(rows, 2)));
            same = k < dictionary.stored.size() && sqlite3_column_int64(rows, 0) == static_cast<sqlite3_int64>(k) + 1 &&
                   key == dictionary.stored[k] && value == dictionary.values[k];
            k += same ? 1 : 0;
        }
        sqlite3_finalize(rows);
        if (!same || k != dictionary.stored.size()) {
            throw std::runtime_error(this->name() + ": the table differs from the items at row " + std::to_string(k + 1));
        }

        std::string plan;
        sqlite3_stmt* explain = nullptr;
        check_sqlite(sqlite3_prepare_v2(this->db, ("EXPLAIN QUERY PLAN " + this->query_sql().front()).c_str(), -1, &explain,
                                        nullptr),
                     this->db, "prepare explain");
        while (sqlite3_step(explain) == SQLITE_ROW) {
            plan += reinterpret_cast<const char*>(sqlite3_column_text(explain, 3));
            plan += '\n';
        }
        sqlite3_finalize(explain);
        if (plan.find(this->expected_plan()) == std::string::npos) {
            throw std::runtime_error(this->name() + ": query plan \"" + plan + "\" lacks \"" + this->expected_plan() + "\"");
        }
    }

protected:
    virtual std::string create_sql() const = 0;
    // Statements run for each item, with ?1 = rowid, ?2 = key, ?3 = value.
    virtual std::vector<std::string> insert_sql() const = 0;
    virtual std::string after_insert_sql() const { return ""; }
    // Every item as (rowid, key, value), in rowid order.
    virtual std::string items_sql() const = 0;
    virtual std::string connection_sql() const { return ""; }
    // The queries a search may use, each with the pattern as ?1 and the
    // limit as ?2; the first must have the plan expected_plan() names.
    virtual std::vector<std::string> query_sql() const = 0;
    // Which of them answers `keyword`.
    virtual size_t query_for(const std::string&) const { return 0; }
    virtual std::string pattern_of(const std::string& keyword) const = 0;
    virtual std::string expected_plan() const = 0;

    // Runs query number `which` for `keyword`, holding its rows as the answer.
    size_t run(size_t which, const std::string& keyword, uint32_t limit) {
        sqlite3_stmt* query = this->queries[which];
        this->pattern = this->pattern_of(keyword);
        sqlite3_bind_text(query, 1, this->pattern.data(), static_cast<int>(this->pattern.size()), SQLITE_STATIC);
        sqlite3_bind_int64(query, 2, limit);
        int code;
        while ((code = sqlite3_step(query)) == SQLITE_ROW) {
            this->answer.push_back(static_cast<uint32_t>(sqlite3_column_int64(query, 0) - 1));
        }
        sqlite3_reset(query);
        check_sqlite(code, this->db, "query");
        return this->answer.size();
    }

private:
    sqlite3* db = nullptr;
    std::vector<sqlite3_stmt*> queries;
    std::string pattern;
    std::vector<uint32_t> answer;
};

// FTS5 with the trigram tokenizer, case-sensitive. Such a table serves GLOB
// from its trigram index but not LIKE (SQLite 3.40 plans LIKE on it as a
// full scan), so the query is GLOB '*keyword*' with the keyword's *, ? and [
// escaped as one-character classes.
//
// A keyword of fewer than three characters has no trigram, and FTS5 is meant
// to scan every row for it. SQLite 3.40.1 does so only when the keyword also
// has fewer than three bytes: for one like "日" or "éé" the indexed query
// returns no rows at all. Such keywords therefore go to a second query,
// `+key GLOB`, which keeps the constraint away from FTS5, so SQLite scans
// the table and checks every row itself. examine() counts what the indexed
// query alone would have answered differently.
class SqliteFts5Contender : public SqliteContender {
public:
    std::string name() const override { return "sqlite fts5 trigram"; }

    // Asks the indexed query alone for each distinct keyword under three
    // characters whose Quorvex answer is complete, and counts the answers
    // whose keys differ from Quorvex's.
    std::string examine(const std::vector<Keyword>& keywords, const std::vector<Reference>& references) override {
        size_t short_keywords = 0;
        size_t wrong = 0;
        std::string example;
        std::set<std::string> seen;
        for (size_t k = 0; k < keywords.size(); ++k) {
            const Keyword& keyword = keywords[k];
            if (keyword.code_points >= 3 || references[k].cut || !seen.insert(keyword.text).second) {
                continue;
            }
            ++short_keywords;
            this->run(0, keyword.text, 65535);
            std::vector<uint32_t> indexed = this->answer_keys();
            this->release();
            std::set<uint32_t> got(indexed.begin(), indexed.end());
            std::set<uint32_t> expected(references[k].full.begin(), references[k].full.end());
            if (got != expected) {
                ++wrong;
                if (example.empty()) {
                    example = "\"" + keyword.text + "\": " + std::to_string(got.size()) + " keys instead of " +
                              std::to_string(expected.size());
                }
            }
        }
        if (wrong == 0) {
            return "";
        }
        return "without the +key GLOB scan for keywords under 3 characters, the indexed query would answer " +
               std::to_string(wrong) + " of " + std::to_string(short_keywords) +
               " such keywords (distinct, with a complete Quorvex answer) with other keys, e.g. " + example;
    }

protected:
    // The values live in a table of their own, so that FTS5's own content
    // table, which a scan for a short keyword reads, holds only the keys.
    std::string create_sql() const override {
        return "CREATE VIRTUAL TABLE items USING fts5(key, tokenize='trigram case_sensitive 1', detail=none);"
               "CREATE TABLE item_values(id INTEGER PRIMARY KEY, value BLOB NOT NULL)";
    }
    std::vector<std::string> insert_sql() const override {
        return {"INSERT INTO items(rowid, key) VALUES(?1, ?2)", "INSERT INTO item_values(id, value) VALUES(?1, ?3)"};
    }
    std::string items_sql() const override {
        return "SELECT items.rowid, items.key, item_values.value FROM items JOIN item_values ON id = items.rowid "
               "ORDER BY items.rowid";
    }
    // Merges the index segments into one, as a read-only database would be.
    std::string after_insert_sql() const override { return "INSERT INTO items(items) VALUES('optimize')"; }
    std::vector<std::string> query_sql() const override {
        return {"SELECT rowid FROM items WHERE key GLOB ?1 LIMIT ?2",
                "SELECT rowid FROM items WHERE +key GLOB ?1 LIMIT ?2"};
    }
    size_t query_for(const std::string& keyword) const override { return code_point_count(keyword) >= 3 ? 0 : 1; }
    std::string pattern_of(const std::string& keyword) const override {
        std::string pattern = "*";
        for (char c : keyword) {
            if (c == '*' || c == '?' || c == '[') {
                pattern += '[';
                pattern += c;
                pattern += ']';
            } else {
                pattern += c;
            }
        }
        pattern += '*';
        return pattern;
    }
    std::string expected_plan() const override { return "VIRTUAL TABLE INDEX 0:G"; }
};

// FTS5 folding case: the trigram tokenizer with case_sensitive 0 (SQLite
// 3.40 refuses remove_diacritics for it), asked with MATCH and the keyword
// as one quoted phrase, which FTS5 answers from its trigrams alone (LIKE
// would check each row again with SQLite's LIKE, which folds ASCII only).
// Phrases need detail=full. Trigrams need three characters; the keyword
// goes as typed, so it has none at either end that find() would trim.
class SqliteFts5NocaseContender : public SqliteFts5Contender {
public:
    std::string name() const override { return "sqlite fts5 nocase"; }
    Checked checked() const override { return Checked::Counted; }
    bool supports(const Keyword& keyword) const override {
        return keyword.code_points >= 3 && trimmed(keyword.text).size() == keyword.text.size();
    }
    // Whether this SQLite would also drop diacritics in the trigram
    // tokenizer, asked of it on every run rather than assumed.
    std::string examine(const std::vector<Keyword>&, const std::vector<Reference>&) override {
        sqlite3* db = nullptr;
        sqlite3_open(":memory:", &db);
        char* message = nullptr;
        int code = sqlite3_exec(db,
                                "CREATE VIRTUAL TABLE t USING fts5(k, tokenize='trigram case_sensitive 0 "
                                "remove_diacritics 2')",
                                nullptr, nullptr, &message);
        std::string answer = code == SQLITE_OK ? "accepted"
                                               : std::string("refused (") + (message ? message : "?") + ")";
        sqlite3_free(message);
        sqlite3_close(db);
        return std::string("SQLite ") + sqlite3_libversion() + " " + answer +
               " remove_diacritics 2 for the trigram tokenizer; this contender folds case only";
    }

protected:
    std::string create_sql() const override {
        return "CREATE VIRTUAL TABLE items USING fts5(key, tokenize='trigram case_sensitive 0', detail=full);"
               "CREATE TABLE item_values(id INTEGER PRIMARY KEY, value BLOB NOT NULL)";
    }
    std::vector<std::string> query_sql() const override {
        return {"SELECT rowid FROM items WHERE items MATCH ?1 LIMIT ?2"};
    }
    size_t query_for(const std::string&) const override { return 0; }
    std::string pattern_of(const std::string& keyword) const override {
        std::string phrase = "\"";
        for (char c : keyword) {
            phrase += c;
            if (c == '"') {
                phrase += c;
            }
        }
        return phrase + "\"";
    }
    std::string expected_plan() const override { return "VIRTUAL TABLE INDEX 0:M"; }
};

// A plain table scanned with LIKE '%keyword%' (% _ and \ escaped), made
// case-sensitive with PRAGMA case_sensitive_like. Rows come in key order.
class SqliteLikeContender : public SqliteContender {
public:
    std::string name() const override { return "sqlite like"; }

protected:
    // The index on the keys lets the scan read only the keys (a covering
    // index), not the values beside them.
    std::string create_sql() const override {
        return "CREATE TABLE items(key TEXT NOT NULL, value BLOB NOT NULL)";
    }
    std::vector<std::string> insert_sql() const override {
        return {"INSERT INTO items(rowid, key, value) VALUES(?1, ?2, ?3)"};
    }
    std::string after_insert_sql() const override { return "CREATE INDEX items_key ON items(key)"; }
    std::string items_sql() const override { return "SELECT rowid, key, value FROM items ORDER BY rowid"; }
    std::string connection_sql() const override { return "PRAGMA case_sensitive_like=ON"; }
    std::vector<std::string> query_sql() const override {
        return {"SELECT rowid FROM items WHERE key LIKE ?1 ESCAPE '\\' LIMIT ?2"};
    }
    std::string pattern_of(const std::string& keyword) const override {
        std::string pattern = "%";
        for (char c : keyword) {
            if (c == '%' || c == '_' || c == '\\') {
                pattern += '\\';
            }
            pattern += c;
        }
        pattern += '%';
        return pattern;
    }
    std::string expected_plan() const override { return "SCAN items USING COVERING INDEX items_key"; }
};

}  // namespace

std::string contender_versions() {
    return std::string("SQLite ") + sqlite3_libversion() + ", libdivsufsort " + divsufsort_version();
}

std::unique_ptr<Contender> make_quorvex() { return std::make_unique<QuorvexContender>(); }
std::unique_ptr<Contender> make_scan() { return std::make_unique<ScanContender>(); }
std::unique_ptr<Contender> make_suffix_array() { return std::make_unique<SuffixArrayContender>(); }
std::unique_ptr<Contender> make_sqlite_fts5() { return std::make_unique<SqliteFts5Contender>(); }
std::unique_ptr<Contender> make_sqlite_like() { return std::make_unique<SqliteLikeContender>(); }
std::unique_ptr<Contender> make_quorvex_built(BuiltIndex kind) { return std::make_unique<BuiltQuorvexContender>(kind); }
std::unique_ptr<Contender> make_folded_scan() { return std::make_unique<FoldedScanContender>(); }
std::unique_ptr<Contender> make_sqlite_fts5_nocase() { return std::make_unique<SqliteFts5NocaseContender>(); }

Dictionary buildable_items(const Dictionary& dictionary, uint64_t& refused) {
    Writer::IndexSettings exact_settings;
    exact_settings.folded = false;
    Writer::IndexBuilder exact(exact_settings);
    Writer::IndexBuilder folded;
    std::vector<std::string> keys;
    std::vector<std::string> values;
    refused = 0;
    for (size_t k = 0; k < dictionary.keys.size(); ++k) {
        // Both see every item, so that neither stops at the first refusal.
        bool taken = exact.add(dictionary.keys[k], dictionary.values[k]).empty();
        taken = folded.add(dictionary.keys[k], dictionary.values[k]).empty() && taken;
        if (taken) {
            keys.push_back(dictionary.keys[k]);
            values.push_back(dictionary.values[k]);
        } else {
            ++refused;
        }
    }
    Dictionary taken = make_dictionary(dictionary.name, std::move(keys), std::move(values));
    taken.invalid = dictionary.invalid;
    taken.merged = dictionary.merged;
    return taken;
}

}  // namespace Lexarium::Bench::Compare
