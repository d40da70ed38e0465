#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <random>

#include "IndexVerifier.h"
#include "WriterTestSupport.h"

using Lexarium::IndexProblem;
using Lexarium::IndexVerification;
using Lexarium::IndexVerifier;
using namespace quorvex_test;

namespace {

const std::string DATA = QUORVEX_TEST_DATA_DIR;

std::string describe(const IndexVerification& verification) {
    std::string text;
    for (const IndexProblem& problem : verification.problems) {
        text += problem.blob + " @" + std::to_string(problem.offset) + ": " + problem.message + "\n";
    }
    return text;
}

IndexVerification verify(const Blobs& blobs, bool deep) {
    return IndexVerifier::verify(*make_bytes(blobs.table), *make_bytes(blobs.index), *make_bytes(blobs.key),
                                 *make_bytes(blobs.data), deep);
}

Blobs sample_blobs() {
    return build({{"haus", "house"}, {"stra\xC3\x9F" "e", "street"}, {"\xC3\xBC" "ber", "over"}, {"ungarn", "hungary"},
                  {std::string(100, 'a') + std::string(60, 'b'), "long"}, {"\xE4\xB8\xAD\xE6\x96\x87", "chinese"},
                  {repeat("\xC3\xA9", 150), "long key, stored shortened"}});
}

}  // namespace

TEST(IndexVerifier, NamesTheBlobAndOffsetOfEachDamagedSet) {
    struct Case {
        const char* set;
        const char* blob;
        uint64_t offset;
        const char* words;
    };
    for (const Case& c : {Case{"posting-list-past-index", "table.bin", 115, "lists 100 entries from offset 12"},
                          Case{"key-record-past-key-blob", "index.bin", 8, "expected the start of a key record"},
                          Case{"key-length-past-key-blob", "key.bin", 7, "runs past the end"},
                          Case{"value-past-data-blob", "key.bin", 7, "data pointer 6; expected 3"},
                          Case{"value-length-past-data-blob", "data.bin", 3, "runs past the end"},
                          Case{"table-one-byte-short", "table.bin", 65558, "ends before row 65534"}}) {
        SCOPED_TRACE(c.set);
        IndexVerification verification = IndexVerifier::verify_directory(DATA + "/" + c.set, false);
        ASSERT_FALSE(verification.is_sound());
        const IndexProblem& first = verification.problems.front();
        EXPECT_EQ(first.blob, c.blob) << describe(verification);
        EXPECT_EQ(first.offset, c.offset) << describe(verification);
        EXPECT_NE(first.message.find(c.words), std::string::npos) << describe(verification);
    }
    IndexVerification good = IndexVerifier::verify_directory(DATA + "/good", true);
    EXPECT_TRUE(good.is_sound()) << describe(good);
    EXPECT_EQ(good.items, 2u);
}

// A file that is missing or not a regular file is a problem named by its
// path, not a reason to stop.
TEST(IndexVerifier, ReportsFilesItCannotReadInsteadOfStopping) {
    IndexVerification verification = IndexVerifier::verify_directory(DATA + "/no-such-index", false);
    ASSERT_EQ(verification.problem_count, 4u);
    EXPECT_EQ(verification.problems[0].blob, DATA + "/no-such-index/table.bin");
    EXPECT_EQ(verification.problems[0].message, "No such file or directory");

    TemporaryDirectory temporary;
    Lexarium::Writer::IndexWriter writer;
    writer.add_word("haus", bytes_of("house"));
    writer.write_into_directory_with_default_file_name(temporary.path);
    std::filesystem::remove(temporary / "key.bin");
    std::filesystem::create_directory(temporary / "key.bin");
    verification = IndexVerifier::verify_directory(temporary.path, false);
    ASSERT_EQ(verification.problem_count, 1u);
    EXPECT_EQ(verification.problems[0].blob, temporary / "key.bin");
    EXPECT_EQ(verification.problems[0].message, "not a regular file");
}

