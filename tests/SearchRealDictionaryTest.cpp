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
using namespace quorvex_testing;

namespace {

const std::string TOOL = QUORVEX_TOOL;
const std::string DICTIONARY = "/usr/share/dictd/freedict-deu-eng.index";

// The stored keys of key.bin, each split into its UTF-8 characters.
std::vector<std::vector<std::string>> stored_keys(const ByteArray& key_bytes) {
    std::vector<std::vector<std::string>> keys;
    for (const auto& [data_pointer, text] : key_records(key_bytes.data, key_bytes.length)) {
        std::vector<size_t> starts = character_starts(text);
        std::vector<std::string>& characters = keys.emplace_back();
        for (size_t i = 0; i + 1 < starts.size(); ++i) characters.push_back(text.substr(starts[i], starts[i + 1] - starts[i]));
    }
    return keys;
}

}  // namespace

TEST(SearchRealDictionary, AgreesWithTheLiteralWalkOnFreeDictGermanEnglish) {
    if (!std::filesystem::exists(DICTIONARY)) {
        GTEST_SKIP() << DICTIONARY << " is missing; Debian's dict-freedict-deu-eng package provides it";
    }
    TemporaryDirectory directory;
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
