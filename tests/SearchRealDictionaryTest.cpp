// The search compared, element for element, with the literal walk through
// the one-position search, on an index of a real dictionary: Debian's
// FreeDict German-English, built by the quorvex tool.
#include <gtest/gtest.h>

#include <filesystem>
#include <iostream>
#include <random>

#include "Reader/IndexReader.h"
#include "TestSupport.h"

using Lexarium::Reader::IndexReader;
using Lexarium::Reader::SearchResult;

namespace {

const std::string TOOL = QUORVEX_TOOL;
const std::string DICTIONARY = "/usr/share/dictd/freedict-deu-eng.index";

// The stored keys of key.bin, each split into its UTF-8 characters.
std::vector<std::vector<std::string>> stored_keys(const ByteArray& key_bytes) {
    std::vector<std::vector<std::string>> keys;
    for (uint32 offset = 0; offset + 5 <= key_bytes.length;) {
        std::vector<std::string>& characters = keys.emplace_back();
        for (uint32 end = offset + 5 + key_bytes.data[offset + 4], i = offset + 5; i < end; ++i) {
            if ((key_bytes.data[i] & 0xC0) != 0x80 || characters.empty()) characters.emplace_back();
            characters.back() += static_cast<char>(key_bytes.data[i]);
        }
        offset += 5 + key_bytes.data[offset + 4];
    }
    return keys;
}

std::vector<const uint8*> key_pointers(const std::vector<Rc<SearchResult>>& results) {
    std::vector<const uint8*> keys;
    for (const auto& result : results) keys.push_back(result->key->data);
    return keys;
}

// Positions 0 to 254 one at a time, each asking for what the limit leaves.
std::vector<const uint8*> literal_walk(IndexReader& reader, const std::string& keyword, uint16 limit) {
    std::vector<Rc<SearchResult>> results;
    uint32 total = 0, visited = 0;
    for (uint32 position = 0; position <= 254; ++position) {
        total += reader.search(keyword, static_cast<uint16>(limit - total), &results, visited,
                               static_cast<uint8>(position));
        if (total >= limit) break;
    }
    return key_pointers(results);
}

}  // namespace

TEST(SearchRealDictionary, AgreesWithTheLiteralWalkOnFreeDictGermanEnglish) {
    if (!std::filesystem::exists(DICTIONARY)) {
        GTEST_SKIP() << DICTIONARY << " is missing; Debian's dict-freedict-deu-eng package provides it";
    }
    quorvex_test::TemporaryDirectory directory;
    ASSERT_FALSE(directory.path.empty());
    const std::string index = directory.path + "/index";
    ASSERT_EQ(quorvex_test::exit_status(quorvex_test::start_process(
                  {TOOL, "build", "-q", "--skip-invalid", "--duplicates", "merge", DICTIONARY, index})),
              0);
    Rc<IndexReader> reader = IndexReader::from_directory(index);
    std::vector<std::vector<std::string>> keys = stored_keys(*reader->key_bytes);
    ASSERT_GT(keys.size(), 10000u);

    // Common letters, long lists, multi-byte text and keywords found nowhere.
    std::vector<std::string> keywords = {"e", "en", "sch", "ung", "ß", "über", "eseite", "ttttt", " "};
    std::mt19937 random(1905);
    while (keywords.size() < 160) {
        const std::vector<std::string>& key = keys[random() % keys.size()];
        std::string keyword;
        for (size_t i = random() % key.size(), end = i + 1 + random() % 6; i < end && i < key.size(); ++i) {
            keyword += key[i];
        }
        keywords.push_back(keyword);
    }

    size_t compared = 0, with_hits = 0;
    for (const std::string& keyword : keywords) {
        for (uint16 limit : {0, 1, 2, 3, 20, 65535}) {
            std::vector<const uint8*> expected = literal_walk(*reader, keyword, limit);
            ASSERT_EQ(key_pointers(*reader->search(keyword, limit)), expected)
                << "keyword " << testing::PrintToString(keyword) << ", limit " << limit;
            ++compared;
            with_hits += expected.empty() ? 0 : 1;
        }
    }
    // The comparison means something only if most searches find keys. (With
    // limit 0 only keys that begin with the keyword count, so not all do.)
    EXPECT_GT(with_hits, compared * 3 / 4);
    std::cout << compared << " searches compared, " << with_hits << " with results\n";
}
