#ifndef QUORVEX_READER_INDEX_READER_H
#define QUORVEX_READER_INDEX_READER_H

#include <atomic>
#include <codecvt>
#include <locale>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "IndexDescription.h"
#include "IndexTable.h"
#include "Records.h"
#include "Reader/SearchResult.h"
#include "SuffixArray.h"
#include "Reader/Utf8Characters.h"
#include "TypeDefinitions.h"

namespace Lexarium::Reader {

struct PostingList;   // internal to the reader
struct RowDirectory;  // internal to the reader
struct MappedIndex;   // internal to the reader

// Reads a whole file into one new owning array. A path that does not exist
// stops the process with "std::filesystem::exists(file_path)"; a size that
// cannot be taken (a directory) throws std::filesystem::filesystem_error;
// open, read and close failures throw std::runtime_error with the system's
// text (for a close, the text of the close's return value). The file is
// closed on every path.
QUORVEX_API Rc<ByteArray> read_file(const std::string& file_path);

// How find() reads its keyword.
enum class MatchMode : uint8 {
    // The keyword is text to find as it is (folded in a folded index).
    Plain = 0,
    // The keyword is a pattern: "?" stands for any one character, "^" first
    // anchors the match at the start of the key, "$" last at its end ("^haus$"
    // is the whole key), and "\" makes the next character literal. A
    // pattern needs one literal character at least.
    Pattern = 1,
};

// What find() is asked for; a default-made record asks for the plain
// search of the first 20 items.
struct SearchOptions {
    // At most this many hits; 0 gives none.
    uint16 limit = 20;
    MatchMode mode = MatchMode::Plain;
    // Typos forgiven (plain mode only): a key matches when some run of its
    // characters is within this many edits of the keyword, an edit being a
    // character substituted, inserted or deleted, or two adjacent ones
    // swapped; counted on folded text in a folded index. 0, 1 or 2, capped
    // by the keyword's length in characters (folded): none under 4, at most
    // 1 from 4 to 7, 2 from 8 on.
    uint8 typos = 0;
};

// One hit of find(): an item's key as it was put in and its value, both
// views into the reader's files (valid while the reader lives), the
// character of the stored key at which the match begins, and the edits it
// took (0 but with typos).
struct Hit {
    std::string_view key;
    std::string_view value;
    uint8 position;
    uint8 edits;
};

// IndexReader: holds the four blobs of an index and searches them. The
// blobs are shared, never copied; the table blob is parsed once into row
// views when the reader is made, and every search reads the other three in
// place.
//
// Made only by the three factories, always inside an Rc.
//
// Threads: a search writes nothing that the reader shares, so any number of
// threads may search one reader at the same time. What must stay on one
// thread at a time is copying or releasing handles to the same object
// (reference counts are plain integers): each thread keeps the results of
// its own searches, and nobody copies, releases or reloads the reader while
// others search it. A search keeps its working lists on the calling
// thread's stack, about 24 KiB.
class QUORVEX_API IndexReader {
public:
    // A UTF-8 converter kept for code that wants one; searches decode
    // keywords without it.
    std::wstring_convert<std::codecvt_utf8<wchar_t>> converter;
    Rc<ByteArray> table_bytes;
    Rc<ByteArray> index_bytes;
    Rc<ByteArray> key_bytes;
    Rc<ByteArray> data_bytes;
    // The rows of `table_bytes`, parsed by initialize().
    Rc<IndexTable> index_table;

    // A reader over the four blobs, taken in this order: table, index, key,
    // data. The reader shares them (no copy) and keeps them alive; borrowed
    // arrays must keep their memory valid for its whole life. None may be an
    // empty handle. Nothing is checked but the table, which is parsed here:
    // one that ends before its 65535th row stops the process with
    // "offset + count <= this->length".
    static Rc<IndexReader> from_bytes(Rc<ByteArray> table, Rc<ByteArray> index, Rc<ByteArray> key,
                                      Rc<ByteArray> data);

    // Reads the four files, in the order table, index, key, data, and makes a
    // reader of them. The first failure stops the sequence (see read_file).
    static Rc<IndexReader> from_files(const std::string& table_path, const std::string& index_path,
                                      const std::string& key_path, const std::string& data_path);

    // from_files on `directory` + "/table.bin", "/index.bin", "/key.bin" and
    // "/data.bin" (plain concatenation: a trailing slash doubles, which the
    // file system accepts).
    static Rc<IndexReader> from_directory(std::string directory);

