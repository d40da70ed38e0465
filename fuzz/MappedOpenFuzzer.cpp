// Fuzz target: whatever four files a directory holds, the mapped open
// (IndexReader::from_directory_mapped) either fails
// with a message that names the culprit, or gives a reader whose searches
// never stop the process nor read outside the files.
//
// Each input's files are written as new files into a fresh directory on a
// tmpfs (/dev/shm, else $TMPDIR, else /tmp), so that a reader can never be
// handed a mapping shared with an earlier input; every reader is released
// and the directory removed before the input ends.
//
// Byte 0 of an input holds flags:
//   bits 0-1  how the file set is made:
//             0, 3  sparse: the files straight from the input (layout below);
//             1     one of 32 sets IndexWriter built (next byte, modulo 32);
//             2     the same, then damaged once (see damage()).
//   bit 2     unused.
//   bit 3     suffix.bin: a built set goes without its own; a sparse set
//             gets one with a sound header for its key.bin and entries
//             from the input (u8 n, then n entries of 5 bytes), so that
//             searches walk entries that point anywhere.
//
// Sparse layout after the flags:
//   u8 n, then n rows: u16 code point (modulo 65535), u8 cells count c, then
//     c cells of u32 offset, u32 entry count. Every row not listed is empty
//     (one zero byte); a row listed twice takes its last description.
//   u8 t: t % 4 == 1 cuts 1 + u16 bytes off the end of the table, t % 4 == 2
//     appends 1 + u8 bytes, else the table stays 65535 rows.
//   index.bin, key.bin, data.bin: each a u16 length and that many bytes.
// Whatever the file set did not use chooses the keywords.
//
// The open must succeed exactly when all four are regular files, table.bin
// is 65535 rows of at most 254 cells and index.bin holds at least its 4-byte
// sentinel; a failure's message must name the directory or a file, and the
// file at fault when there is one. A reader that opens is searched with two
// keywords (pieces of key.bin's records, characters made of input bytes,
// one character, a piece with a supplementary character, a whole key, the
// empty keyword; always well-formed UTF-8 without NUL) at 65535 and a limit
// of 0, 1 or 2. Every result must be a view inside the mapped key.bin and
// data.bin that holds the keyword, and no more results may come than the
// limit allows (one for limit 0); under AddressSanitizer the bytes between
// a file's end and the end of its last page are unreadable, so a read past
// a file's end is reported. A set as IndexWriter built it must give what
// from_bytes's reader of the same bytes gives; one with key.bin or data.bin
// cut at a record boundary, that less the hits whose records were cut off.
// One input in three also runs find() as a plain search, a pattern or with
// typos: it must fail with a message or give views inside the files (on a
// set as IndexWriter built it, what the plain reader's find gives).
#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#define QUORVEX_FUZZ_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QUORVEX_FUZZ_ASAN 1
#endif
#endif
#ifdef QUORVEX_FUZZ_ASAN
#include <sanitizer/asan_interface.h>
#endif

#include "FuzzSupport.h"
#include "Reader/IndexReader.h"
#include "Writer/IndexWriter.h"

using namespace quorvex_fuzz;
using Lexarium::Reader::IndexReader;
using Lexarium::Writer::IndexWriter;

namespace {

size_t searched_inputs = 0;

const char* const FILE_NAMES[4] = {"table.bin", "index.bin", "key.bin", "data.bin"};
enum Blob { TABLE = 0, INDEX = 1, KEY = 2, DATA = 3 };
const uint32_t ROWS = 65535;

// What stands at each of the four names: a regular file with `bytes`, or
// something that is not one.
enum class Kind { FILE, MISSING, DIRECTORY, FIFO };

struct FileSet {
    std::vector<uint8_t> bytes[4];
    Kind kinds[4] = {Kind::FILE, Kind::FILE, Kind::FILE, Kind::FILE};
    bool sound = false;         // built by IndexWriter and left alone
    int culprit = -1;           // the file that is not a regular file, if any
    uint64_t key_cut = UINT64_MAX;   // key.bin was cut to this many bytes
    uint64_t data_cut = UINT64_MAX;  // data.bin was cut to this many bytes
    std::vector<uint8_t> suffix;     // suffix.bin, written when has_suffix
    bool has_suffix = false;
};

void put_u32(std::vector<uint8_t>& out, size_t at, uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        out[at + i] = static_cast<uint8_t>(value >> (8 * i));
    }
}

