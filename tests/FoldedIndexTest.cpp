// Indexes made by IndexBuilder, folded and exact, searched with find: each
// item once, by position, then key; within a folded entry what holds the
// keyword as typed first. Compared with the brute-force find over the same
// items, through both readers.
#include <gtest/gtest.h>

#include <random>

#include "Fold.h"
#include "IndexVerifier.h"
#include "Reader/IndexReader.h"
#include "Writer/IndexBuilder.h"
#include "WriterTestSupport.h"

using Hits = std::vector<Lexarium::Reader::Hit>;
using Lexarium::Reader::IndexReader;
using Lexarium::Writer::IndexBuilder;
using Lexarium::Writer::IndexSettings;
using Lexarium::Writer::IndexWriter;
using namespace quorvex_testing;
using namespace quorvex_test;

namespace {

Rc<IndexReader> build_reader(const std::vector<InputItem>& items, bool folded, TemporaryDirectory* files = nullptr) {
    IndexSettings settings;
    settings.folded = folded;
    settings.description.set("name", "test");
    IndexBuilder builder(settings);
    for (const InputItem& item : items) {
        EXPECT_EQ(builder.add(item.key, item.value), "") << item.key;
    }
    IndexWriter writer;
    EXPECT_EQ(builder.fill(writer), "");
    if (files != nullptr) {
        writer.write_into_directory_with_default_file_name(files->path);
        std::string error;
        return IndexReader::from_directory_mapped(files->path, &error);
    }
    return reader_of(blobs_of(writer.to_bytes()));
}

std::vector<FoundItem> find(const IndexReader& reader, const std::string& keyword, uint16 limit,
                            Lexarium::Reader::MatchMode mode, uint8 typos) {
    Lexarium::Reader::SearchOptions options;
    options.limit = limit;
    options.mode = mode;
    options.typos = typos;
    Hits hits;
    std::string error;
    EXPECT_TRUE(reader.find(keyword, options, hits, &error)) << error;
    return found_items(hits);
}

std::vector<FoundItem> find(const IndexReader& reader, const std::string& keyword, uint16 limit) {
    return find(reader, keyword, limit, Lexarium::Reader::MatchMode::Plain, 0);
}

// A pattern as the reference reads it: "?" any character, anchors stripped,
// folded as a whole with U+E000 standing for "?".
Matcher reference_pattern(std::string pattern, bool folded) {
    bool at_start = pattern[0] == '^', at_end = pattern.back() == '$';
    pattern = pattern.substr(at_start ? 1 : 0, pattern.size() - at_start - at_end);
    std::string marked;
    for (char c : pattern) marked += c == '?' ? std::string("\xEE\x80\x80") : std::string(1, c);
    if (folded) Lexarium::fold(std::string(marked), &marked);
    std::vector<uint32> characters = characters_of(marked);
    for (uint32& c : characters) c = c == 0xE000 ? UINT32_MAX : c;
    return pattern_matcher(characters, at_start, at_end);
}

}  // namespace

