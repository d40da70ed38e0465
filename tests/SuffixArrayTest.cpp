// suffix.bin: a reader that has one answers exactly as a reader without it,
// through search() and find(), at every limit; its check catches each fault
// planted in it; a mapped reader never trusts one that does not belong to
// its files and never aborts over a damaged one.
#include <gtest/gtest.h>

#include <random>

#include "Reader/IndexReader.h"
#include "SuffixArray.h"
#include "Writer/IndexBuilder.h"
#include "Writer/IndexDirectory.h"
#include "WriterTestSupport.h"

using Lexarium::SuffixArray;
using Lexarium::Reader::IndexReader;
using namespace quorvex_testing;
using namespace quorvex_test;

namespace {

// Keys over a few letters (so keywords recur) in three scripts, some long
// enough for the writer to shorten.
std::vector<std::string> random_keys(uint32 seed, size_t count) {
    const std::vector<std::string> letters = {"a", "b", "c", "d", "\xC3\xA4", "\xC3\x9F", "\xE3\x81\x82", "\xE3\x82\xA2"};
    std::mt19937 random(seed);
    std::vector<std::string> keys;
    for (size_t k = 0; k < count; ++k) {
        size_t length = random() % 10 == 0 ? 90 + random() % 60 : 1 + random() % 8;
        std::string key;
        for (size_t i = 0; i < length; ++i) key += letters[random() % letters.size()];
        keys.push_back(key);
    }
    return keys;
}

// The index of `keys` in two directories, with suffix.bin and without.
struct Twins {
    TemporaryDirectory directory;
    Rc<IndexReader> with, without;
};

// `buckets_from` 0 gives the suffix array a bucket table however small.
void build_twins(const std::vector<std::string>& keys, bool folded, Twins& twins, uint32 buckets_from = 1u << 18) {
    Lexarium::Writer::IndexWriter writer;
    if (folded) {
        Lexarium::Writer::IndexSettings settings;
        settings.merge_duplicates = true;
        Lexarium::Writer::IndexBuilder builder(settings);
        for (size_t k = 0; k < keys.size(); ++k) builder.add(keys[k], "v" + std::to_string(k));
        ASSERT_EQ(builder.fill(writer), "");
    } else {
        for (size_t k = 0; k < keys.size(); ++k) writer.add_word(keys[k], bytes_of("v" + std::to_string(k)));
    }
    Rc<Lexarium::Writer::_IndexData> blobs = writer.to_bytes();
    std::string error;
    ASSERT_TRUE(Lexarium::Writer::write_index_directory(*blobs, twins.directory / "without", {}, &error)) << error;
    blobs->add_suffix_array(buckets_from);
    ASSERT_TRUE(Lexarium::Writer::write_index_directory(*blobs, twins.directory / "with", {}, &error)) << error;
    twins.with = IndexReader::from_directory_mapped(twins.directory / "with", &error);
    twins.without = IndexReader::from_directory_mapped(twins.directory / "without", &error);
    ASSERT_TRUE(twins.with->has_suffix_array() && !twins.without->has_suffix_array());
}

std::vector<std::string> keywords_of(const std::vector<std::string>& keys, uint32 seed) {
    std::vector<std::string> keywords = {"a", "ab", "\xC3\xA4\xC3\x9F", "zz", "a\xE3\x81\x82", "abcdabcd"};
    std::mt19937 random(seed);
    for (int k = 0; k < 150; ++k) {
        const std::string& key = keys[random() % keys.size()];
        std::vector<size_t> starts = character_starts(key);
        size_t from = random() % (starts.size() - 1);
        size_t to = std::min(starts.size() - 1, from + 1 + random() % 5);
        keywords.push_back(key.substr(starts[from], starts[to] - starts[from]));
    }
    return keywords;
}

void expect_same_answers(const Twins& twins, const std::vector<std::string>& keywords) {
    for (const std::string& keyword : keywords) {
        for (uint16 limit : {0, 1, 2, 3, 20, 100, 65535}) {
            SCOPED_TRACE(testing::PrintToString(keyword) + " limit " + std::to_string(limit));
            ASSERT_EQ(result_hits(*twins.with->search(keyword, limit)),
                      result_hits(*twins.without->search(keyword, limit)));
            for (uint8 typos : {0, 1}) {
                Lexarium::Reader::SearchOptions options;
                options.limit = limit;
                options.typos = typos;
                std::vector<Lexarium::Reader::Hit> with, without;
                ASSERT_TRUE(twins.with->find(keyword, options, with, nullptr));
                ASSERT_TRUE(twins.without->find(keyword, options, without, nullptr));
                ASSERT_EQ(found_items(with), found_items(without));
            }
        }
    }
}

}  // namespace

