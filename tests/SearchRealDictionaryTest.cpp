// Indexes of real dictionaries built by the quorvex tool: the search
// compared, element for element, with the literal walk through the
// one-position search on Debian's FreeDict German-English, and folded
// keywords typed as people type them, on it and on GCIDE.
#include <gtest/gtest.h>

#include <algorithm>
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
const std::string GCIDE = "/usr/share/dictd/gcide.index";

// The keys `quorvex search` prints for `keyword`, in order.
std::vector<std::string> tool_keys(const std::string& index, const std::string& keyword, int limit) {
    quorvex_test::ToolRun r =
        quorvex_test::run_program({TOOL, "search", "--limit", std::to_string(limit), index, "--", keyword});
    EXPECT_EQ(r.status, 0) << r.err;
    std::vector<std::string> keys;
    for (size_t at = 0; at < r.out.size();) {
        size_t end = r.out.find('\n', at);
        end = end == std::string::npos ? r.out.size() : end;
        keys.push_back(r.out.substr(at, r.out.find('\t', at) - at));
        at = end + 1;
    }
    return keys;
}

// Builds `dictionary` with the tool's defaults into `index`.
bool built(const std::string& dictionary, const std::string& index) {
    return quorvex_test::exit_status(quorvex_test::start_process(
               {TOOL, "build", "-q", "--skip-invalid", "--duplicates", "merge", dictionary, index})) == 0;
}

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
    ASSERT_TRUE(built(DICTIONARY, index));
    Rc<IndexReader> reader = IndexReader::from_directory(index);
    std::vector<std::vector<std::string>> keys = stored_keys(*reader->key_bytes);
    ASSERT_GT(keys.size(), 10000u);
    // The tool's index has suffix.bin, which a mapped reader uses.
    std::string error;
    Rc<IndexReader> mapped = IndexReader::from_directory_mapped(index, &error);
    ASSERT_TRUE(!mapped.is_null() && mapped->has_suffix_array()) << error;

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
            Rc<std::vector<Rc<Lexarium::Reader::SearchResult>>> results = reader->search(keyword, limit);
            ASSERT_EQ(key_pointers(*results), expected)
                << "keyword " << testing::PrintToString(keyword) << ", limit " << limit;
            ASSERT_EQ(result_hits(*mapped->search(keyword, limit)), result_hits(*results));
            ++compared;
            with_hits += expected.empty() ? 0 : 1;
        }
    }
    // The comparison means something only if most searches find keys. (With
    // limit 0 only keys that begin with the keyword count, so not all do.)
    EXPECT_GT(with_hits, compared * 3 / 4);
    std::cout << compared << " searches compared, " << with_hits << " with results\n";
}

// Capitals, missing umlauts, ss for ß and full-width letters find the
// dictionary's words first; in English, "apple" finds "Apple", and a
// keyword that starts with a dash is a keyword after "--".
TEST(SearchRealDictionary, FoldedKeywordsFindTheWordsAsTyped) {
    TemporaryDirectory directory;
    struct Case {
        const std::string& dictionary;
        const char* keyword;
        const char* expected;  // among the first `within` keys
        int within;
    };
    const Case cases[] = {
        {DICTIONARY, "Haus", "haus", 1},
        {DICTIONARY, "HAUS", "haus", 1},
        {DICTIONARY, "\xEF\xBC\xA8\xEF\xBC\xA1\xEF\xBC\xB5\xEF\xBC\xB3", "haus", 1},
        {DICTIONARY, "uber", "\xC3\xBC" "ber", 1},
        {DICTIONARY, "strasse", "stra\xC3\x9F" "e", 1},
        {DICTIONARY, "STRASSE", "stra\xC3\x9F" "e", 1},
        {DICTIONARY, "\xC3\x9C" "bersetzung", "\xC3\xBC" "bersetzung", 1},
        {GCIDE, "apple", "Apple", 5},
        {GCIDE, "-ness", "-ness", 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.keyword);
        if (!std::filesystem::exists(c.dictionary)) {
            std::cout << c.dictionary << " is missing: \"" << c.keyword << "\" not tried\n";
            continue;
        }
        std::string index = directory.path + "/" + std::filesystem::path(c.dictionary).stem().string();
        if (!std::filesystem::exists(index)) {
            ASSERT_TRUE(built(c.dictionary, index));
        }
        std::vector<std::string> keys = tool_keys(index, c.keyword, c.within);
        EXPECT_NE(std::find(keys.begin(), keys.end(), c.expected), keys.end()) << testing::PrintToString(keys);
    }
}