// ---- Making the file set ----

FileSet sparse_file_set(ByteSource& in) {
    std::map<uint32_t, std::vector<uint8_t>> rows;  // code point -> row record
    for (int n = in.u8(); n > 0; --n) {
        uint32_t code_point = in.u16() % ROWS;
        uint8_t cells = in.u8();
        std::vector<uint8_t> record(1 + 8 * size_t{cells});
        record[0] = cells;
        for (size_t cell = 0; cell < cells; ++cell) {
            put_u32(record, 1 + 8 * cell, in.u32());
            put_u32(record, 5 + 8 * cell, in.u32());
        }
        rows[code_point] = std::move(record);
    }
    FileSet files;
    std::vector<uint8_t>& table = files.bytes[TABLE];
    uint32_t next = 0;
    for (const auto& row : rows) {
        table.resize(table.size() + (row.first - next), 0);
        table.insert(table.end(), row.second.begin(), row.second.end());
        next = row.first + 1;
    }
    table.resize(table.size() + (ROWS - next), 0);
    uint8_t tail = in.u8();
    if (tail % 4 == 1) {
        table.resize(table.size() - std::min<size_t>(table.size(), 1 + size_t{in.u16()}));
    } else if (tail % 4 == 2) {
        std::string extra = in.bytes(1 + size_t{in.u8()});
        table.insert(table.end(), extra.begin(), extra.end());
        table.resize(table.size() + (extra.empty() ? 1 : 0), 0);
    }
    for (int blob = INDEX; blob <= DATA; ++blob) {
        std::string bytes = in.bytes(in.u16());
        files.bytes[blob].assign(bytes.begin(), bytes.end());
    }
    return files;
}

// A suffix.bin whose header fits the set's key.bin, with entries straight
// from the input.
void add_loose_suffixes(FileSet& files, ByteSource& in) {
    size_t count = in.u8();
    std::string header = "QVXS";
    header += std::string("\x01\0\0\0", 4);
    files.suffix.assign(header.begin(), header.end());
    files.suffix.resize(16);
    put_u32(files.suffix, 8, static_cast<uint32_t>(count));
    put_u32(files.suffix, 12, static_cast<uint32_t>(files.bytes[KEY].size()));
    std::string entries = in.bytes(5 * count);
    entries.resize(5 * count, '\0');
    files.suffix.insert(files.suffix.end(), entries.begin(), entries.end());
    files.has_suffix = true;
}

const uint32_t ALPHABET[] = {'a', 'b', 'n', 'a', 'b', 0x01, 0x7F, 0x80, 0xE9, 0x7FF, 0x800, 0x436, 0x4E2D, 0xFFFE};

// A file set IndexWriter built, and a reader of the same bytes made by
// from_bytes, whose answers the mapped reader must give.
struct Built {
    FileSet files;
    Rc<IndexReader> plain;
};

// Items read as the header describes, from a stream that is not the input.
void add_items(IndexWriter& writer, ByteSource& in, size_t count) {
    for (; count > 0; --count) {
        uint8_t shape = in.u8();
        std::vector<uint32_t> characters;
        if (shape >= 0xE0) {
            std::vector<uint32_t> pattern(1 + (shape & 3));
            for (uint32_t& code_point : pattern) {
                code_point = pick_character(in, ALPHABET);
            }
            for (size_t i = 0, length = 1 + in.u8() % 254; i < length; ++i) {
                characters.push_back(pattern[i % pattern.size()]);
            }
        } else {
            for (int length = 1 + (shape & 7); length > 0; --length) {
                characters.push_back(pick_character(in, ALPHABET));
            }
        }
        std::string key;
        for (uint32_t code_point : characters) {
            append_utf8(key, code_point);
        }
        std::string value = in.bytes(in.u8() % 16);
        writer.add_word(key, exact_copy(std::vector<uint8_t>(value.begin(), value.end())));
    }
}

