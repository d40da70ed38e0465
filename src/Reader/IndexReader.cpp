#include "Assertions.h"
#include "Reader/IndexReader.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "LittleEndian.h"
#include "Reader/MappedIndex.h"
#include "Reader/SearchParts.h"
#include "Utf8.h"

// Abort messages name functions as declared here ("const string&").
typedef std::string string;

namespace Lexarium::Reader {

namespace {
// Reads the whole file or throws; the caller closes `file`.
void read_into(FILE* file, ByteArray& bytes);
}  // namespace

Rc<ByteArray> read_file(const string& file_path) {
    assert(std::filesystem::exists(file_path));
    uintmax_t size = std::filesystem::file_size(file_path);
    Rc<ByteArray> bytes(new ByteArray(static_cast<uint32>(size)));
    FILE* file = std::fopen(file_path.c_str(), "rb");
    if (file == nullptr) {
        throw std::runtime_error(std::strerror(errno));
    }
    try {
        read_into(file, *bytes);
    } catch (...) {
        std::fclose(file);
        throw;
    }
    int closed = std::fclose(file);
    if (closed != 0) {
        // The text for the close's own return value, as this call has
        // always reported it.
        throw std::runtime_error(std::strerror(closed));
    }
    return bytes;
}

// Where the search's parts live: the keyword, the scratch lists and a
// match are declared in SearchParts.h; the walk over one position's posting
// list (search_at), the merge of several (search_intersecting) and the
// check of one key record (match_key) follow below; find(), the search
// that folds its keyword and lists each item once, is in Find.cpp and walks
// the same positions with the same parts, passing over the entries it has
// already listed.
//
// A search walks positions 0, 1, ... of the keyword's first character until it has
// `limit` results or has passed the last position where every character of the keyword
// has a cell. Each position is asked for what is still missing (modulo 2^16) and checks
// its limit after appending, so `limit` 0 yields the first prefix hit, if any.
Rc<std::vector<Rc<SearchResult>>> IndexReader::search(const string& keyword, uint16 limit) {
    assert(keyword.length() < 255);
    Rc<std::vector<Rc<SearchResult>>> results(new std::vector<Rc<SearchResult>>());
    Keyword prepared = this->prepare(keyword);
    int32_t last = this->last_position(prepared);
    bool intersect = prepared.characters.size() >= 2;  // one character: nothing to intersect
    if (!intersect) {
        results->reserve(this->most_results(prepared, last, limit));
    }
    std::vector<uint64_t> occurrences;
    if (this->suffix_occurrences(prepared, suffix_plan_limit(limit), occurrences)) {
        // One result per occurrence, by position, then key order; limit 0
        // still gives the first key that begins with the keyword.
        size_t wanted = limit != 0 ? limit : !occurrences.empty() && (occurrences[0] >> 32) == 0 ? 1 : 0;
        for (size_t i = 0; i < occurrences.size() && results->size() < wanted; ++i) {
            Records::Key key;
            uint32 entry = static_cast<uint32>(occurrences[i]);
            if (this->holds_at(entry, static_cast<uint8>(occurrences[i] >> 32), prepared.text) &&
                this->entry_of(entry, key, nullptr)) {
                this->append_result(Match{entry, key.data_pointer, key.length}, results.get());
            }
        }
        return results;
    }
    Scratch scratch;  // left uninitialized: each position fills what it uses
    scratch.steps_left = ENTRY_BY_ENTRY_STEPS;
    scratch.chunk_size = 0;  // chosen by the first position that intersects a stretch at a time
    uint32 total = 0;
    for (int32_t char_position = 0; char_position <= last; ++char_position) {
        uint16 remaining = static_cast<uint16>(limit - total);
        uint8 position = static_cast<uint8>(char_position);
        total += intersect ? this->search_intersecting(prepared, remaining, results.get(), position, scratch)
                           : this->search_one_character(prepared, remaining, results.get(), position);
        if (total >= limit) {
            break;
        }
    }
    return results;
}

namespace {

void read_into(FILE* file, ByteArray& bytes) {
    uint32 done = 0;
    while (done < bytes.length) {
        errno = 0;
        size_t count = std::fread(bytes.data + done, 1, bytes.length - done, file);
        if (count == 0) {
            // End of file before the size we were told, or an error: errno
            // says which (0, "Success", for a file that shrank).
            throw std::runtime_error(std::strerror(errno));
        }
        done += static_cast<uint32>(count);
    }
}

}  // namespace

IndexReader::IndexReader() = default;

IndexReader::~IndexReader() = default;

Rc<IndexReader> IndexReader::from_bytes(Rc<ByteArray> table, Rc<ByteArray> index, Rc<ByteArray> key,
                                        Rc<ByteArray> data) {
    Rc<IndexReader> reader(new IndexReader());
    reader->table_bytes = table;
    reader->index_bytes = index;
    reader->key_bytes = key;
    reader->data_bytes = data;
    assert(!reader->index_bytes.is_null() && !reader->key_bytes.is_null() && !reader->data_bytes.is_null());
    reader->initialize();
    reader->read_description();
    return reader;
}

Rc<IndexReader> IndexReader::from_files(const string& table_path, const string& index_path, const string& key_path,
                                        const string& data_path) {
    Rc<ByteArray> table = read_file(table_path);
    Rc<ByteArray> index = read_file(index_path);
    Rc<ByteArray> key = read_file(key_path);
    Rc<ByteArray> data = read_file(data_path);
    return from_bytes(table, index, key, data);
}

Rc<IndexReader> IndexReader::from_directory(string directory) {
    string data_path = directory + Format::DATA_FILE_NAME;
    string key_path = directory + Format::KEY_FILE_NAME;
    string index_path = directory + Format::INDEX_FILE_NAME;
    string table_path = directory + Format::TABLE_FILE_NAME;
    return from_files(table_path, index_path, key_path, data_path);
}

Rc<IndexReader> IndexReader::from_directory_mapped(const string& directory, string* error) {
    string why;
    try {
        std::shared_ptr<const MappedIndex> mapped = MappedIndex::open(directory, why);
        if (mapped != nullptr) {
            Rc<IndexReader> reader(new IndexReader());
            const MappedIndex::File* files[4] = {&mapped->table, &mapped->index, &mapped->key, &mapped->data};
            Rc<ByteArray>* blobs[4] = {&reader->table_bytes, &reader->index_bytes, &reader->key_bytes,
                                       &reader->data_bytes};
            for (int i = 0; i < 4; ++i) {
                *blobs[i] = Rc<ByteArray>(new ByteArray(files[i]->data, files[i]->length));
                (*blobs[i])->is_borrowed = true;
            }
            reader->rows = std::shared_ptr<const RowDirectory>(mapped, &mapped->rows);
            reader->suffixes = mapped->suffixes;
            reader->mapping = std::move(mapped);
            reader->skips_damage = true;
            reader->read_description();
            return reader;
        }
    } catch (const std::bad_alloc&) {
        why = "out of memory";  // fits the string's own room: no allocation
    }
    if (error != nullptr) {
        error->swap(why);  // no copy, so nothing left to fail
    }
    return Rc<IndexReader>();
}

void IndexReader::initialize() {
    assert(!this->table_bytes.is_null());
    Rc<ByteArray> table = this->table_bytes;
    this->index_table = Rc<IndexTable>(new IndexTable(table));
    // The table has parsed, so the walk reaches its last row and fills the
    // directory; a row of 255 cells or bytes after the last row, which the
    // parse lets through, make build() say no, and change nothing here.
    std::shared_ptr<RowDirectory> rows(new RowDirectory);  // not zeroed first: build() fills it
    string ignored;
    rows->build(table->data, table->length, ignored);
    this->rows = std::move(rows);
    this->rows_table = this->index_table.get();
}

// Row `code_point` (< TABLE_ROW_COUNT), reached without copying a handle:
// searches share no counts, so several threads may search one reader.
Records::Row IndexReader::row(uint32 code_point) const {
    if (this->rows_table == this->index_table.get()) {
        return this->rows->row(code_point);
    }
    return Records::Row::decode(this->index_table->rows[code_point]->underlying_data->data);
}

IndexReader::Damage IndexReader::damage_passed_over() const {
    Damage damage;
    damage.table = this->passed_over[TABLE].load(std::memory_order_relaxed);
    damage.index = this->passed_over[INDEX].load(std::memory_order_relaxed);
    damage.key = this->passed_over[KEY].load(std::memory_order_relaxed);
    damage.data = this->passed_over[DATA].load(std::memory_order_relaxed);
    damage.suffix = this->passed_over[SUFFIX].load(std::memory_order_relaxed);
    return damage;
}

// Whether the posting list or entry of `count` bytes from `offset` lies
// inside index.bin, judged without 32-bit wrap-around; see outside() for
// the answer no.
bool IndexReader::inside_index(uint64_t offset, uint64_t count) const {
    if (offset + count <= this->index_bytes->length) {
        return true;
    }
    this->outside(*this->index_bytes, TABLE);
    return false;
}

// A record that does not lie inside `blob`: a mapped reader passes it over
// and counts it against the file `at_fault`; any other stops the process
// through the blob's own range check, so a damaged index never makes a
// search read outside its blobs.
void IndexReader::outside(const ByteArray& blob, Blob at_fault) const {
    if (this->skips_damage) {
        this->passed_over[at_fault].fetch_add(1, std::memory_order_relaxed);
        return;
    }
    if (blob.length == UINT32_MAX) {
        std::abort();  // no range past such a blob can even be expressed
    }
    blob.borrow(blob.length, 1);  // fails the range check
}

IndexReader::Keyword IndexReader::prepare(const string& keyword) const {
    Keyword prepared{keyword, 0, false, {}, nullptr};
    Utf8::decode(keyword, prepared.characters);
    uint32 first = prepared.characters.empty() ? 0 : prepared.characters[0];
    // Only the low 16 bits choose the row: U+1F600 looks in row 0xF600. The
    // table has no row 0xFFFF, so such a keyword finds nothing.
    prepared.row = first & 0xFFFF;
    prepared.has_row = prepared.row < Format::TABLE_ROW_COUNT;
    return prepared;
}

// The last position at which the first character's row has a cell and,
// for a keyword of two or more characters, so has every later character's
// row at its own distance from it; -1 when there is none. Rows never
// shrink, so no position after it can match.
int32_t IndexReader::last_position(const Keyword& keyword) const {
    if (!keyword.has_row) {
        return -1;
    }
    int32_t last = Format::MAX_CELLS_PER_ROW;
    size_t count = keyword.characters.size() >= 2 ? keyword.characters.size() : 1;
    for (size_t j = 0; j < count; ++j) {
        uint32 code_point = j == 0 ? keyword.row : keyword.characters[j];
        if (code_point >= Format::TABLE_ROW_COUNT) {
            return -1;
        }
        int32_t cells = this->row(code_point).cells_count;
        last = std::min(last, cells - 1 - static_cast<int32_t>(j));
    }
    return last;
}

// For a keyword of one character: how many results the search can have at
// most, the entries of its row's cells up to `last` and no more than the
// limit allows, so the list is allocated once.
uint32 IndexReader::most_results(const Keyword& keyword, int32_t last, uint16 limit) const {
    if (last < 0) {
        return 0;  // perhaps no row at all
    }
    Records::Row row = this->row(keyword.row);
    uint64_t entries = 0;
    for (int32_t position = 0; position <= last; ++position) {
        entries += row.cell(static_cast<uint32>(position)).count;
    }
    return static_cast<uint32>(std::min<uint64_t>(entries, limit == 0 ? 1 : limit));
}

bool IndexReader::find_list(uint32 code_point, uint32 char_position, PostingList& list) const {
    if (code_point >= Format::TABLE_ROW_COUNT || char_position > Format::MAX_CELLS_PER_ROW) {
        return false;
    }
    Records::Row row = this->row(code_point);
    if (row.cells_count <= char_position) {
        return false;
    }
    Records::Cell cell = row.cell(char_position);
    if (!this->inside_index(cell.offset, uint64_t{cell.count} * Format::POSTING_ENTRY_SIZE)) {
        return false;
    }
    list.entries = this->index_bytes->data + cell.offset;
    list.count = cell.count;
    return true;
}

uint16 IndexReader::search(const string& keyword, uint16 limit, std::vector<Rc<SearchResult>>* results,
                           uint32& visited_count, uint8 char_position) {
    return this->search_at(this->prepare(keyword), limit, results, visited_count, char_position);
}

// Walks the posting list of cell `char_position` in the keyword's row. Each
// entry is a key that has the keyword's first character at that position;
// it matches when the keyword's bytes stand at that character's byte offset
// inside the key's own stored text. This is the search as defined; the
// two-argument search gets the same answer faster.
uint16 IndexReader::search_at(const Keyword& keyword, uint16 limit, std::vector<Rc<SearchResult>>* results,
                              uint32& visited_count, uint8 char_position) const {
    if (!keyword.has_row) {
        return 0;
    }
    Records::Row row = this->row(keyword.row);
    if (row.cells_count <= char_position) {
        return 0;
    }
    Records::Cell cell = row.cell(char_position);
    uint16 found = 0;
    for (uint32 i = 0; i < cell.count; ++i) {
        ++visited_count;
        uint64_t at = uint64_t{cell.offset} + uint64_t{Format::POSTING_ENTRY_SIZE} * i;
        if (!this->inside_index(at, Format::POSTING_ENTRY_SIZE)) {
            break;
        }
        uint32 entry = LittleEndian::load_u32(this->index_bytes->data + at);
        Match match;
        if (this->match_key(keyword, entry, char_position, match) && this->append_result(match, results)) {
            ++found;
            if (found >= limit) {
                break;
            }
        }
    }
    return found;
}

namespace {

// Candidates are checked this many at a time: first every key record of the
// batch, then the value records of those that matched, each fetched from
// memory a few places ahead of its use so that the fetches overlap.
constexpr uint32 BATCH_SIZE = 64;
constexpr uint32 FETCH_AHEAD = 8;

// Asks the processor to start loading the record at `offset`, if the blob
// has such an offset (anything else is left to the range checks).
inline void fetch_early(const ByteArray& blob, uint32 offset) {
    if (offset < blob.length) {
        __builtin_prefetch(blob.data + offset);
    }
}

}  // namespace

// Gathers the candidates of one position, in ascending order, and checks
// them a batch at a time, byte for byte as the walk above does; stops at the
// position's limit exactly as the walk does, so no candidate after the last
// result is looked at.
class IndexReader::Collector {
public:
    Collector(const IndexReader& reader, const Keyword& keyword, uint8 char_position, uint16 limit,
              std::vector<Rc<SearchResult>>* results)
        : reader(reader), keyword(keyword), char_position(char_position), results(results),
          wanted(limit == 0 ? 1 : limit) {}

