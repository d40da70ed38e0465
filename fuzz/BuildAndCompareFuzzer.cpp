// Fuzz target: whatever valid items IndexWriter is given, the deep checks of
// IndexVerifier accept what it builds, the blobs have the sizes the format
// gives, and IndexReader::search returns exactly what a brute-force walk over
// the items returns, for keywords cut from the keys at limits 0, 1, 2, 3 and
// 65535.
//
// The input is read as a stream (past its end, zeros):
//   byte      item count, 1 + byte % 16
//   per item  a shape byte s:
//               s >= 0xC0 (not for the first item): the key of an earlier
//                 item again, which one by the next byte: the last value wins
//               s & 0x80: 1 + (s & 3) characters repeated to 1 + byte % 254
//                 characters, long enough for keys cut to 254 bytes
//               otherwise: 1 + (s & 7) characters
//             then the value: a byte v; v < 0xF0 gives v % 24 bytes,
//             otherwise 100 + 2 * (next byte), up to 610; the bytes follow
//             (padded with 'v' where the input ends)
//   character a byte c < 0xF0 picks from a small alphabet; otherwise a
//             uint16 gives any of U+0001..U+FFFE
//   the rest  keywords, three bytes each (key, first character, 1 + byte % 6
//             characters), at most eight; without any, one piece of each key.
// Besides these, each character of the keys and each two-character piece of
// keys up to 24 characters long is searched at two limits.
//
// Every execution builds an index, and the writer's table of 65535 rows costs
// the same however few items there are: inputs stay small.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "IndexVerifier.h"
#include "Reader/IndexReader.h"
#include "Writer/IndexWriter.h"

using namespace quorvex_fuzz;
using Lexarium::IndexVerification;
using Lexarium::IndexVerifier;
using Lexarium::Reader::IndexReader;
using Lexarium::Writer::IndexWriter;

namespace {

size_t searched_inputs = 0;

// Few characters, so that substrings repeat across keys: one-, two- and
// three-byte forms with their edges, and 'a', 'b' and 'n' more often.
const uint32_t ALPHABET[] = {'a',  'b',  'n',   'a',   'b',   0x01,   0x7F,   0x80,
                             0xE9, 0xFC, 0x7FF, 0x800, 0x436, 0x4E2D, 0x6587, 0xFFFE};

uint32_t pick_character(ByteSource& in) { return quorvex_fuzz::pick_character(in, ALPHABET); }

struct Item {
    std::vector<uint32_t> characters;
    std::string key;
    std::string value;
};

std::vector<Item> read_items(ByteSource& in) {
    std::vector<Item> items;
    for (int count = 1 + in.u8() % 16; count > 0; --count) {
        uint8_t shape = in.u8();
        Item item;
        if (shape >= 0xC0 && !items.empty()) {
            item.characters = items[in.u8() % items.size()].characters;
        } else if ((shape & 0x80) != 0) {
            std::vector<uint32_t> pattern(1 + (shape & 3));
            for (uint32_t& code_point : pattern) {
                code_point = pick_character(in);
            }
            for (size_t i = 0, length = 1 + in.u8() % 254; i < length; ++i) {
                item.characters.push_back(pattern[i % pattern.size()]);
            }
        } else {
            for (int length = 1 + (shape & 7); length > 0; --length) {
                item.characters.push_back(pick_character(in));
            }
        }
        for (uint32_t code_point : item.characters) {
            append_utf8(item.key, code_point);
        }
        uint8_t size = in.u8();
        size_t length = size < 0xF0 ? size % 24 : 100 + 2 * size_t{in.u8()};
        item.value = in.bytes(length);
        item.value.resize(length, 'v');
        items.push_back(std::move(item));
    }
    return items;
}

}  // namespace