    // A reader over the four files of `directory`, mapped read-only rather
    // than read: opening costs one walk over table.bin, and the pages of the
    // other three files are read from the page cache as searches touch
    // them, shared with every other reader of the same files (readers of one
    // unchanged index in one process share a single mapping). The mapping
    // lives as long as the reader, and results stay valid while it lives.
    //
    // Never aborts and never throws. On failure it returns an empty Rc and,
    // when `error` is not null, stores a message that names the file and
    // the problem: an empty path, a missing or unreadable file, a directory
    // or FIFO in a file's place, a file of 4 GiB or more, a table.bin that
    // is not exactly 65535 rows of at most 254 cells, an index.bin shorter
    // than its sentinel, or no memory.
    //
    // Open checks only the table; every other record is checked where a
    // search uses it (a posting list against index.bin, a key record
    // against key.bin, a value record against data.bin), and one that does
    // not lie inside its file is passed over rather than stopping the
    // process. So whatever the files hold, a search on such a reader never
    // aborts, never reads outside the files and ends; on a sound index it
    // returns exactly what a reader made by from_directory returns. Use
    // IndexVerifier to learn whether files are sound.
    //
    // Indexes are immutable: replace one by writing a new directory and
    // renaming it into place (as the quorvex tool does); open readers keep
    // the old files. A file truncated in place while mapped makes the
    // process receive SIGBUS when a search reads a page past its new end,
    // and a file changed in place gives wrong answers. Such a reader has no
    // `index_table` (it stays empty); its rows are reached directly.
    static Rc<IndexReader> from_directory_mapped(const std::string& directory, std::string* error);

    // How many records the searches of a mapped reader have passed over
    // because they do not lie inside their file, over the reader's life and
    // all threads, by the file at fault: a cell whose posting list runs past
    // index.bin counts for table.bin; an entry that points past key.bin for
    // index.bin; a key record that runs past key.bin or points past data.bin
    // for key.bin; a value record that runs past data.bin for data.bin. All
    // zero on a sound index, and always for other readers, which stop the
    // process instead.
    struct Damage {
        uint64_t table = 0, index = 0, key = 0, data = 0;
        // Entries of suffix.bin that point outside key.bin (the search
        // then goes on without it) or at a key that does not hold the
        // keyword there (passed over).
        uint64_t suffix = 0;
    };
    Damage damage_passed_over() const;

    // What the index says about itself (the value of its empty key); no
    // fields for an index built without one. Read when the reader is made.
    const IndexDescription& description() const { return this->described; }
    // The folding version of the index's keys (Fold.h), 0 for exact keys.
    uint32 folding() const { return this->folding_version; }

    // Whether searches may use a suffix array (suffix.bin, which a mapped
    // reader maps when it belongs to the index's key.bin), and why a
    // suffix.bin that is there is not used ("" when there is none or it is
    // used). With or without it, answers are the same; with it, keywords
    // that occur in few keys are found without walking the posting lists.
    bool has_suffix_array() const { return !this->suffixes.empty(); }
    const std::string& suffix_array_problem() const;

    // The items whose keys contain `keyword` (or match it as a pattern, or
    // with typos: see SearchOptions), each once, at most `options.limit` of
    // them, into `hits` (cleared first). With typos, hits come by their
    // edits first, fewest first; each item at its best match.
    //
    // In a folded index the keyword is folded as the keys were (so "Haus"
    // finds "haus" and "strasse" "straße"), and each entry gives the items
    // it merged, with their keys as they were put in: first those whose key
    // contains the keyword exactly as typed, then the others, in input
    // order. In an exact index, the keyword only loses white space at both
    // ends. Hits come by the character at which the stored key holds the
    // keyword, first the keys that begin with it; at one position in key
    // order. A key holding the keyword at two positions gives its items once,
    // at the first.
    //
    // Never stops the process and throws nothing: on a keyword that is not
    // UTF-8, holds a character no key can hold (outside U+0001..U+FFFE) or
    // is 255 bytes or more once folded, on a malformed pattern (no literal
    // character, a "\" at the end, "^" or "$" elsewhere than first or
    // last), on typos above 2 or with a pattern, or when memory runs out, it
    // returns false with a message in `error` (when not null). A keyword of white
    // space only finds nothing. On a reader made from files that are not
    // sound, the records a search reaches are checked as the other searches
    // check them (see from_directory_mapped and from_bytes). Any number of
    // threads may call it at once.
    bool find(const std::string& keyword, const SearchOptions& options, std::vector<Hit>& hits,
              std::string* error) const;

    // Walks every item of the index in key order, a batch at a time:
    // appends to `items` the items of the entries from key.bin offset
    // `cursor` on until at least `batch` were added or key.bin ends, and
    // moves `cursor` past those entries. Start at 0; returns false once
    // nothing was added and nothing is left. The items of one folded entry
    // come together in input order; the description is not an item.
    // Hits have position and edits 0. Never stops the process: a record
    // that does not lie inside its file ends the walk (and counts as damage
    // passed over, see damage_passed_over()).
    bool next_items(uint64_t& cursor, size_t batch, std::vector<Hit>& items) const;

    // The number of items: what the description says, or else a walk
    // counts them.
    uint64_t item_count() const;