    // Queues `entry`; false once the limit is reached, after which nothing
    // more may be added.
    bool add(uint32 entry) {
        this->pending[this->pending_count++] = entry;
        return this->pending_count < this->room() || this->check();
    }

    // Checks what is queued; false once the limit is reached.
    bool check() {
        uint32 count = this->pending_count;
        this->pending_count = 0;
        const ByteArray& keys = *this->reader.key_bytes;
        for (uint32 i = 0; i < count && i < FETCH_AHEAD; ++i) {
            fetch_early(keys, this->pending[i]);
        }
        for (uint32 i = 0; i < count; ++i) {
            if (i + FETCH_AHEAD < count) {
                fetch_early(keys, this->pending[i + FETCH_AHEAD]);
            }
            if (!this->reader.match_key(this->keyword, this->pending[i], this->char_position,
                                        this->matches[this->matched])) {
                continue;
            }
            if (this->found + ++this->matched >= this->wanted) {
                this->append_matches();
                return false;
            }
        }
        this->append_matches();
        return true;
    }

    uint16 found_count() const { return static_cast<uint16>(this->found); }

private:
    // A batch never asks for more than the limit still allows, so a small
    // limit checks no more candidates than it needs.
    uint32 room() const { return std::min(BATCH_SIZE, this->wanted - this->found); }