// The writer's table of 65535 rows costs tens of milliseconds under the
// sanitizers however few items there are, and so does the plain reader's:
// far too much for every input. So the items come from a fixed number of
// lists, each built once per process when an input first asks for it. List
// n is read from a pseudo-random stream seeded with n; the last few are long
// (16 to 100 items), so that posting lists are long enough to be
// intersected a stretch at a time.
const size_t BUILT_SETS = 32;

const Built& built_set(size_t number) {
    static std::unique_ptr<Built> sets[BUILT_SETS];
    std::unique_ptr<Built>& set = sets[number % BUILT_SETS];
    if (set) {
        return *set;
    }
    std::vector<uint8_t> stream(1 << 16);
    uint32_t state = 0x9E3779B9u * (static_cast<uint32_t>(number % BUILT_SETS) + 1);
    for (uint8_t& byte : stream) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        byte = static_cast<uint8_t>(state >> 24);
    }
    ByteSource in(stream.data(), stream.size());
    const size_t long_lists[] = {16, 40, 100};
    size_t first_long = BUILT_SETS - sizeof long_lists / sizeof long_lists[0];
    size_t count = number % BUILT_SETS >= first_long ? long_lists[number % BUILT_SETS - first_long] : 1 + in.u8() % 8;
    IndexWriter writer;
    add_items(writer, in, count);
    Rc<Lexarium::Writer::_IndexData> data = writer.to_bytes();
    data->add_suffix_array();
    set.reset(new Built);
    FileSet& files = set->files;
    files.suffix = concatenate(data->suffix_chunks);
    files.has_suffix = true;
    files.bytes[TABLE] = concatenate(data->table_chunks);
    files.bytes[INDEX] = concatenate(data->index_chunks);
    files.bytes[KEY] = concatenate(data->key_chunks);
    files.bytes[DATA] = concatenate(data->data_chunks);
    files.sound = true;
    set->plain = IndexReader::from_bytes(exact_copy(files.bytes[TABLE]), exact_copy(files.bytes[INDEX]),
                                         exact_copy(files.bytes[KEY]), exact_copy(files.bytes[DATA]));
    return *set;
}

// Where the records of a file start, and its end: the places a cut leaves
// whole records. For key.bin and data.bin the records are walked from 0 as
// far as they fit.
std::vector<size_t> record_boundaries(const std::vector<uint8_t>& bytes, int blob) {
    std::vector<size_t> boundaries;
    size_t at = 0;
    while (at < bytes.size()) {
        boundaries.push_back(at);
        size_t size = 0;
        if (blob == TABLE) {
            size = 1 + 8 * size_t{bytes[at]};
        } else if (blob == INDEX) {
            size = 4;
        } else if (blob == KEY) {
            size = at + 5 <= bytes.size() ? 5 + size_t{bytes[at + 4]} : bytes.size() - at;
        } else {
            size = at + 2 <= bytes.size() ? 2 + (bytes[at] | size_t{bytes[at + 1]} << 8) : bytes.size() - at;
        }
        at += size;
    }
    boundaries.push_back(bytes.size());
    return boundaries;
}

// Notes a cut of key.bin or data.bin at a record boundary: the set loses
// just the records past the cut.
void mark_cut(FileSet& files, int blob) {
    if (blob == KEY) {
        files.key_cut = files.bytes[KEY].size();
    } else if (blob == DATA) {
        files.data_cut = files.bytes[DATA].size();
    }
}