TEST(SuffixArray, AnswersAsThePostingListsDo) {
    for (bool folded : {false, true}) {
        for (uint32 seed : {1u, 2u}) {
            bool bucketed = seed == 2;
            SCOPED_TRACE(std::string(folded ? "folded" : "exact") + " seed " + std::to_string(seed));
            std::vector<std::string> keys = random_keys(seed, 600);
            Twins twins;
            build_twins(keys, folded, twins, bucketed ? 0 : 1u << 18);
            std::string error;
            const ByteArray& key_blob = *twins.with->key_bytes;
            std::string blob = SuffixArray::build(key_blob.data, key_blob.length, bucketed ? 0 : 1u << 18);
            EXPECT_EQ(blob.size(), file_contents(twins.directory / "with/suffix.bin").size());
            SuffixArray view = SuffixArray::open(reinterpret_cast<const uint8*>(blob.data()), blob.size(),
                                                 key_blob.length, &error);
            ASSERT_FALSE(view.empty()) << error;
            EXPECT_TRUE(view.check(key_blob.data, key_blob.length, &error)) << error;
            expect_same_answers(twins, keywords_of(keys, seed));
        }
    }
}

// Each planted fault breaks the check; those in the header or size make the
// reader leave the file aside, and the reader still answers as without it.
TEST(SuffixArray, CheckAndOpenRefuseWhatDoesNotBelong) {
    std::vector<std::string> keys = random_keys(3, 200);
    Twins twins;
    build_twins(keys, false, twins, 0);
    const ByteArray& key_blob = *twins.with->key_bytes;
    const std::string sound = SuffixArray::build(key_blob.data, key_blob.length, 0);
    const size_t table = Lexarium::Format::SUFFIX_HEADER_SIZE;
    const size_t entry = table + Lexarium::Format::SUFFIX_BUCKET_TABLE_SIZE + 5 * 7;  // the eighth entry
    struct Fault {
        const char* what;
        std::function<void(std::string&)> plant;
        bool opens;  // the header still fits
        const char* message;
    };
    const std::vector<Fault> faults = {
        {"two entries swapped", [&](std::string& b) { std::swap_ranges(&b[entry], &b[entry + 5], &b[entry + 5]); }, true, "is not after"},
        {"a wrong position", [&](std::string& b) { b[entry + 4] = static_cast<char>(b[entry + 4] == 0 ? 1 : b[entry + 4] - 1); }, true, "is not after"},
        {"inside a key record", [&](std::string& b) { b[entry] = static_cast<char>(b[entry] + 1); }, true, "no key record"},
        {"past the key", [&](std::string& b) { b[entry + 4] = static_cast<char>(250); }, true, "fewer characters"},
        {"an entry repeated", [&](std::string& b) { b.replace(entry + 5, 5, b.substr(entry, 5)); }, true, "is not after"},
        {"the magic", [](std::string& b) { b[0] = 'X'; }, false, "no \"QVXS\" header"},
        {"the version", [](std::string& b) { b[4] = 2; }, false, "version 2"},
        {"a bucket moved", [&](std::string& b) { b[table + 4 * ('b' << 8)] += 1; }, true, "bucket table"},
        {"no bucket table", [](std::string& b) { b[5] = 0; }, false, "bytes; its header makes it"},
        {"one entry short", [](std::string& b) { b.resize(b.size() - 5); }, false, "bytes; its header makes it"},
        {"one entry missing", [](std::string& b) { b.resize(b.size() - 5); b[8] = static_cast<char>(b[8] - 1); }, true, "characters"},
        {"another key.bin", [](std::string& b) { b[12] = static_cast<char>(b[12] + 1); }, false, "made for a key.bin of"},
    };
    for (const Fault& fault : faults) {
        SCOPED_TRACE(fault.what);
        std::string blob = sound;
        fault.plant(blob);
        std::string error;
        SuffixArray view =
            SuffixArray::open(reinterpret_cast<const uint8*>(blob.data()), blob.size(), key_blob.length, &error);
        ASSERT_EQ(!view.empty(), fault.opens) << error;
        if (fault.opens) {
            EXPECT_FALSE(view.check(key_blob.data, key_blob.length, &error));
        }
        EXPECT_NE(error.find(fault.message), std::string::npos) << error;

        TemporaryDirectory copy;
        for (const char* name : {"table.bin", "index.bin", "key.bin", "data.bin"}) {
            make_file(copy / name, file_contents(twins.directory / ("with/" + std::string(name))));
        }
        make_file(copy / "suffix.bin", blob);
        Rc<IndexReader> reader = IndexReader::from_directory_mapped(copy.path, &error);
        ASSERT_FALSE(reader.is_null()) << error;
        EXPECT_EQ(reader->has_suffix_array(), fault.opens);
        EXPECT_EQ(reader->suffix_array_problem().empty(), fault.opens) << reader->suffix_array_problem();
        if (!fault.opens) {
            Twins sound_twins;
            sound_twins.with = reader;
            sound_twins.without = twins.without;
            expect_same_answers(sound_twins, {"a", "ab", "zz"});
        } else {
            for (const std::string& keyword : keywords_of(keys, 3)) reader->search(keyword, 65535);  // ends, reads nothing outside
        }
    }
}