// find() in each mode against the brute-force find over the index's own
// items (read back from its entries), at limits 0 to 3 and all: patterns
// from keys with characters as "?", typos from runs of keys with an edit.
TEST(SearchRealDictionary, FindAgreesWithBruteForceInEveryMode) {
    if (!std::filesystem::exists(DICTIONARY)) {
        GTEST_SKIP() << DICTIONARY << " is missing";
    }
    TemporaryDirectory directory;
    const std::string index = directory.path + "/index";
    ASSERT_TRUE(built(DICTIONARY, index));
    std::string error;
    Rc<IndexReader> reader = IndexReader::from_directory_mapped(index, &error);
    ASSERT_FALSE(reader.is_null()) << error;
    // The items, entry by entry, as they went in.
    std::vector<InputItem> items;
    std::vector<std::string> entries;
    for (const auto& [data_pointer, key] : key_records(reader->key_bytes->data, reader->key_bytes->length)) {
        Lexarium::Records::Value value;
        ASSERT_TRUE(Lexarium::Records::decode_from(*reader->data_bytes, data_pointer, value));
        if (key.empty()) continue;  // the description
        entries.push_back(key);
        for (uint64_t at = 0; at < value.length;) {
            Lexarium::Records::Pair pair;
            ASSERT_TRUE(Lexarium::Records::Pair::decode_from(value.bytes, value.length, at, pair));
            std::string original = pair.first_length == 0 ? key : std::string(reinterpret_cast<const char*>(pair.first), pair.first_length);
            items.push_back(InputItem{original, std::string(reinterpret_cast<const char*>(pair.second), pair.second_length)});
            at += pair.size();
        }
    }
    std::vector<std::vector<uint32>> sorted_characters;  // of each item's folded key
    for (const InputItem& item : items) {
        std::string folded;
        Lexarium::fold(item.key, &folded);
        sorted_characters.push_back(characters_of(folded));
        std::sort(sorted_characters.back().begin(), sorted_characters.back().end());
    }
    std::mt19937 random(24);
    size_t compared = 0;
    for (int k = 0; k < 8; ++k) {
        bool pattern = k % 2 == 0;
        // Typo keywords of 7 to 9 characters: shorter ones leave the
        // reference too many keys to try.
        std::vector<uint32> run = characters_of(entries[random() % entries.size()]);
        size_t length = std::min<size_t>(run.size(), pattern ? 4 + random() % 6 : 7 + random() % 3);
        run.erase(run.begin(), run.begin() + static_cast<std::ptrdiff_t>(random() % (run.size() - length + 1)));
        run.resize(length);
        std::string keyword;
        for (size_t i = 0; i < run.size(); ++i) {
            bool hole = random() % 3 == 0 && (pattern || i == 0);
            keyword += hole ? (pattern ? std::string("?") : std::string("q")) : Lexarium::Utf8::encode(run[i]);
        }
        if (keyword.front() == ' ' || keyword.back() == ' ') {
            continue;  // find trims it; the reference would not
        }
        uint8 typos = pattern ? 0 : static_cast<uint8>(1 + k % 4 / 2);
        Matcher matcher = pattern ? pattern_matcher([&] {
            std::vector<uint32> p = characters_of(keyword);
            for (uint32& c : p) c = c == '?' ? UINT32_MAX : c;
            return p;
        }(), false, false)
                                  : typo_matcher(keyword, characters_of(keyword).size() < 8 ? 1 : typos);
        // Only keys sharing all but `typos` of the keyword's characters can
        // match; the rest are left out of the reference, which is slow.
        std::vector<InputItem> candidates;
        std::vector<uint32> wanted = characters_of(keyword);
        std::sort(wanted.begin(), wanted.end());
        size_t holes = static_cast<size_t>(std::count(keyword.begin(), keyword.end(), '?'));
        for (size_t i = 0; i < items.size(); ++i) {
            std::vector<uint32> common;
            std::set_intersection(wanted.begin(), wanted.end(), sorted_characters[i].begin(), sorted_characters[i].end(),
                                  std::back_inserter(common));
            if (common.size() + typos + holes >= wanted.size()) candidates.push_back(items[i]);
        }
        std::vector<FoundItem> all = reference_find(candidates, true, matcher, pattern ? "" : keyword, 65535);
        compared += all.size();
        for (uint16 limit : {0, 1, 2, 3, 65535}) {
            SCOPED_TRACE(keyword + " limit " + std::to_string(limit));
            Lexarium::Reader::SearchOptions options;
            options.limit = limit;
            options.mode = pattern ? Lexarium::Reader::MatchMode::Pattern : Lexarium::Reader::MatchMode::Plain;
            options.typos = typos;
            std::vector<Lexarium::Reader::Hit> hits;
            ASSERT_TRUE(reader->find(keyword, options, hits, &error)) << error;
            std::vector<FoundItem> expected(all.begin(), all.begin() + std::min<size_t>(limit, all.size()));
            EXPECT_EQ(found_items(hits), expected);
        }
    }
    EXPECT_GT(compared, 100u);  // most keywords find something
}
