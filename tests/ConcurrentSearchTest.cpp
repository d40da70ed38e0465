// Several threads searching one reader at once (search, and find on a
// folded index) must each get exactly what a lone search gets. Built with ThreadSanitizer (QUORVEX_SANITIZE=thread), the
// same test shows that nothing on the search path writes shared state.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <thread>

#include "Reader/IndexReader.h"
#include "Writer/IndexBuilder.h"
#include "WriterTestSupport.h"

using Lexarium::Reader::IndexReader;
using namespace quorvex_test;

namespace {

const uint32 ALPHABET[] = {'a', 'e', 'n', 's', 'A', 0xE4, 0xC4, 0xDF, 0x430, 0x4E2D};

// The same items as a folded index, searched with find.
Rc<IndexReader> folded_reader(const Items& items) {
    Lexarium::Writer::IndexBuilder builder;
    for (const auto& item : items) {
        builder.add(item.first, item.second);
    }
    Lexarium::Writer::IndexWriter writer;
    builder.fill(writer);
    return reader_of(blobs_of(writer.to_bytes()));
}

std::vector<const char*> found_keys(const IndexReader& reader, const std::string& keyword, uint16 limit) {
    Lexarium::Reader::SearchOptions options;
    options.limit = limit;
    std::vector<Lexarium::Reader::Hit> hits;
    reader.find(keyword, options, hits, nullptr);
    std::vector<const char*> keys;
    for (const auto& hit : hits) keys.push_back(hit.key.data());
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
    Rc<IndexReader> folded = folded_reader(items);

    std::vector<std::string> keywords;
    for (int i = 0; i < 200; ++i) {
        const std::string& key = items[random() % items.size()].first;
        std::vector<size_t> starts = character_starts(key);
        // One to five whole characters from anywhere in the key.
        size_t first = random() % (starts.size() - 1);
        size_t last = std::min(starts.size() - 1, first + 1 + random() % 5);
        keywords.push_back(key.substr(starts[first], starts[last] - starts[first]));
    }
    const uint16 limits[] = {0, 3, 20, 65535};
    std::vector<std::vector<const uint8*>> expected;
    std::vector<std::vector<const char*>> expected_found;
    for (const std::string& keyword : keywords) {
        for (uint16 limit : limits) {
            expected.push_back(key_pointers(*reader->search(keyword, limit)));
            expected_found.push_back(found_keys(*folded, keyword, limit));
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
                        size_t at = i * std::size(limits) + l;
                        if (key_pointers(*reader->search(keywords[i], limits[l])) != expected[at] ||
                            found_keys(*folded, keywords[i], limits[l]) != expected_found[at]) {
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
