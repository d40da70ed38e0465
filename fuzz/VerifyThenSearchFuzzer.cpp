// Fuzz target: whatever four blobs IndexVerifier accepts, IndexReader loads
// and searches without stopping, crashing or reading outside them.
//
// Byte 0 of an input holds flags:
//   bits 0-1  how the file set is made:
//             0  raw: taken from the input as it stands (layout below);
//             1  generated, sound by construction, with posting lists that
//                need not match the keys (only the cheap checks hold);
//             2  generated and listed exactly as the keys' characters call
//                for, so the deep checks hold too when every key is UTF-8;
//             3  generated as 1 or 2, then damaged by a few byte edits.
//   bit 2     verify deeply (raw and damaged sets; generated ones are
//             always verified both ways)
//   bits 3-7  how many problems the verifier is asked to keep (0..31)
//
// Raw layout after the flags: four uint16 little-endian section lengths
// (table, index, key, data), each cut to what the input still holds, then the
// sections. The table section is compressed as expand_table describes
// (FuzzSupport.h); the other three are the blobs themselves. Generated sets
// read their items, keys and edits from the bytes after the flags. Whatever
// the file set did not use chooses the keywords.
//
// Each blob gets an allocation of its own exact size, so a read one byte past
// any of them is a sanitizer report. A set the verifier accepts is loaded and
// searched with keywords cut from its keys (valid UTF-8 and raw bytes, under
// 255 bytes) at limits 0, 1, 2, 65535 and one from the input; every result
// must be a view inside the blobs that holds the keyword. When the deep
// checks accepted the set, the results must also equal a brute-force search
// over key.bin.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "FuzzSupport.h"
#include "IndexVerifier.h"
#include "LittleEndian.h"
#include "Reader/IndexReader.h"

using namespace quorvex_fuzz;
using Lexarium::IndexVerification;
using Lexarium::IndexVerifier;
using Lexarium::Reader::IndexReader;