TEST(IndexVerifier, TableAndIndexRulesAreEachReported) {
    Blobs good = build({{"ab", "X"}, {"b", "YZ"}});
    struct Case {
        const char* name;
        std::function<void(Blobs&)> damage;
        const char* blob;
        const char* words;
    };
    std::vector<Case> cases{
        {"trailing table bytes", [](Blobs& b) { b.table.push_back(0); }, "table.bin", "bytes after row 65534"},
        {"row 0 with a cell", [](Blobs& b) { b.table[0] = 1; b.table.insert(b.table.begin() + 1, 8, 0); },
         "table.bin", "row 0 has 1 cells"},
        {"255 cells", [](Blobs& b) { b.table[0] = 255; }, "table.bin", "255 cells"},
        {"sentinel", [](Blobs& b) { b.index[0] = 1; }, "index.bin", "sentinel is 1"},
        {"partial entry", [](Blobs& b) { b.index.push_back(0); }, "index.bin", "multiple of 4"},
        {"unlisted entry", [](Blobs& b) { b.index.insert(b.index.end(), 4, 0); }, "index.bin", "every entry"},
        {"empty cell offset", [](Blobs& b) { b.table[102] = 0; b.table[98] = 8; }, "table.bin", "empty with offset 8"},
        {"unaligned list", [](Blobs& b) { b.table[98] = 6; }, "table.bin", "4-byte aligned"},
        {"descending list", [](Blobs& b) { b.table[111] = 2; b.index[12] = 7; b.index.insert(b.index.end(), 4, 0); },
         "index.bin", "ascending"},
        {"key pointer", [](Blobs& b) { b.key[7] = 0; }, "key.bin", "expected 3"},
        {"missing value", [](Blobs& b) { b.data.resize(3); }, "key.bin", "has no value record"},
        {"extra value", [](Blobs& b) { b.data.insert(b.data.end(), {0, 0}); }, "data.bin", "have no key"},
    };
    for (Case& c : cases) {
        SCOPED_TRACE(c.name);
        Blobs damaged = good;
        c.damage(damaged);
        IndexVerification verification = verify(damaged, false);
        ASSERT_FALSE(verification.is_sound());
        bool named = false;
        for (const IndexProblem& problem : verification.problems) {
            named = named || (problem.blob == c.blob && problem.message.find(c.words) != std::string::npos);
        }
        EXPECT_TRUE(named) << describe(verification);
    }
}

TEST(IndexVerifier, DeepCheckCatchesListingsThatDoNotMatchTheKeys) {
    // Row 'a' cell 0 lists "ab" (offset 0); point it at "b" (offset 7)
    // instead: both are key starts, so only the deep check can tell.
    Blobs damaged = build({{"ab", "X"}, {"b", "YZ"}});
    damaged.index[4] = 7;
    EXPECT_TRUE(verify(damaged, false).is_sound());
    IndexVerification deep = verify(damaged, true);
    ASSERT_FALSE(deep.is_sound());
    EXPECT_NE(describe(deep).find("row 97 cell 0 lists the key at 7, whose character 0 is U+0062"), std::string::npos)
        << describe(deep);
    EXPECT_NE(describe(deep).find("listed for 1 of its 2 characters"), std::string::npos) << describe(deep);
}

// Every blob cut short anywhere is caught, with or without the deep check.
TEST(IndexVerifier, EveryTruncationOfEveryBlobIsCaught) {
    Blobs blobs = sample_blobs();
    ASSERT_TRUE(verify(blobs, true).is_sound());
    std::mt19937 random(5);
    std::vector<uint8> Blobs::*const members[] = {&Blobs::table, &Blobs::index, &Blobs::key, &Blobs::data};
    for (int blob = 0; blob < 4; ++blob) {
        const size_t size = (blobs.*members[blob]).size();
        for (size_t i = 0; i < 300; ++i) {
            size_t cut = i < 100 ? size - 1 - i % size : random() % size;  // the last records, then anywhere
            Blobs damaged = blobs;
            (damaged.*members[blob]).resize(cut);
            ASSERT_FALSE(verify(damaged, cut % 2 == 0).is_sound()) << "blob " << blob << " cut at " << cut;
        }
    }
}