// One change to a sound set: a file cut at a record boundary, bytes
// flipped, two files swapped, a file emptied, a 4-byte word overwritten, or
// a directory, a FIFO or nothing in a file's place.
void damage(FileSet& files, ByteSource& in) {
    files.sound = false;
    uint8_t kind = in.u8() % 8;
    int blob = in.u8() % 4;
    std::vector<uint8_t>& bytes = files.bytes[blob];
    switch (kind) {
        case 0: {
            std::vector<size_t> boundaries = record_boundaries(bytes, blob);
            size_t cut = boundaries[in.u16() % boundaries.size()];
            bytes.resize(cut);
            mark_cut(files, blob);
            break;
        }
        case 1:
            for (int flips = 1 + in.u8() % 4; flips > 0; --flips) {
                uint8_t which = in.u8() % 5;
                std::vector<uint8_t>& flipped = which == 4 ? files.suffix : files.bytes[which];
                uint32_t at = in.u32();
                uint8_t mask = in.u8() | 1;
                if (!flipped.empty()) {
                    flipped[at % flipped.size()] ^= mask;
                }
            }
            break;
        case 2:
            std::swap(bytes, files.bytes[(blob + 1 + in.u8() % 3) % 4]);
            break;
        case 3:
            bytes.clear();
            mark_cut(files, blob);
            break;
        case 4: {
            uint32_t value = in.u32();
            if (bytes.size() >= 4) {
                put_u32(bytes, (in.u32() % (bytes.size() / 4)) * 4, value);
            }
            break;
        }
        default:
            files.kinds[blob] = kind == 5 ? Kind::DIRECTORY : kind == 6 ? Kind::FIFO : Kind::MISSING;
            files.culprit = blob;
            break;
    }
}

// Runs on every input over a whole table: a compare callback per row would
// cost more than the rest of the input.
#if defined(__clang__)
#define QUORVEX_NOT_COVERED __attribute__((no_sanitize("coverage")))
#else
#define QUORVEX_NOT_COVERED
#endif

// Why the open must refuse a set, or OPENS: the table walked here on its
// own, not with the library's record code.
enum Verdict { OPENS, NOT_A_FILE, TABLE_SHORT, TABLE_LONG, TOO_MANY_CELLS, NO_SENTINEL };

QUORVEX_NOT_COVERED Verdict judge(const FileSet& files) {
    for (Kind kind : files.kinds) {
        if (kind != Kind::FILE) {
            return NOT_A_FILE;
        }
    }
    const std::vector<uint8_t>& table = files.bytes[TABLE];
    size_t at = 0;
    bool too_many = false;
    for (uint32_t row = 0; row < ROWS;) {
        if (at >= table.size()) {
            return TABLE_SHORT;
        }
        // Most rows are empty, one zero byte each: pass over eight at once.
        uint64_t eight = 1;
        if (row + 8 <= ROWS && at + 8 <= table.size() && (std::memcpy(&eight, &table[at], 8), eight == 0)) {
            row += 8;
            at += 8;
            continue;
        }
        too_many = too_many || table[at] == 255;
        at += 1 + 8 * size_t{table[at]};
        ++row;
    }
    return at > table.size() ? TABLE_SHORT
           : too_many        ? TOO_MANY_CELLS
           : at < table.size() ? TABLE_LONG
           : files.bytes[INDEX].size() < 4 ? NO_SENTINEL
                                           : OPENS;
}

// ---- The directory ----

// One directory per process on a tmpfs; each input gets a fresh
// subdirectory of it, never a name used before.
const std::string& scratch_root() {
    static std::string root = [] {
        std::vector<std::string> candidates = {"/dev/shm"};
        if (const char* tmpdir = std::getenv("TMPDIR")) {
            candidates.push_back(tmpdir);
        }
        candidates.push_back("/tmp");
        for (const std::string& candidate : candidates) {
            std::string name = candidate + "/quorvex-mapped-XXXXXX";
            if (::mkdtemp(&name[0]) != nullptr) {
                return name;
            }
        }
        fail("no directory for the file sets");
    }();
    static bool registered = (std::atexit([] { ::rmdir(scratch_root().c_str()); }), true);
    (void)registered;
    return root;
}

