// The search compared, element for element, with a brute-force reference
// written from the rules alone (the fuzz targets' reference_search: every
// key at every character position, with no index at all) and with the
// literal position-by-position walk.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>

#include "FuzzSupport.h"
#include "Reader/IndexReader.h"
#include "WriterTestSupport.h"

using Lexarium::Reader::IndexReader;
using Lexarium::Writer::IndexWriter;
using namespace quorvex_test;

namespace quorvex_fuzz {
void PrintTo(const Hit& hit, std::ostream* out) { *out << testing::PrintToString(hit.key); }
}  // namespace quorvex_fuzz

namespace {

// One-, two- and three-byte characters; few enough that substrings repeat.
const uint32 ALPHABET[] = {'a', 'b', 'n', 0xE9, 0xFC, 0x436, 0x4E2D, 0x6587};

struct Key {
    std::string full;                 // as added
    std::vector<uint32> code_points;  // of the full key
    std::string stored;               // as key.bin holds it
    std::vector<size_t> starts;       // byte offset of each stored character
    std::string value;
};

Key make_key(const std::vector<uint32>& code_points, const std::string& value) {
    Key key;
    key.code_points = code_points;
    key.value = value;
    bool full = false;  // the stored form ends at the first character that does not fit
    for (uint32 code_point : code_points) {
        std::string character = utf8(code_point);
        full = full || key.stored.size() + character.size() > 254;
        if (!full) {
            key.starts.push_back(key.stored.size());
            key.stored += character;
        }
        key.full += character;
    }
    return key;
}

using quorvex_fuzz::Hit;

// The fuzz targets' brute-force search, over the keys in key order.
std::vector<Hit> reference_search(const std::map<std::string, Key>& keys, const std::string& keyword,
                                  uint32 first_code_point, uint16 limit) {
    std::vector<quorvex_fuzz::ReferenceKey> reference;
    for (const auto& entry : keys) {
        const Key& key = entry.second;
        reference.push_back({key.stored, key.code_points, key.starts, key.value});
    }
    return quorvex_fuzz::reference_search(reference, keyword, first_code_point, limit);
}

std::vector<Hit> library_search(IndexReader& reader, const std::string& keyword, uint16 limit) {
    std::vector<Hit> hits;
    Rc<std::vector<Rc<Lexarium::Reader::SearchResult>>> results = reader.search(keyword, limit);
    for (const auto& result : *results) {
        hits.push_back(Hit{std::string(reinterpret_cast<const char*>(result->key->data), result->key->length),
                           std::string(reinterpret_cast<const char*>(result->value->data), result->value->length)});
    }
    return hits;
}

// The search done literally, one position at a time through the public
// one-position search, as the two-argument search is defined to behave.
std::vector<const uint8*> literal_walk(IndexReader& reader, const std::string& keyword, uint16 limit) {
    std::vector<Rc<Lexarium::Reader::SearchResult>> results;
    uint32 total = 0;
    uint32 visited = 0;
    for (uint32 position = 0; position <= 254; ++position) {
        total += reader.search(keyword, static_cast<uint16>(limit - total), &results, visited,
                               static_cast<uint8>(position));
        if (total >= limit) {
            break;
        }
    }
    std::vector<const uint8*> keys;
    for (const auto& result : results) {
        keys.push_back(result->key->data);
    }
    return keys;
}

std::vector<const uint8*> fast_search(IndexReader& reader, const std::string& keyword, uint16 limit) {
    std::vector<const uint8*> keys;
    Rc<std::vector<Rc<Lexarium::Reader::SearchResult>>> results = reader.search(keyword, limit);
    for (const auto& result : *results) {
        keys.push_back(result->key->data);
    }
    return keys;
}

Rc<IndexReader> reader_over(const std::map<std::string, Key>& keys) {
    IndexWriter writer;
    for (const auto& entry : keys) {
        writer.add_word(entry.first, bytes_of(entry.second.value));
    }
    Blobs blobs = blobs_of(writer.to_bytes());
    return IndexReader::from_bytes(make_bytes(blobs.table), make_bytes(blobs.index), make_bytes(blobs.key),
                                   make_bytes(blobs.data));
}

// Random keys over the first `letters` characters of ALPHABET.
std::map<std::string, Key> random_keys(std::mt19937& random, size_t count, size_t letters, int round) {
    std::map<std::string, Key> keys;
    for (size_t i = 0; i < count; ++i) {
        size_t length = random() % 10 == 0 ? 60 + random() % 190 : 1 + random() % 8;
        std::vector<uint32> code_points;
        for (size_t j = 0; j < length; ++j) {
            code_points.push_back(ALPHABET[random() % letters]);
        }
        Key key = make_key(code_points, std::to_string(round) + "/" + std::to_string(i));
        keys[key.full] = key;
    }
    return keys;
}

// Runs `queries` searches (mostly pieces of stored keys of `shortest` to 6
// characters from any position, sometimes random text) at each limit and
// compares the search with the brute-force reference and with the literal
// walk. Counts the comparisons and those that found something.
void compare_searches(IndexReader& reader, const std::map<std::string, Key>& keys, std::mt19937& random,
                      int queries, size_t shortest, int round, size_t& compared, size_t& with_hits) {
    for (int query = 0; query < queries; ++query) {
        std::vector<uint32> code_points;
        if (random() % 4 != 0) {
            auto entry = keys.begin();
            std::advance(entry, random() % keys.size());
            const std::vector<uint32>& source = entry->second.code_points;
            size_t from = random() % source.size();
            size_t length = shortest + random() % (7 - shortest);
            for (size_t j = from; j < source.size() && j < from + length; ++j) {
                code_points.push_back(source[j]);
            }
        } else {
            for (size_t j = 0, length = 1 + random() % 4; j < length; ++j) {
                code_points.push_back(ALPHABET[random() % std::size(ALPHABET)]);
            }
        }
        std::string keyword;
        for (uint32 code_point : code_points) {
            keyword += utf8(code_point);
        }
        for (uint16 limit : {0, 1, 2, 3, 20, 65535}) {
            std::vector<Hit> expected = reference_search(keys, keyword, code_points[0], limit);
            ASSERT_EQ(library_search(reader, keyword, limit), expected)
                << "round " << round << ", keyword " << testing::PrintToString(keyword) << ", limit " << limit;
            // The same records, element for element, as the literal walk.
            ASSERT_EQ(fast_search(reader, keyword, limit), literal_walk(reader, keyword, limit))
                << "round " << round << ", keyword " << testing::PrintToString(keyword) << ", limit " << limit;
            ++compared;
            with_hits += expected.empty() ? 0 : 1;
        }
    }
}

}  // namespace