// Keys from pieces that fold alike (case, NFC and NFD, ß and ss, widths,
// kana) and repeat, so that many items share an entry and keys hold
// keywords at several positions; keywords plain, as patterns (characters
// of a key as "?", anchored or not) and with typos (a run of a key with one
// edit), at limits 0 to 3, 20 and all.
TEST(FindDifferential, AgreesWithBruteForceInEveryMode) {
    const char* const pieces[] = {"a", "A", "\xC3\xA4", "\xC3\x84", "a\xCC\x88", "s", "S", "\xC3\x9F", "ss",
                                  "o", "\xC3\xB6", "e", "\xC3\xA9", "b", " ", "\xE3\x82\xAB", "\xE3\x81\x8B",
                                  "\xEF\xBD\xB6", "\xEF\xBC\xA1"};
    std::mt19937 random(7);
    auto text = [&](size_t most) {
        std::string out;
        for (size_t n = 1 + random() % most; n > 0; --n) out += pieces[random() % std::size(pieces)];
        return out;
    };
    // A run of `shortest` to `shortest` + 6 characters of `key` (all of a
    // shorter one), with one edit (which may undo itself).
    auto with_typo = [&](const std::string& key, size_t shortest) {
        std::vector<uint32> c = characters_of(key);
        size_t length = std::min<size_t>(c.size(), shortest + random() % 7);
        size_t from = random() % (c.size() - length + 1);
        c = std::vector<uint32>(c.begin() + static_cast<std::ptrdiff_t>(from),
                                c.begin() + static_cast<std::ptrdiff_t>(from + length));
        size_t at = random() % c.size();
        uint32 other = characters_of(pieces[random() % std::size(pieces)])[0];
        switch (random() % 4) {
            case 0: c[at] = other; break;
            case 1: c.insert(c.begin() + static_cast<std::ptrdiff_t>(at), other); break;
            case 2: if (c.size() > 1) c.erase(c.begin() + static_cast<std::ptrdiff_t>(at)); break;
            default: if (at + 1 < c.size()) std::swap(c[at], c[at + 1]);
        }
        std::string out;
        for (uint32 x : c) out += Lexarium::Utf8::encode(x);
        return out;
    };
    using Lexarium::Reader::MatchMode;
    for (bool folded : {true, false}) {
        std::vector<InputItem> items;
        for (int i = 0; i < 300; ++i) {
            std::string key = text(i % 3 == 0 ? 12 : 6);
            if (key.front() != ' ' && key.back() != ' ') items.push_back(InputItem{key, "v" + std::to_string(i)});
        }
        TemporaryDirectory files;
        Rc<IndexReader> readers[] = {build_reader(items, folded), build_reader(items, folded, &files)};
        ASSERT_FALSE(readers[1].is_null());
        for (int k = 0; k < 160; ++k) {
            const std::string& key = items[random() % items.size()].key;
            std::string keyword = k % 4 == 0 ? text(3) : key;
            MatchMode mode = MatchMode::Plain;
            uint8 typos = 0;
            std::string searched = keyword;
            if (folded) Lexarium::fold(keyword, &searched);
            Matcher matcher = plain_matcher(searched);
            if (k % 4 == 2) {
                std::string pattern;
                for (uint32 c : characters_of(keyword)) pattern += random() % 3 == 0 ? "?" : Lexarium::Utf8::encode(c);
                keyword = (random() % 4 == 0 ? "^" : "") + pattern + (random() % 4 == 0 ? "$" : "");
                if (pattern.find_first_not_of("?") == std::string::npos) continue;
                mode = MatchMode::Pattern;
                matcher = reference_pattern(keyword, folded);
            } else if (k % 4 == 3) {
                typos = static_cast<uint8>(1 + random() % 2);
                keyword = with_typo(key, typos == 2 ? 9 : 4);
                if (typos == 2) keyword = with_typo(keyword, 20);
                if (folded) Lexarium::fold(keyword, &searched); else searched = keyword;
                size_t length = characters_of(searched).size();
                matcher = typo_matcher(searched, length < 4 ? 0 : length < 8 ? 1 : typos);
            }
            if (keyword.front() == ' ' || keyword.back() == ' ') continue;
            std::vector<FoundItem> all =
                reference_find(items, folded, matcher, mode == MatchMode::Pattern ? "" : keyword, 65535);
            for (uint16 limit : {0, 1, 2, 3, 20, 65535}) {
                SCOPED_TRACE((folded ? "folded: \"" : "exact: \"") + keyword + "\" typos " + std::to_string(typos) +
                             " limit " + std::to_string(limit));
                std::vector<FoundItem> expected(all.begin(), all.begin() + std::min<size_t>(limit, all.size()));
                EXPECT_EQ(find(*readers[0], keyword, limit, mode, typos), expected);
                EXPECT_EQ(find(*readers[1], keyword, limit, mode, typos), expected);
            }
        }
    }
}