// The file set written into a directory of its own, removed with it.
class Directory {
public:
    explicit Directory(const FileSet& files) {
        static uint64_t serial = 0;
        path_ = scratch_root() + "/" + std::to_string(serial++);
        if (::mkdir(path_.c_str(), 0700) != 0) {
            fail(path_ + ": " + std::strerror(errno));
        }
        if (files.has_suffix) {
            make_file(path_ + "/suffix.bin", std::string(files.suffix.begin(), files.suffix.end()));
        }
        for (int blob = 0; blob < 4; ++blob) {
            std::string file = path_ + "/" + FILE_NAMES[blob];
            const std::vector<uint8_t>& bytes = files.bytes[blob];
            if (files.kinds[blob] == Kind::FILE) {
                make_file(file, std::string(bytes.begin(), bytes.end()));
            } else if ((files.kinds[blob] == Kind::DIRECTORY && ::mkdir(file.c_str(), 0700) != 0) ||
                       (files.kinds[blob] == Kind::FIFO && ::mkfifo(file.c_str(), 0600) != 0)) {
                fail(file + ": " + std::strerror(errno));
            }
        }
    }
    ~Directory() { std::filesystem::remove_all(path_); }
    Directory(const Directory&) = delete;
    Directory& operator=(const Directory&) = delete;

    const std::string& path() const { return path_; }

private:
    std::string path_;
};

// ---- Searching ----

// Past a mapped file's end, the rest of its last page reads as zeros rather
// than faulting. Under AddressSanitizer those bytes are marked unreadable
// while the reader lives, so that a read past the end of a file is reported
// like one past the end of an allocation; they are marked readable again
// before the mapping goes.
class GuardedTails {
public:
    explicit GuardedTails(const IndexReader& reader) {
#ifdef QUORVEX_FUZZ_ASAN
        const uintptr_t page = static_cast<uintptr_t>(::sysconf(_SC_PAGESIZE));
        for (const Rc<ByteArray>* blob : {&reader.table_bytes, &reader.index_bytes, &reader.key_bytes, &reader.data_bytes}) {
            if ((*blob)->length != 0) {
                uintptr_t end = reinterpret_cast<uintptr_t>((*blob)->data) + (*blob)->length;
                tails_.emplace_back(reinterpret_cast<void*>(end), (page - end % page) % page);
                __asan_poison_memory_region(tails_.back().first, tails_.back().second);
            }
        }
#else
        (void)reader;
#endif
    }
    ~GuardedTails() {
#ifdef QUORVEX_FUZZ_ASAN
        for (const auto& tail : tails_) {
            __asan_unpoison_memory_region(tail.first, tail.second);
        }
#endif
    }
    GuardedTails(const GuardedTails&) = delete;
    GuardedTails& operator=(const GuardedTails&) = delete;

private:
    std::vector<std::pair<void*, size_t>> tails_;
};

// A hit as offsets into the key and data blobs, so that hits of two readers
// over equal bytes can be compared.
struct Place {
    uint64_t key;
    uint64_t key_length;
    uint64_t value;
    uint64_t value_length;
    bool operator==(const Place& other) const {
        return key == other.key && key_length == other.key_length && value == other.value &&
               value_length == other.value_length;
    }
};

std::vector<Place> places(const std::vector<Rc<Lexarium::Reader::SearchResult>>& results, const IndexReader& reader) {
    std::vector<Place> out;
    for (const auto& result : results) {
        out.push_back(Place{static_cast<uint64_t>(result->key->data - reader.key_bytes->data), result->key->length,
                            static_cast<uint64_t>(result->value->data - reader.data_bytes->data),
                            result->value->length});
    }
    return out;
}

std::string describe(const std::vector<Place>& hits) {
    std::string out;
    for (const Place& place : hits) {
        out += " k" + std::to_string(place.key) + "+" + std::to_string(place.key_length) + "/v" +
               std::to_string(place.value) + "+" + std::to_string(place.value_length);
    }
    return out.empty() ? " (none)" : out;
}