// Small indexes over eight characters of one to three bytes.
TEST(SearchDifferential, AgreesWithABruteForceWalkOnRandomIndexes) {
    std::mt19937 random(4242);
    size_t compared = 0;
    size_t with_hits = 0;
    for (int round = 0; round < 200; ++round) {
        std::map<std::string, Key> keys = random_keys(random, 1 + random() % 30, std::size(ALPHABET), round);
        compare_searches(*reader_over(keys), keys, random, 40, 1, round, compared, with_hits);
    }
    // The comparison means something only if most searches find keys.
    EXPECT_GT(with_hits, compared / 2);
}

// Thousands of keys over three letters: lists of a thousand entries and
// more, long enough that the search leaves its entry-by-entry steps for
// stretches, and keywords of three to six characters, so that lists beyond
// the two shortest are consulted or passed over.
TEST(SearchDifferential, AgreesOnIndexesWithLongLists) {
    std::mt19937 random(77);
    size_t compared = 0;
    size_t with_hits = 0;
    for (int round = 0; round < 3; ++round) {
        std::map<std::string, Key> keys = random_keys(random, 3000, 3, round);
        compare_searches(*reader_over(keys), keys, random, 30, 3, round, compared, with_hits);
    }
    EXPECT_GT(with_hits, compared / 2);
}
