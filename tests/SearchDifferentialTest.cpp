// The search compared, element for element, with a brute-force reference
// written from the rules alone (reference_search, which the fuzz targets
// use too: every key at every character position, with no index at all)
// and with the literal position-by-position walk.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>

#include "Reader/IndexReader.h"
#include "WriterTestSupport.h"

using Lexarium::Reader::IndexReader;
using Lexarium::Writer::IndexWriter;
using namespace quorvex_test;

namespace {

// One-, two- and three-byte characters; few enough that substrings repeat.
const uint32 ALPHABET[] = {'a', 'b', 'n', 0xE9, 0xFC, 0x436, 0x4E2D, 0x6587};

// Keys by their full text, each as key.bin holds it.
using Keys = std::map<std::string, ReferenceKey>;

// Random keys over the first `letters` characters of ALPHABET.
Keys random_keys(std::mt19937& random, size_t count, size_t letters, int round) {
    Keys keys;
    for (size_t i = 0; i < count; ++i) {
        size_t length = random() % 10 == 0 ? 60 + random() % 190 : 1 + random() % 8;
        std::vector<uint32> code_points;
        std::string full;
        for (size_t j = 0; j < length; ++j) {
            code_points.push_back(ALPHABET[random() % letters]);
            full += utf8(code_points.back());
        }
        // Now and then a value long enough to move the later value records.
        std::string value = std::to_string(round) + "/" + std::to_string(i);
        value += std::string(i % 7 == 3 ? 150 + i : 0, 'v');
        keys[full] = reference_key(code_points, value);
    }
    return keys;
}

// Builds an index of `keys`, runs `queries` searches (mostly pieces of
// stored keys of `shortest` to 6 characters from any position, sometimes
// random text) at each limit and compares the search with the brute-force
// reference and with the literal walk. Returns how many of the comparisons
// found something, in percent.
size_t compare_searches(const Keys& keys, std::mt19937& random, int queries, size_t shortest) {
    IndexWriter writer;
    std::vector<ReferenceKey> reference;
    for (const auto& entry : keys) {
        writer.add_word(entry.first, bytes_of(entry.second.value));
        reference.push_back(entry.second);
    }
    Blobs blobs = blobs_of(writer.to_bytes());
    Rc<IndexReader> reader = reader_of(blobs);
    size_t with_hits = 0;
    for (int query = 0; query < queries; ++query) {
        std::vector<uint32> code_points;
        if (random() % 4 != 0) {
            auto entry = keys.begin();
            std::advance(entry, random() % keys.size());
            const std::vector<uint32>& source = entry->second.characters;
            size_t from = random() % source.size();
            size_t length = shortest + random() % (7 - shortest);
            code_points.assign(source.begin() + from, source.begin() + std::min(source.size(), from + length));
        } else {
            for (size_t j = 0, length = 1 + random() % 4; j < length; ++j) {
                code_points.push_back(ALPHABET[random() % std::size(ALPHABET)]);
            }
        }
        std::string keyword = encode_within(code_points, 0, code_points.size());
        for (uint16 limit : {0, 1, 2, 3, 20, 65535}) {
            SCOPED_TRACE("keyword " + testing::PrintToString(keyword) + ", limit " + std::to_string(limit));
            std::vector<Hit> expected = reference_search(reference, keyword, code_points[0], limit);
            Results results = reader->search(keyword, limit);
            EXPECT_EQ(result_hits(*results), expected);
            // The same records, element for element.
            EXPECT_EQ(key_pointers(*results), literal_walk(*reader, keyword, limit));
            if (testing::Test::HasFailure()) {
                return 0;
            }
            with_hits += expected.empty() ? 0 : 100;
        }
    }
    return with_hits / (6 * queries);
}

}  // namespace

// Small indexes over eight characters of one to three bytes. The comparison
// means something only if most searches find keys.
TEST(SearchDifferential, AgreesWithABruteForceWalkOnRandomIndexes) {
    std::mt19937 random(4242);
    size_t with_hits = 0;
    for (int round = 0; round < 200 && !HasFailure(); ++round) {
        SCOPED_TRACE(round);
        Keys keys = random_keys(random, 1 + random() % 30, std::size(ALPHABET), round);
        with_hits += compare_searches(keys, random, 40, 1);
    }
    EXPECT_GT(with_hits / 200, 50u);
}

// Thousands of keys over three letters: lists of a thousand entries and
// more, long enough that the search leaves its entry-by-entry steps for
// stretches, and keywords of three to six characters, so that lists beyond
// the two shortest are consulted or passed over.
TEST(SearchDifferential, AgreesOnIndexesWithLongLists) {
    std::mt19937 random(77);
    for (int round = 0; round < 3; ++round) {
        EXPECT_GT(compare_searches(random_keys(random, 3000, 3, round), random, 30, 3), 50u);
    }
}