// The example the order is made for: each spelling finds itself first.
TEST(Find, ItemsOfOneEntryComeAsTypedFirstThenInInputOrder) {
    Rc<IndexReader> reader = build_reader({{"dr\xC3\xB6ge", "1"}, {"Droge", "2"}, {"droge", "3"}}, true);
    EXPECT_EQ(find(*reader, "droge", 20),
              (std::vector<FoundItem>{{"droge", "3", 0}, {"dr\xC3\xB6ge", "1", 0}, {"Droge", "2", 0}}));
    EXPECT_EQ(find(*reader, "dr\xC3\xB6ge", 2), (std::vector<FoundItem>{{"dr\xC3\xB6ge", "1", 0}, {"Droge", "2", 0}}));
}

// The cases random keys seldom make: two edits that spoil every piece but
// one shifted by two, a swap with another edit, budgets at each length
// threshold, escapes and anchors.
TEST(Find, TyposAndPatternsAtTheirEdges) {
    using Lexarium::Reader::MatchMode;
    Rc<IndexReader> reader = build_reader({{"abxcdeyfghi", "1"}, {"acdfghi", "2"}, {"abdcefghXij", "3"}, {"wxyz", "4"},
                                           {"a?b", "5"}, {"x^y$", "6"}, {"bwxyz", "7"}},
                                          false);
    struct Case {
        std::string keyword;
        MatchMode mode;
        uint8 typos;
        std::vector<FoundItem> expected;
    };
    const Case cases[] = {
        {"abcdefghi", MatchMode::Plain, 2,
         {{"abdcefghXij", "3", 0, 2}, {"abxcdeyfghi", "1", 0, 2}, {"acdfghi", "2", 0, 2}}},
        {"abcdefghij", MatchMode::Plain, 2, {{"abdcefghXij", "3", 0, 2}}},
        {"wxy", MatchMode::Plain, 2, {{"wxyz", "4", 0, 0}, {"bwxyz", "7", 1, 0}}},  // 3 characters: no typos
        {"wxyy", MatchMode::Plain, 2, {{"wxyz", "4", 0, 1}, {"bwxyz", "7", 1, 1}}},  // 4 to 7: one at most
        {"awxyz", MatchMode::Plain, 2, {{"bwxyz", "7", 0, 1}, {"wxyz", "4", 0, 1}}},  // a key shorter than the keyword
        {"a\\?b", MatchMode::Pattern, 0, {{"a?b", "5", 0, 0}}},
        {"a?b", MatchMode::Pattern, 0, {{"a?b", "5", 0, 0}}},
        {"^?x", MatchMode::Pattern, 0, {{"wxyz", "4", 0, 0}}},
        {"y?$", MatchMode::Pattern, 0, {{"wxyz", "4", 2, 0}, {"x^y$", "6", 2, 0}, {"bwxyz", "7", 3, 0}}},
        {"^x\\^y\\$$", MatchMode::Pattern, 0, {{"x^y$", "6", 0, 0}}},
        {"??z", MatchMode::Pattern, 0, {{"wxyz", "4", 1, 0}, {"bwxyz", "7", 2, 0}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.keyword);
        EXPECT_EQ(find(*reader, c.keyword, 20, c.mode, c.typos), c.expected);
    }
}

// What no key can hold is the caller's error, never an abort; what only
// folds to nothing finds nothing.
TEST(Find, KeywordsNoKeyCanHoldComeBackAsErrors) {
    Rc<IndexReader> folded = build_reader({{"haus", "house"}}, true);
    Rc<IndexReader> exact = build_reader({{"haus", "house"}}, false);
    struct Case {
        std::string keyword;
        const char* error;  // "" when the search succeeds with no hits
    };
    const Case cases[] = {
        {"\xFF", "UTF-8"},
        {"ha\xC3", "UTF-8"},
        {"\xF0\x9F\x98\x80", "U+0001..U+FFFE"},
        {std::string(255, 'h'), "255 bytes"},
        {"   ", ""},
    };
    for (const Case& c : cases) {
        for (const Rc<IndexReader>& reader : {folded, exact}) {
            SCOPED_TRACE(c.keyword.substr(0, 10));
            Hits hits{Lexarium::Reader::Hit{}};
            std::string error;
            EXPECT_EQ(reader->find(c.keyword, Lexarium::Reader::SearchOptions(), hits, &error), *c.error == '\0');
            EXPECT_NE(error.find(c.error), std::string::npos) << error;
            EXPECT_TRUE(hits.empty());
        }
    }
    // Folding may grow a keyword past what a key holds.
    Hits hits;
    std::string error;
    EXPECT_FALSE(folded->find(repeat("\xE3\x8C\x80", 84), {}, hits, &error));
    EXPECT_NE(error.find("once folded"), std::string::npos) << error;
}

TEST(IndexBuilder, RefusesWhatAnIndexCannotHold) {
    struct Case {
        bool folded;
        std::string key;
        size_t value_bytes;
        const char* reason;
    };
    const std::string sign = "\xE3\x8C\x80";  // folds to four kana: 12 bytes
    const Case cases[] = {
        {true, "", 1, "empty"},
        {false, "a\xFF", 1, "UTF-8"},
        {false, "\xF0\x9F\x98\x80", 1, "U+0001..U+FFFE"},
        {false, std::string(255, 'k'), 1, "255 bytes"},
        {false, "k", 65535, "65535 bytes"},
        {true, " \t ", 1, "folds to nothing"},
        {true, sign + sign + std::string(240, 'k'), 1, "folds to"},
        {true, "k", 65532, "at most 65531"},
        {true, "K", 65531, "at most 65530"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.key.substr(0, 12));
        IndexSettings settings;
        settings.folded = c.folded;
        IndexBuilder builder(settings);
        std::string reason = builder.add(c.key, std::string(c.value_bytes, 'v'));
        EXPECT_NE(reason.find(c.reason), std::string::npos) << reason;
        EXPECT_EQ(builder.item_count(), 0u);
    }
    // Items that fold alike and together outgrow an entry: the build says which.
    IndexBuilder builder;
    for (const char* key : {"Gross", "gross", "GROSS"}) EXPECT_EQ(builder.add(key, std::string(30000, 'v')), "");
    IndexWriter writer;
    std::string problem = builder.fill(writer);
    EXPECT_NE(problem.find("\"Gross\", \"gross\", \"GROSS\" all fold to \"gross\""), std::string::npos) << problem;
}

// The description is the value of the empty key: every copy of the files
// carries it, no search reaches it, and the verifier accepts it. An index
// without one (the plain writer's) is exact.
TEST(IndexDescription, TravelsInTheFilesAndStaysOutOfSearches) {
    Rc<IndexReader> reader = build_reader({{"Haus", "house"}, {"haus", "home"}}, true);
    EXPECT_EQ(reader->folding(), Lexarium::FOLDING_VERSION);
    EXPECT_EQ(reader->description().get("name"), "test");
    EXPECT_EQ(reader->description().get("items"), "2");
    EXPECT_EQ(result_hits(*reader->search("", 100)).size(), 0u);
    Lexarium::IndexVerification verification = Lexarium::IndexVerifier::verify(
        *reader->table_bytes, *reader->index_bytes, *reader->key_bytes, *reader->data_bytes, true, 10);
    EXPECT_TRUE(verification.is_sound());

    Rc<IndexReader> undescribed = reader_of(build({{"", "not a description"}, {"haus", "house"}}));
    EXPECT_EQ(undescribed->folding(), 0u);
    EXPECT_TRUE(undescribed->description().fields.empty());
    EXPECT_EQ(find(*undescribed, " haus ", 20), (std::vector<FoundItem>{{"haus", "house", 0}}));
}