void require_same(const std::vector<Place>& actual, const std::vector<Place>& expected, const std::string& what,
                  const std::string& keyword, uint16_t limit) {
    if (actual != expected) {
        fail(what + " for " + hex(keyword) + " with limit " + std::to_string(limit) + "\n  mapped:" +
             describe(actual) + "\n  expected:" + describe(expected));
    }
}

void require_named(const std::string& message, const std::string& directory, int culprit, const char* opener) {
    if (message.empty()) {
        fail(std::string(opener) + " failed with an empty message");
    }
    bool named = message.find(directory) != std::string::npos;
    for (const char* name : FILE_NAMES) {
        named = named || message.find(name) != std::string::npos;
    }
    if (!named || (culprit >= 0 && message.find(FILE_NAMES[culprit]) == std::string::npos)) {
        fail(std::string(opener) + " failed with \"" + message + "\", which does not name " +
             (culprit >= 0 ? FILE_NAMES[culprit] : "the directory or a file"));
    }
}

// find() in the mode the input picks (plain, a pattern made of the keyword
// with characters as "?" and anchors, or typos): it fails with a message or
// gives views inside the files; on a set IndexWriter built, what the plain
// reader's find gives.
void check_find(const IndexReader& reader, const Built* built, bool sound, const std::string& keyword,
                ByteSource& in) {
    Lexarium::Reader::SearchOptions options;
    uint8_t choice = in.u8();
    options.limit = choice & 1 ? 65535 : choice % 21;
    options.mode = choice & 2 ? Lexarium::Reader::MatchMode::Pattern : Lexarium::Reader::MatchMode::Plain;
    // Typos sweep every position with several pieces: kept to keywords of a
    // dozen characters, or a few inputs would take most of the time.
    bool short_keyword = decode_leniently(keyword).size() <= 12;
    options.typos = choice & 2 || !short_keyword ? 0 : static_cast<uint8>((choice >> 2) % 3);
    std::string text = keyword;
    if (options.mode == Lexarium::Reader::MatchMode::Pattern) {
        text.clear();
        for (uint32_t c : decode_leniently(keyword)) {
            if (in.u8() % 4 == 0) {
                text += '?';
            } else {
                append_utf8(text, c);
            }
        }
        text = (choice & 16 ? "^" : "") + text + (choice & 32 ? "$" : "");
    }
    std::vector<Lexarium::Reader::Hit> hits;
    std::string error;
    if (!reader.find(text, options, hits, &error)) {
        if (error.empty()) {
            fail("find failed without a message for " + hex(text));
        }
        return;
    }
    if (hits.size() > options.limit) {
        fail("find gave " + std::to_string(hits.size()) + " hits for " + hex(text));
    }
    for (const auto& hit : hits) {
        if (!(lies_inside(hit.key.data(), hit.key.size(), *reader.key_bytes) ||
              lies_inside(hit.key.data(), hit.key.size(), *reader.data_bytes)) ||
            !lies_inside(hit.value.data(), hit.value.size(), *reader.data_bytes)) {
            fail("find gave a view outside the files for " + hex(text));
        }
    }
    if (sound) {
        std::vector<Lexarium::Reader::Hit> expected;
        built->plain->find(text, options, expected, nullptr);
        bool same = expected.size() == hits.size();
        for (size_t i = 0; same && i < hits.size(); ++i) {
            same = hits[i].key == expected[i].key && hits[i].value == expected[i].value &&
                   hits[i].position == expected[i].position && hits[i].edits == expected[i].edits;
        }
        if (!same) {
            fail("the mapped and plain readers' find differ for " + hex(text));
        }
    }
}

