// Several threads searching one reader at once must each get exactly what a
// lone search gets. Built with ThreadSanitizer (QUORVEX_SANITIZE=thread), the
// same test shows that nothing on the search path writes shared state.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <thread>

#include "Reader/IndexReader.h"
#include "WriterTestSupport.h"

using Lexarium::Reader::IndexReader;
using Lexarium::Reader::SearchResult;
using namespace quorvex_test;

namespace {

const uint32 ALPHABET[] = {'a', 'e', 'n', 's', 0xE4, 0xDF, 0x430, 0x4E2D};

// Each search as the list of key records it returned.
std::vector<const uint8*> keys_found(IndexReader& reader, const std::string& keyword, uint16 limit) {
    Rc<std::vector<Rc<SearchResult>>> results = reader.search(keyword, limit);
    std::vector<const uint8*> keys;
    for (const Rc<SearchResult>& result : *results) {
        keys.push_back(result->key->data);
    }
    return keys;
}

}  // namespace

TEST(ConcurrentSearch, ThreadsSharingOneReaderGetWhatALoneSearchGets) {
    std::mt19937 random(11);
    Items items;
    for (int i = 0; i < 3000; ++i) {
        std::string key;
        for (int j = 0, length = 2 + static_cast<int>(random() % 10); j < length; ++j) {
            key += utf8(ALPHABET[random() % std::size(ALPHABET)]);
        }
        items.emplace_back(key, "value " + std::to_string(i));
    }
    Rc<IndexReader> reader = reader_of(build(items));

    std::vector<std::string> keywords;
    for (int i = 0; i < 200; ++i) {
        const std::string& key = items[random() % items.size()].first;
        std::vector<size_t> starts;
        for (size_t b = 0; b < key.size(); ++b) {
            if ((static_cast<uint8>(key[b]) & 0xC0) != 0x80) {
                starts.push_back(b);
            }
        }
        starts.push_back(key.size());
        // One to five whole characters from anywhere in the key.
        size_t first = random() % (starts.size() - 1);
        size_t last = std::min(starts.size() - 1, first + 1 + random() % 5);
        keywords.push_back(key.substr(starts[first], starts[last] - starts[first]));
    }
    const uint16 limits[] = {0, 3, 20, 65535};
    std::vector<std::vector<const uint8*>> expected;
    for (const std::string& keyword : keywords) {
        for (uint16 limit : limits) {
            expected.push_back(keys_found(*reader, keyword, limit));
        }
    }

    std::vector<int> mismatches(4, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int round = 0; round < 3; ++round) {
                for (size_t k = 0; k < keywords.size(); ++k) {
                    // Each thread walks the keywords from a different start.
                    size_t i = (k + static_cast<size_t>(t) * 50) % keywords.size();
                    for (size_t l = 0; l < std::size(limits); ++l) {
                        if (keys_found(*reader, keywords[i], limits[l]) != expected[i * std::size(limits) + l]) {
                            ++mismatches[t];
                        }
                    }
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(mismatches, std::vector<int>(4, 0));
}