    // Parses `table_bytes` into `index_table`, replacing an earlier parse.
    void initialize();

    // The keys that contain `keyword`, with their values, at most `limit` of
    // them: first the keys that begin with it, then those that hold it from
    // their second character on, and so on; within one position in key
    // order. A key holding the keyword at two positions is listed twice.
    // `limit` 0 still returns the first key that begins with the keyword, if
    // any. Keys and values are views: read them only while this reader's key
    // and data arrays live.
    //
    // `keyword` is UTF-8 of fewer than 255 bytes ("keyword.length() < 255"
    // stops the process otherwise); invalid UTF-8 throws
    // std::range_error("wstring_convert::from_bytes"). A record that lies
    // outside its blob stops the process with "offset + count <= this->length".
    Rc<std::vector<Rc<SearchResult>>> search(const std::string& keyword, uint16 limit);

    // One position of the search above: appends to `results` the keys that
    // hold `keyword` from their character number `char_position` on, at most
    // `limit` of them (but always the first hit, even for `limit` 0), and
    // returns how many it appended. `visited_count` grows by the number of
    // posting-list entries examined.
    uint16 search(const std::string& keyword, uint16 limit, std::vector<Rc<SearchResult>>* results,
                  uint32& visited_count, uint8 char_position);

    ~IndexReader();
    IndexReader(const IndexReader&) = delete;
    IndexReader& operator=(const IndexReader&) = delete;

private:
    IndexReader();

    // Where each row record starts, so that a search reaches a cell in one
    // step rather than through three handles; made by initialize() from
    // `index_table` and used only while `index_table` is still that table.
    std::shared_ptr<const RowDirectory> rows;
    const IndexTable* rows_table = nullptr;
    // A mapped reader's files; its blobs are views of them. Such a reader
    // passes over a record that lies outside its blob instead of stopping
    // the process.
    std::shared_ptr<const MappedIndex> mapping;
    bool skips_damage = false;
    enum Blob { TABLE, INDEX, KEY, DATA, SUFFIX };
    mutable std::atomic<uint64_t> passed_over[5] = {};
    SuffixArray suffixes;  // empty without a usable suffix.bin
    IndexDescription described;
    uint32 folding_version = 0;

    struct Keyword;
    struct Match;
    struct Scratch;
    class Collector;

    void read_description();
    bool searched_form(const std::string& keyword, std::string& text, std::string* error) const;
    struct Found;
    struct Cell;
    bool holds_at(uint32 entry, uint8 position, const std::string& text) const;
    bool suffix_occurrences(const Keyword& keyword, uint32 most, std::vector<uint64_t>& occurrences) const;
    bool find_by_suffixes(const Keyword& keyword, uint16 limit, std::vector<uint32>& seen,
                          std::vector<Found>& found) const;
    void find_entries(const std::string& text, uint16 limit, std::vector<uint32>& seen,
                      std::vector<Found>& found) const;
    void expand_entry(std::string_view key, std::string_view value, uint8 position, uint8 edits,
                      std::vector<Hit>& hits) const;
    void add_items(std::string_view key, std::string_view value, const Found& found, const std::string& typed,
                   uint16 limit, std::vector<Hit>& hits) const;
    bool entry_of(uint32 entry, Records::Key& key, Records::Value* value) const;
    bool fail(const char* why, std::string* error) const;
    void entries_with(const std::vector<Cell>& cells, std::vector<uint32>& out) const;
    uint32 horizon(const std::vector<uint32>& characters) const;
    bool find_pattern(const std::string& pattern, uint16 limit, std::vector<Found>& found, std::string* error) const;
    void find_with_typos(const std::string& text, uint8 budget, uint16 limit, std::vector<Found>& found) const;
    Keyword prepare(const std::string& keyword) const;
    Records::Row row(uint32 code_point) const;
    bool inside_index(uint64_t offset, uint64_t count) const;
    void outside(const ByteArray& blob, Blob at_fault) const;
    int32_t last_position(const Keyword& keyword) const;
    uint32 most_results(const Keyword& keyword, int32_t last, uint16 limit) const;
    bool find_list(uint32 code_point, uint32 char_position, PostingList& list) const;
    uint16 search_at(const Keyword& keyword, uint16 limit, std::vector<Rc<SearchResult>>* results,
                     uint32& visited_count, uint8 char_position) const;
    uint16 search_one_character(const Keyword& keyword, uint16 limit, std::vector<Rc<SearchResult>>* results,
                                uint8 char_position) const;
    uint16 search_intersecting(const Keyword& keyword, uint16 limit, std::vector<Rc<SearchResult>>* results,
                               uint8 char_position, Scratch& scratch) const;
    bool match_key(const Keyword& keyword, uint32 entry, uint8 char_position, Match& match) const;
    bool append_result(const Match& match, std::vector<Rc<SearchResult>>* results) const;
};

}  // namespace Lexarium::Reader

#endif