// Searches a reader that opened `files`; `built` is the set IndexWriter
// built, when `files` is that set or that set damaged. A set still as built
// must give what the plain reader gives; one cut at a record boundary, that
// less the hits whose records were cut off. One input in three runs find()
// on each keyword too.
void search_mapped(IndexReader& reader, const FileSet& files, const Built* built, ByteSource& in) {
    for (int blob = 0; blob < 4; ++blob) {
        const Rc<ByteArray>& mapped = blob == TABLE   ? reader.table_bytes
                                      : blob == INDEX ? reader.index_bytes
                                      : blob == KEY   ? reader.key_bytes
                                                      : reader.data_bytes;
        const std::vector<uint8_t>& written = files.bytes[blob];
        if (mapped->length != written.size() ||
            (!written.empty() && std::memcmp(mapped->data, written.data(), written.size()) != 0)) {
            fail(std::string("the reader's ") + FILE_NAMES[blob] + " is not the file written");
        }
    }
    const bool cut = built != nullptr && !files.sound &&
                     (files.key_cut != UINT64_MAX || files.data_cut != UINT64_MAX);
    const bool emptied = files.key_cut == 0 || files.data_cut == 0;
    const uint8_t choice = in.u8();
    const uint16_t limits[] = {static_cast<uint16_t>(choice / 3 % 3), 65535};
    in.u8();  // once the position of a one-position search; kept so that saved inputs read as before
    for (const std::string& keyword : keywords_for(key_records(files.bytes[KEY].data(), files.bytes[KEY].size()), in, 2, false)) {
        for (uint16_t limit : limits) {
            Results results = reader.search(keyword, limit);
            checked_hits(results, *reader.key_bytes, *reader.data_bytes, keyword, limit);
            std::vector<Place> hits = places(*results, reader);
            if (emptied && !hits.empty()) {
                fail("a search with key.bin or data.bin empty found something");
            }
            if (files.sound) {
                require_same(hits, places(*built->plain->search(keyword, limit), *built->plain),
                             "the mapped and plain readers differ", keyword, limit);
            }
            if (cut && limit == 65535) {
                std::vector<Place> expected;
                for (const Place& place : places(*built->plain->search(keyword, limit), *built->plain)) {
                    if (place.key + place.key_length <= files.key_cut &&
                        place.value + place.value_length <= files.data_cut) {
                        expected.push_back(place);
                    }
                }
                require_same(hits, expected, "the search after a cut at a record boundary", keyword, limit);
            }
        }
        if (choice % 3 == 2) {
            check_find(reader, built, files.sound, keyword, in);
        }
    }
    ++searched_inputs;
}

}  // namespace

// How many inputs reached a search; the replay program reports it.
extern "C" size_t quorvex_fuzz_searched_inputs() { return searched_inputs; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    ByteSource in(data, size);
    uint8_t flags = in.u8();
    int mode = flags & 3;
    const Built* built = mode == 1 || mode == 2 ? &built_set(in.u8()) : nullptr;
    FileSet files = built != nullptr ? built->files : sparse_file_set(in);
    if (mode == 2) {
        damage(files, in);
    }
    if ((flags & 8) != 0 && built != nullptr) {
        files.has_suffix = false;
    } else if ((flags & 8) != 0) {
        add_loose_suffixes(files, in);
    }
    // The file the open's message must name, when the open must fail.
    int culprit = -1;
    switch (judge(files)) {
        case OPENS:
            break;
        case NOT_A_FILE:
            culprit = files.culprit;
            break;
        case NO_SENTINEL:
            culprit = INDEX;
            break;
        case TABLE_SHORT:
        case TABLE_LONG:
        case TOO_MANY_CELLS:
            culprit = TABLE;
            break;
    }
    const bool expected = culprit < 0;
    if (files.sound && !expected) {
        fail("a set IndexWriter built is not one the open should take");
    }

    Directory directory(files);
    std::string error;
    Rc<IndexReader> reader = IndexReader::from_directory_mapped(directory.path(), &error);
    if (reader.is_null() == expected) {
        fail(std::string("the open ") + (expected ? "refused a well-formed set: " + error : "took a malformed set"));
    }
    if (reader.is_null()) {
        require_named(error, directory.path(), culprit, "from_directory_mapped");
    } else {
        GuardedTails guard(*reader);
        search_mapped(*reader, files, built, in);
    }
    return 0;
}