// How many inputs reached a search; the replay program reports it.
extern "C" size_t quorvex_fuzz_searched_inputs() { return searched_inputs; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    ByteSource in(data, size);
    std::vector<Item> items = read_items(in);

    IndexWriter writer;
    std::map<std::string, const Item*> model;  // std::string orders as unsigned bytes, as the posting lists
    for (const Item& item : items) {
        writer.add_word(item.key, exact_copy(std::vector<uint8_t>(item.value.begin(), item.value.end())));
        model[item.key] = &item;
    }
    Rc<Lexarium::Writer::_IndexData> built = writer.to_bytes();
    Rc<ByteArray> blobs[4] = {exact_copy(concatenate(built->table_chunks)),
                              exact_copy(concatenate(built->index_chunks)),
                              exact_copy(concatenate(built->key_chunks)),
                              exact_copy(concatenate(built->data_chunks))};

    IndexVerification verification = IndexVerifier::verify(*blobs[0], *blobs[1], *blobs[2], *blobs[3], true);
    if (!verification.is_sound() || verification.items != model.size()) {
        fail("the deep checks refused a fresh build or miscounted its items: " +
             (verification.problems.empty() ? std::to_string(verification.items) + " items"
                                            : verification.problems.front().message));
    }

    std::vector<ReferenceKey> keys;
    size_t characters = 0;
    size_t key_bytes = 0;
    size_t data_bytes = 0;
    std::map<uint32_t, size_t> cells_per_row;
    for (const auto& entry : model) {
        keys.push_back(reference_key(entry.second->characters, entry.second->value));
        characters += keys.back().characters.size();
        key_bytes += 5 + keys.back().stored.size();
        data_bytes += 2 + keys.back().value.size();
        for (size_t position = 0; position < keys.back().characters.size(); ++position) {
            size_t& cells = cells_per_row[keys.back().characters[position]];
            cells = cells > position + 1 ? cells : position + 1;
        }
    }
    size_t cells = 0;
    for (const auto& row : cells_per_row) {
        cells += row.second;
    }
    const size_t sizes[4] = {65535 + 8 * cells, 4 + 4 * characters, key_bytes, data_bytes};
    for (int blob = 0; blob < 4; ++blob) {
        if (blobs[blob]->length != sizes[blob]) {
            fail("blob " + std::to_string(blob) + " holds " + std::to_string(blobs[blob]->length) +
                 " bytes; the items call for " + std::to_string(sizes[blob]));
        }
    }

    std::vector<std::vector<uint32_t>> pieces;
    if (in.empty()) {
        size_t round = 0;
        for (const ReferenceKey& key : keys) {
            size_t from = round % key.characters.size();
            pieces.emplace_back(key.characters.begin() + static_cast<std::ptrdiff_t>(from), key.characters.end());
            pieces.back().resize(std::min<size_t>(pieces.back().size(), 1 + round % 6));
            ++round;
        }
    }
    for (int count = 0; count < 8 && !in.empty(); ++count) {
        const std::vector<uint32_t>& source = keys[in.u8() % keys.size()].characters;
        size_t from = in.u8() % source.size();
        size_t length = 1 + in.u8() % 6;
        pieces.emplace_back(source.begin() + static_cast<std::ptrdiff_t>(from),
                            source.begin() + static_cast<std::ptrdiff_t>(std::min(source.size(), from + length)));
    }

    Rc<IndexReader> reader = IndexReader::from_bytes(blobs[0], blobs[1], blobs[2], blobs[3]);
    auto compare = [&](const std::vector<uint32_t>& piece, uint16_t limit) {
        std::string keyword = encode_within(piece, 0, piece.size());
        Results results = reader->search(keyword, limit);
        std::vector<Hit> hits = checked_hits(results, *blobs[2], *blobs[3], keyword, limit);
        require_same_hits(hits, reference_search(keys, keyword, piece[0], limit), keyword, limit);
    };
    for (const std::vector<uint32_t>& piece : pieces) {
        for (uint16_t limit : {0, 1, 2, 3, 65535}) {
            compare(piece, limit);
        }
    }
    // The build is what costs; a search costs next to nothing. So every
    // build is also searched for each of its characters alone and for each
    // two-character piece of its shorter keys, at the extreme limits.
    std::set<std::vector<uint32_t>> more;
    for (const ReferenceKey& key : keys) {
        for (size_t i = 0; i < key.characters.size(); ++i) {
            more.insert({key.characters[i]});
            if (key.characters.size() <= 24 && i + 1 < key.characters.size()) {
                more.insert({key.characters[i], key.characters[i + 1]});
            }
        }
    }
    for (const std::vector<uint32_t>& piece : more) {
        compare(piece, piece.size() == 1 ? 0 : 1);
        compare(piece, 65535);
    }
    ++searched_inputs;
    return 0;
}