namespace {

size_t searched_inputs = 0;

const char* const BLOB_NAMES[4] = {"table.bin", "index.bin", "key.bin", "data.bin"};
const size_t MAX_TABLE_BYTES = size_t{1} << 20;

// table, index, key, data
struct FileSet {
    std::vector<uint8_t> blobs[4];
};

// `value` as `bytes` little-endian bytes.
void put(std::vector<uint8_t>& out, uint32_t value, int bytes = 4) {
    for (int i = 0; i < bytes; ++i) {
        out.push_back(static_cast<uint8_t>(value >> (8 * i)));
    }
}

FileSet raw_file_set(ByteSource& in) {
    uint16_t lengths[4];
    for (uint16_t& length : lengths) {
        length = in.u16();
    }
    FileSet files;
    std::string table = in.bytes(lengths[0]);
    files.blobs[0] = expand_table(table, MAX_TABLE_BYTES);
    for (int blob = 1; blob < 4; ++blob) {
        std::string bytes = in.bytes(lengths[blob]);
        files.blobs[blob].assign(bytes.begin(), bytes.end());
    }
    return files;
}

// ---- Generated file sets ----

// Few characters, so that keys share them, including the edges of the
// one-, two- and three-byte forms and two surrogates (which the verifier and
// the reader both take as characters).
const uint32_t ALPHABET[] = {'a',   'b',   'n',   'a',    0x01,   0x7F,   0x80,   0xE9,
                             0x7FF, 0x800, 0x436, 0x4E2D, 0xD800, 0xDFFF, 0xFFFD, 0xFFFE};

uint32_t pick_character(ByteSource& in) { return quorvex_fuzz::pick_character(in, ALPHABET); }

// Byte sequences a key decoder must refuse or take apart: overlong forms
// (one of them NUL), U+FFFF, a supplementary character, a surrogate (which
// the deep checks take), a stray continuation byte, characters cut short, and
// bytes that never occur in UTF-8.
const char* const AWKWARD[] = {"\xE0\x80\x80", "\xC0\x80", "\xEF\xBF\xBF", "\xF0\x9F\x98\x80", "\xED\xA0\x80",
                               "\x80",         "\xE4\xB8",   "\xFF",         "\xF8\x88\x80\x80\x80", "a\xCC"};

std::string generate_key(ByteSource& in, uint8_t shape) {
    std::string key;
    switch (shape & 3) {
        case 0:
        case 1:  // 0 to 12 characters
            for (int i = in.u8() % 13; i > 0; --i) {
                append_utf8(key, pick_character(in));
            }
            break;
        case 2:  // any bytes at all, with forms a decoder must refuse or cut
            for (int pieces = in.u8() % 12; pieces > 0; --pieces) {
                uint8_t piece = in.u8();
                key += piece < 0xE0 ? std::string(1, static_cast<char>(in.u8()))
                                    : std::string(AWKWARD[piece % (sizeof AWKWARD / sizeof AWKWARD[0])]);
            }
            break;
        case 3: {  // 240 to 254 bytes of a repeated pattern, whole characters
            std::vector<uint32_t> pattern(1 + in.u8() % 3);
            for (uint32_t& code_point : pattern) {
                code_point = pick_character(in);
            }
            size_t target = 240 + in.u8() % 15;
            for (size_t i = 0;; ++i) {
                std::string character;
                append_utf8(character, pattern[i % pattern.size()]);
                if (key.size() + character.size() > target) {
                    break;
                }
                key += character;
            }
            break;
        }
    }
    return key;
}

// A cell either owns a posting list or shares a stretch of another cell's.
struct CellPlan {
    std::vector<uint32_t> entries;
    bool shared = false;
    uint8_t source = 0;
    uint8_t from = 0;
    uint8_t count = 0;
};

typedef std::map<std::pair<uint32_t, uint32_t>, CellPlan> CellMap;  // (row, position)

struct Generated {
    FileSet files;
    bool keys_indexable = true;  // every key is UTF-8 of U+0001..U+FFFE
    bool listed_exactly = true;  // every key is listed exactly for its characters
    std::vector<size_t> row_bytes;  // table.bin offsets inside non-empty row records
};

CellMap::iterator nth_cell(CellMap& cells, size_t n) {
    auto cell = cells.begin();
    std::advance(cell, n % cells.size());
    return cell;
}

void insert_sorted(std::vector<uint32_t>& entries, uint32_t entry) {
    auto at = std::lower_bound(entries.begin(), entries.end(), entry);
    if (at == entries.end() || *at != entry) {
        entries.insert(at, entry);
    }
}

// Changes that keep every list an ascending run of key records but break
// the tie between lists and key text: drop or add an entry, move a cell,
// let a cell share a stretch of another cell's list, add an empty cell.
void loosen(CellMap& cells, const std::vector<uint32_t>& key_offsets, ByteSource& in) {
    for (int changes = in.u8() % 8; changes > 0; --changes) {
        uint8_t change = in.u8() % 5;
        std::pair<uint32_t, uint32_t> at{pick_character(in), in.u8() % 254};
        if (change == 0 && !cells.empty()) {
            std::vector<uint32_t>& entries = nth_cell(cells, in.u8())->second.entries;
            if (!entries.empty()) {
                entries.erase(entries.begin() + in.u8() % entries.size());
            }
        } else if (change == 1 && !cells.empty() && !key_offsets.empty()) {
            CellPlan& cell = nth_cell(cells, in.u8())->second;
            insert_sorted(cell.entries, key_offsets[in.u8() % key_offsets.size()]);
        } else if (change == 2 && !cells.empty()) {
            auto cell = nth_cell(cells, in.u8());
            CellPlan moved = cell->second;
            cells.erase(cell);
            CellPlan& target = cells[at];
            for (uint32_t entry : moved.entries) {
                insert_sorted(target.entries, entry);
            }
        } else if (change == 3) {
            CellPlan& cell = cells[at];
            cell = CellPlan();
            cell.shared = true;
            cell.source = in.u8();
            cell.from = in.u8();
            cell.count = in.u8();
        } else if (change == 4) {
            cells.emplace(at, CellPlan());
        }
    }
}

// Lays out index.bin and table.bin from the cells: the owned lists after the
// sentinel (in either order of cells), then one filler word for every entry
// a shared cell lists, so that the lists account for every entry.
void lay_out(const CellMap& cells, bool reversed, uint32_t filler, Generated& out) {
    std::vector<uint8_t>& index = out.files.blobs[1];
    put(index, 0);
    std::map<std::pair<uint32_t, uint32_t>, std::pair<uint32_t, uint32_t>> placed;  // (offset, count)
    std::vector<std::pair<uint32_t, uint32_t>> owned;
    auto place = [&](const std::pair<std::pair<uint32_t, uint32_t>, CellPlan>& cell) {
        if (cell.second.shared || cell.second.entries.empty()) {
            return;
        }
        std::pair<uint32_t, uint32_t> list{static_cast<uint32_t>(index.size()),
                                           static_cast<uint32_t>(cell.second.entries.size())};
        for (uint32_t entry : cell.second.entries) {
            put(index, entry);
        }
        placed[cell.first] = list;
        owned.push_back(list);
    };
    if (reversed) {
        for (auto cell = cells.rbegin(); cell != cells.rend(); ++cell) {
            place(*cell);
        }
    } else {
        for (const auto& cell : cells) {
            place(cell);
        }
    }
    uint32_t shared_entries = 0;
    for (const auto& cell : cells) {
        if (!cell.second.shared || owned.empty()) {
            continue;
        }
        std::pair<uint32_t, uint32_t> source = owned[cell.second.source % owned.size()];
        uint32_t from = cell.second.from % source.second;
        uint32_t count = 1 + cell.second.count % (source.second - from);
        placed[cell.first] = {source.first + 4 * from, count};
        shared_entries += count;
    }
    for (uint32_t i = 0; i < shared_entries; ++i) {
        put(index, filler);
    }

    std::vector<uint8_t>& table = out.files.blobs[0];
    auto cell = cells.begin();
    for (uint32_t row = 0; row < 65535; ++row) {
        if (cell == cells.end() || cell->first.first != row) {
            table.push_back(0);
            continue;
        }
        auto row_end = cell;
        uint32_t cells_count = 0;
        for (; row_end != cells.end() && row_end->first.first == row; ++row_end) {
            cells_count = row_end->first.second + 1;
        }
        size_t record = table.size();
        table.push_back(static_cast<uint8_t>(cells_count));
        for (uint32_t position = 0; position < cells_count; ++position) {
            auto list = placed.find({row, position});
            std::pair<uint32_t, uint32_t> written = list == placed.end() ? std::make_pair(0u, 0u) : list->second;
            put(table, written.first);
            put(table, written.second);
        }
        for (size_t at = record; at < table.size(); ++at) {
            out.row_bytes.push_back(at);
        }
        cell = row_end;
    }
}

// The row a character of a key that is not indexable UTF-8 is listed in:
// a supplementary character in the row of its low 16 bits (where a keyword
// that begins with it is looked for), U+FFFF and the like in U+FFFE.
uint32_t row_of(uint32_t code_point) {
    uint32_t row = code_point & 0xFFFF;
    return row == 0 || row == 0xFFFF ? 0xFFFE : row;
}

Generated generate(ByteSource& in, bool loose) {
    Generated out;
    std::vector<uint8_t>& key_blob = out.files.blobs[2];
    std::vector<uint8_t>& data_blob = out.files.blobs[3];
    CellMap cells;
    std::vector<uint32_t> key_offsets;
    for (int items = in.u8() % 24; items > 0; --items) {
        uint8_t shape = in.u8();
        std::string value = in.bytes(in.u8() % 40);
        std::string key = generate_key(in, shape);

        uint32_t key_offset = static_cast<uint32_t>(key_blob.size());
        put(key_blob, static_cast<uint32_t>(data_blob.size()));
        key_blob.push_back(static_cast<uint8_t>(key.size()));
        key_blob.insert(key_blob.end(), key.begin(), key.end());
        put(data_blob, static_cast<uint32_t>(value.size()), 2);
        data_blob.insert(data_blob.end(), value.begin(), value.end());
        key_offsets.push_back(key_offset);

        std::vector<uint32_t> characters;
        if (!Lexarium::Utf8::decode_indexable(reinterpret_cast<const uint8_t*>(key.data()), key.size(), characters)) {
            out.keys_indexable = false;
            characters = decode_leniently(key);
        }
        for (size_t position = 0; position < characters.size(); ++position) {
            cells[{row_of(characters[position]), static_cast<uint32_t>(position)}].entries.push_back(key_offset);
        }
        // A stored key of more than 250 bytes may be the cut form of a
        // longer one, listed also at positions past its stored text.
        if (key.size() > 250 && characters.size() < 254 && (shape & 4) != 0) {
            for (int extra = 1 + in.u8() % 2; extra > 0; --extra) {
                uint32_t position = static_cast<uint32_t>(characters.size() + in.u8() % (254 - characters.size()));
                std::vector<uint32_t>& entries = cells[{pick_character(in), position}].entries;
                if (entries.empty() || entries.back() != key_offset) {
                    entries.push_back(key_offset);
                }
            }
        }
    }
    if (loose) {
        CellMap before = cells;
        loosen(cells, key_offsets, in);
        out.listed_exactly = cells.size() == before.size() &&
                             std::equal(cells.begin(), cells.end(), before.begin(), [](const auto& a, const auto& b) {
                                 return a.first == b.first && !a.second.shared && a.second.entries == b.second.entries;
                             });
    }
    uint8_t layout = in.u8();
    lay_out(cells, (layout & 1) != 0, (layout & 2) != 0 ? 0xFFFFFFFFu : in.u32(), out);
    return out;
}

// A few edits to a sound set: flip a byte, overwrite a word, cut a blob
// short or insert bytes. Table edits may aim at the non-empty rows, where a
// random offset would rarely land.
void damage(Generated& generated, ByteSource& in) {
    for (int edits = 1 + in.u8() % 4; edits > 0; --edits) {
        uint8_t edit = in.u8();
        uint32_t where = in.u32();
        uint32_t what = in.u32();
        std::vector<uint8_t>& blob = generated.files.blobs[edit & 3];
        size_t at = blob.empty() ? 0 : where % blob.size();
        if ((edit & 3) == 0 && (edit & 0x10) != 0 && !generated.row_bytes.empty()) {
            // Positions in the table as generated: an earlier edit may have cut it.
            at = std::min(generated.row_bytes[where % generated.row_bytes.size()], blob.size());
        }
        switch ((edit >> 2) & 3) {
            case 0:
                if (at < blob.size()) {
                    blob[at] ^= (what & 0xFF) == 0 ? 1 : static_cast<uint8_t>(what);
                }
                break;
            case 1:
                if (blob.size() >= 4) {
                    at = at > blob.size() - 4 ? blob.size() - 4 : at;
                    Lexarium::LittleEndian::store_u32(blob.data() + at, what);
                }
                break;
            case 2:
                blob.resize(where % (blob.size() + 1));
                break;
            case 3:
                blob.insert(blob.begin() + static_cast<std::ptrdiff_t>(at), 1 + what % 8,
                            static_cast<uint8_t>(what >> 8));
                break;
        }
    }
}

// ---- Verification ----

// Runs the verifier and holds it to its own report: problems kept up to the
// limit and all counted, each naming one of the four blobs and an offset
// within it.
IndexVerification verify(const Rc<ByteArray> (&blobs)[4], bool deep, size_t max_problems) {
    IndexVerification result = IndexVerifier::verify(*blobs[0], *blobs[1], *blobs[2], *blobs[3], deep, max_problems);
    size_t kept = result.problem_count < max_problems ? static_cast<size_t>(result.problem_count) : max_problems;
    if (result.problems.size() != kept) {
        fail("the verifier kept " + std::to_string(result.problems.size()) + " of " +
             std::to_string(result.problem_count) + " problems with a limit of " + std::to_string(max_problems));
    }
    for (const Lexarium::IndexProblem& problem : result.problems) {
        int blob = 0;
        while (blob < 4 && problem.blob != BLOB_NAMES[blob]) {
            ++blob;
        }
        if (blob == 4 || problem.offset > blobs[blob]->length) {
            fail("the verifier reported \"" + problem.message + "\" at " + problem.blob + " offset " +
                 std::to_string(problem.offset));
        }
    }
    return result;
}

std::string describe(const IndexVerification& result) {
    const Lexarium::IndexProblem& first = result.problems.front();
    return first.blob + " at " + std::to_string(first.offset) + ": " + first.message;
}

// ---- Searching ----

// What the brute-force search needs of a set the deep checks accepted: the
// keys in key.bin order (the order of every posting list), each listed for
// exactly its stored characters.
std::vector<ReferenceKey> reference_keys(const KeyRecords& records, const ByteArray& data) {
    std::vector<ReferenceKey> keys;
    for (const auto& [data_pointer, text] : records) {
        ReferenceKey key;
        key.stored = text;
        if (!Lexarium::Utf8::decode_indexable(reinterpret_cast<const uint8_t*>(text.data()), text.size(),
                                              key.characters)) {
            fail("the deep checks accepted the key " + hex(text) + ", which is not indexable UTF-8");
        }
        uint32_t length = Lexarium::LittleEndian::load_u16(data.data + data_pointer);
        key.value.assign(reinterpret_cast<const char*>(data.data + data_pointer + 2), length);
        keys.push_back(std::move(key));
    }
    return keys;
}

void search_file_set(const Rc<ByteArray> (&blobs)[4], bool deep_sound, ByteSource& query) {
    Rc<IndexReader> reader = IndexReader::from_bytes(blobs[0], blobs[1], blobs[2], blobs[3]);
    KeyRecords records = key_records(blobs[2]->data, blobs[2]->length);
    std::vector<ReferenceKey> reference;
    if (deep_sound) {
        reference = reference_keys(records, *blobs[3]);
    }
    std::vector<std::string> keywords = keywords_for(records, query, 7, true);
    const uint16_t limits[] = {0, 1, 2, 65535, query.u16()};
    for (const std::string& keyword : keywords) {
        std::vector<uint32_t> characters;
        bool well_formed = decode(keyword, &characters);
        uint32_t first = characters.empty() ? 0 : characters[0];
        for (uint16_t limit : limits) {
            Results results;
            try {
                results = reader->search(keyword, limit);
            } catch (const std::range_error&) {
                if (well_formed) {
                    fail("search refused the well-formed keyword " + hex(keyword));
                }
                break;  // refused as not UTF-8, as documented
            }
            std::vector<Hit> hits = checked_hits(results, *blobs[2], *blobs[3], keyword, limit);
            if (deep_sound && well_formed) {
                require_same_hits(hits, reference_search(reference, keyword, first, limit), keyword, limit);
            }
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
    bool deep = (flags & 4) != 0;
    size_t max_problems = flags >> 3;

    FileSet files;
    bool expect_sound = false;
    bool expect_deep_sound = false;
    if (mode == 0) {
        files = raw_file_set(in);
    } else {
        Generated generated = generate(in, mode == 1 || (mode == 3 && (in.u8() & 1) != 0));
        if (mode == 3) {
            damage(generated, in);
        } else {
            expect_sound = true;
            expect_deep_sound = generated.keys_indexable && generated.listed_exactly;
        }
        files = std::move(generated.files);
    }

    const Rc<ByteArray> blobs[4] = {exact_copy(files.blobs[0]), exact_copy(files.blobs[1]), exact_copy(files.blobs[2]),
                                    exact_copy(files.blobs[3])};
    bool sound;
    bool deep_sound = false;
    if (expect_sound) {
        IndexVerification shallow = verify(blobs, false, max_problems);
        if (!shallow.is_sound()) {
            fail("the verifier refused a generated sound file set: " + describe(shallow));
        }
        IndexVerification full = verify(blobs, true, max_problems);
        if (expect_deep_sound && !full.is_sound()) {
            fail("the deep checks refused a generated file set listed exactly: " + describe(full));
        }
        if (full.is_sound() && full.items != shallow.items) {
            fail("the two verifications counted different items");
        }
        sound = true;
        deep_sound = full.is_sound();
    } else {
        IndexVerification result = verify(blobs, deep, max_problems);
        sound = result.is_sound();
        deep_sound = deep && sound;
    }
    if (sound) {
        search_file_set(blobs, deep_sound, in);
    }
    return 0;
}