    void append_matches() {
        const ByteArray& values = *this->reader.data_bytes;
        for (uint32 m = 0; m < this->matched && m < FETCH_AHEAD; ++m) {
            fetch_early(values, this->matches[m].data_pointer);
        }
        for (uint32 m = 0; m < this->matched; ++m) {
            if (m + FETCH_AHEAD < this->matched) {
                fetch_early(values, this->matches[m + FETCH_AHEAD].data_pointer);
            }
            this->found += this->reader.append_result(this->matches[m], this->results);
        }
        this->matched = 0;
    }

    const IndexReader& reader;
    const Keyword& keyword;
    uint8 char_position;
    std::vector<Rc<SearchResult>>* results;
    uint32 wanted;  // the position's limit, 0 counting as 1
    uint32 found = 0;
    uint32 pending[BATCH_SIZE];
    uint32 pending_count = 0;
    Match matches[BATCH_SIZE];
    uint32 matched = 0;  // in `matches`, not yet appended
};

// A keyword of one character (or none): every entry of the cell is a
// candidate, as in the walk.
uint16 IndexReader::search_one_character(const Keyword& keyword, uint16 limit,
                                         std::vector<Rc<SearchResult>>* results, uint8 char_position) const {
    PostingList list;
    if (!this->find_list(keyword.row, char_position, list)) {
        return 0;
    }
    Collector collector(*this, keyword, char_position, limit, results);
    for (uint32 i = 0; i < list.count; ++i) {
        if (!collector.add(list.at(i))) {
            return collector.found_count();
        }
    }
    collector.check();
    return collector.found_count();
}

namespace {

// The driving list is intersected a stretch at a time, the first short so
// that a small limit stops the work early, each next one twice as long up
// to this many entries; the length carries over to the next position, and
// a limit of this many or more starts long. Long stretches matter when
// every position has to be intersected to its end: each stretch costs a
// few seeks and a ramp into the merge, and 2048 took a tenth off such
// searches against 256; starting each position at 32 again cost another
// tenth at limit 65535.
constexpr uint32 FIRST_CHUNK_SIZE = 32;
constexpr uint32 CHUNK_SIZE = MAX_CANDIDATES;

// The lists after the two shortest only narrow the candidates down: each
// candidate is checked byte for byte anyway, which costs about as much as
// stepping through a few dozen list entries when its key record is not in
// the cache. So a list is consulted only where it is expected to hold at
// most this many entries per candidate between the first candidate and the
// last (8 measured as well with warm caches, 32 worse with cold ones).
constexpr uint64_t FILTER_RATIO = 16;

}  // namespace

// The fast way to the same answer: a key that holds the keyword from
// character `char_position` on is listed in cell `char_position` of the
// first character's row, in cell `char_position` + 1 of the second's, and
// so on. Those lists all ascend. The two shortest are intersected a stretch
// of the shorter at a time, stepping through both or galloping through the
// longer; what is left is looked up in the others, shortest first. The keys
// in every list are a superset of the matches, in the first list's order,
// and each is then checked byte for byte as the walk checks it.
uint16 IndexReader::search_intersecting(const Keyword& keyword, uint16 limit, std::vector<Rc<SearchResult>>* results,
                                        uint8 char_position, Scratch& scratch) const {
    uint32 count = static_cast<uint32>(keyword.characters.size());
    PostingList* lists = scratch.lists;
    if (!this->find_list(keyword.row, char_position, lists[0]) || lists[0].count == 0) {
        return 0;
    }
    for (uint32 j = 1; j < count; ++j) {
        if (!this->find_list(keyword.characters[j], char_position + j, lists[j]) || lists[j].count == 0) {
            return 0;
        }
    }
    uint32* order = scratch.order;
    for (uint32 j = 0; j < count; ++j) {
        order[j] = j;
        scratch.cursors[j] = 0;
    }
    std::sort(order, order + count, [&](uint32 x, uint32 y) { return lists[x].count < lists[y].count; });

    const PostingList& a = lists[order[0]];
    uint32* cursors = scratch.cursors;
    uint32& a_from = cursors[0];
    Collector collector(*this, keyword, char_position, limit, results);

    // First entry by entry, while the search's budget of such steps (shared
    // by all its positions) lasts: each entry of `a` is looked for in the
    // others, and when one of them has nothing until a later entry, `a`
    // jumps there. Quickest when the limit is met among the first keys of
    // long lists.
    bool long_lists = a.count >= ENTRY_BY_ENTRY_MIN_LENGTH;
    for (; long_lists && scratch.steps_left > 0 && a_from < a.count; --scratch.steps_left) {
        uint32 entry = a.at(a_from);
        uint32 ahead = entry;  // the smallest entry another list can still offer
        for (uint32 n = 1; n < count && ahead == entry; ++n) {
            if (!lists[order[n]].seek(cursors[n], entry)) {
                collector.check();  // a list ran out: nothing further can match
                return collector.found_count();
            }
            ahead = lists[order[n]].at(cursors[n]);
        }
        if (ahead != entry) {
            a.seek(a_from, ahead);
            continue;
        }
        if (!collector.add(entry)) {
            return collector.found_count();
        }
        ++a_from;
    }

    // Then a stretch at a time.
    const PostingList& b = lists[order[1]];
    uint32& b_from = cursors[1];
    uint32 candidates[CHUNK_SIZE];
    // Short stretches pay only while the limit may be met within them. A
    // limit beyond a stretch starts long; otherwise the first stretch is
    // short and each next one longer, and a later position goes on where
    // the one before left off, since it was not met there either.
    uint32& chunk_size = scratch.chunk_size;
    if (chunk_size == 0) {
        chunk_size = limit >= CHUNK_SIZE ? CHUNK_SIZE : FIRST_CHUNK_SIZE;
    }
    bool exhausted = false;
    while (!exhausted && a_from < a.count && b_from < b.count) {
        // Later candidates lie past every list's cursor: nothing in `a`
        // below the furthest of them can match.
        uint32 ahead = b.at(b_from);
        for (uint32 n = 2; n < count; ++n) {
            const PostingList& list = lists[order[n]];
            if (cursors[n] < list.count) {
                ahead = std::max(ahead, list.at(cursors[n]));
            }
        }
        if (!a.seek(a_from, ahead)) {
            break;
        }
        uint32 a_to = a_from + std::min(a.count - a_from, chunk_size);
        chunk_size = std::min(CHUNK_SIZE, 2 * chunk_size);
        uint32 b_to = b_from;
        b.seek_past(b_to, a.at(a_to - 1));
        uint32 found;
        if ((b_to - b_from) / GALLOP_RATIO > a_to - a_from) {
            uint32 cursor = b_from;
            found = intersect_by_seeking(a, a_from, a_to, b, cursor, candidates, CHUNK_SIZE);
        } else {
            found = intersect_by_merging(a, a_from, a_to, b, b_from, b_to, candidates, CHUNK_SIZE);
        }
        a_from = a_to;
        b_from = b_to;
        for (uint32 n = 2; n < count && found > 0; ++n) {
            // Entries are key offsets, spread over key.bin: the list's
            // share of the candidates' span estimates its entries there.
            const PostingList& list = lists[order[n]];
            uint64_t span = uint64_t{candidates[found - 1]} - candidates[0] + 1;
            if (uint64_t{list.count} * span > FILTER_RATIO * found * this->key_bytes->length) {
                continue;
            }
            if (!list.seek(cursors[n], candidates[0])) {
                found = 0;  // nothing from here on is in this list
                exhausted = true;
                break;
            }
            found = keep_common(list, cursors[n], candidates, found, exhausted);
        }
        for (uint32 k = 0; k < found; ++k) {
            if (!collector.add(candidates[k])) {
                return collector.found_count();
            }
        }
    }
    collector.check();
    return collector.found_count();
}

// Whether the key at `entry` holds the keyword from character
// `char_position` on; on a match, fills `match` for append_result. The key
// record must lie inside key.bin.
bool IndexReader::match_key(const Keyword& keyword, uint32 entry, uint8 char_position, Match& match) const {
    const uint8* wanted = reinterpret_cast<const uint8*>(keyword.text.data());
    uint32 wanted_length = static_cast<uint32>(keyword.text.size());
    Records::Key key;
    if (!Records::decode_from(*this->key_bytes, entry, key)) {
        // A record that starts inside key.bin runs past its end; one that
        // does not was pointed at wrongly.
        bool starts_inside = uint64_t{entry} + Format::KEY_RECORD_HEADER_SIZE <= this->key_bytes->length;
        this->outside(*this->key_bytes, starts_inside ? KEY : INDEX);
        return false;
    }
    uint8 key_length = key.length;
    if (static_cast<uint32>(key_length - char_position) < wanted_length) {
        return false;
    }
    const uint8* text = key.text;

    uint32 start = Utf8::char_byte_offset(text, key_length, char_position);
    // The first byte on the spot: most candidates differ there, and many
    // keywords are a single byte.
    if (start + wanted_length > key_length ||
        (wanted_length != 0 &&
         (text[start] != wanted[0] ||
          (wanted_length > 1 && std::memcmp(text + start + 1, wanted + 1, wanted_length - 1) != 0)))) {
        return false;
    }
    if (keyword.found != nullptr && std::binary_search(keyword.found->begin(), keyword.found->end(), entry)) {
        return false;
    }
    match.entry = entry;
    match.data_pointer = key.data_pointer;
    match.key_length = key_length;
    return true;
}

// Appends the matched key with its value, if the value record lies inside
// data.bin (see outside() for when it does not).
bool IndexReader::append_result(const Match& match, std::vector<Rc<SearchResult>>* results) const {
    Records::Value value;
    if (!Records::decode_from(*this->data_bytes, match.data_pointer, value)) {
        bool starts_inside =
            uint64_t{match.data_pointer} + Format::VALUE_RECORD_HEADER_SIZE <= this->data_bytes->length;
        this->outside(*this->data_bytes, starts_inside ? DATA : KEY);
        return false;
    }
    Rc<ByteArray> value_view =
        this->data_bytes->borrow(match.data_pointer + Format::VALUE_RECORD_HEADER_SIZE, value.length);
    Rc<ByteArray> key = this->key_bytes->borrow(match.entry + Format::KEY_RECORD_HEADER_SIZE, match.key_length);
    results->push_back(make_rc<SearchResult>(std::move(key), std::move(value_view)));
    return true;
}

}  // namespace Lexarium::Reader
