// The mapped reader: whatever its four files hold, opening it either fails
// with a message naming the file or gives a reader whose searches return
// only views inside key.bin and data.bin that hold the keyword; on sound
// indexes it answers exactly as the reader that reads the files; readers of
// one index share one mapping and keep it when the directory is replaced.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iostream>
#include <random>
#include <set>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Reader/IndexReader.h"
#include "WriterTestSupport.h"

using Lexarium::Reader::IndexReader;
using Lexarium::Reader::SearchResult;
using Lexarium::Writer::IndexWriter;
using namespace quorvex_test;
namespace fs = std::filesystem;

namespace {

const char* const FILES[] = {"table.bin", "index.bin", "key.bin", "data.bin"};
enum { TABLE, INDEX, KEY, DATA };

typedef std::vector<std::pair<std::string, std::string>> Hits;

std::string text_of(const ByteArray& array) { return std::string(reinterpret_cast<const char*>(array.data), array.length); }

Hits hits_of(const std::vector<Rc<SearchResult>>& results, size_t from = 0) {
    Hits hits;
    for (size_t i = from; i < results.size(); ++i) {
        hits.emplace_back(text_of(*results[i]->key), text_of(*results[i]->value));
    }
    return hits;
}

void write_index(const std::string& directory, const Items& items) {
    IndexWriter writer;
    for (const auto& item : items) {
        writer.add_word(item.first, bytes_of(item.second));
    }
    writer.write_into_directory_with_default_file_name(directory);
}

// Opens `directory` mapped; an open that waits (for a writer to a FIFO, say)
// ends the program with a message rather than hanging the test.
Rc<IndexReader> open_mapped(const std::string& directory, std::string& error) {
    error.clear();
    ::signal(SIGALRM, [](int) {
        const char message[] = "from_directory_mapped did not return within 20 s\n";
        ssize_t ignored = ::write(STDERR_FILENO, message, sizeof message - 1);
        (void)ignored;
        ::_exit(2);
    });
    ::alarm(20);
    Rc<IndexReader> reader = IndexReader::from_directory_mapped(directory, &error);
    ::alarm(0);
    return reader;
}

bool lies_inside(const ByteArray& view, const ByteArray& file) {
    uintptr_t begin = reinterpret_cast<uintptr_t>(file.data), at = reinterpret_cast<uintptr_t>(view.data);
    return at >= begin && at - begin <= file.length && view.length <= file.length - (at - begin);
}

// What any search on any mapped reader must give: no more results than
// asked for (one for limit 0), keys and values inside key.bin and data.bin,
// keys that hold the keyword. The one-position search must also count what
// it appended.
void expect_sane_searches(IndexReader& reader, const std::vector<std::string>& keywords) {
    auto check = [&](const std::vector<Rc<SearchResult>>& results, size_t from, const std::string& keyword) {
        for (size_t i = from; i < results.size(); ++i) {
            ASSERT_TRUE(lies_inside(*results[i]->key, *reader.key_bytes)) << testing::PrintToString(keyword);
            ASSERT_TRUE(lies_inside(*results[i]->value, *reader.data_bytes)) << testing::PrintToString(keyword);
            ASSERT_NE(text_of(*results[i]->key).find(keyword), std::string::npos) << testing::PrintToString(keyword);
        }
    };
    for (const std::string& keyword : keywords) {
        for (uint16 limit : {0, 1, 20, 65535}) {
            Rc<std::vector<Rc<SearchResult>>> results = reader.search(keyword, limit);
            ASSERT_LE(results->size(), std::max<size_t>(limit, 1));
            check(*results, 0, keyword);
        }
        std::vector<Rc<SearchResult>> results;
        uint32 visited = 0;
        for (uint8 position : {0, 1, 2, 5, 254}) {
            size_t before = results.size();
            uint16 found = reader.search(keyword, 20, &results, visited, position);
            ASSERT_EQ(found, results.size() - before);
            check(results, before, keyword);
        }
    }
}

// Several keys sharing characters, multi-byte text, a key cut at 254 bytes,
// and sixty keys with "a" second: lists long and short.
Items damage_items() {
    Items items{{"haus", "house"},
                {"maus", "mouse"},
                {"hausmaus", "house mouse"},
                {"aus", ""},
                {"stra\xC3\x9F" "e", "street"},
                {"\xC3\xBC" "ber", "over"},
                {"gr\xC3\xB6\xC3\x9F" "e", "size"},
                {"\xE4\xB8\xAD\xE6\x96\x87", "Chinese"},
                {"\xE6\x96\x87\xE5\xAD\x97", "script"},
                {repeat("\xE4\xB8\xAD\xE6\x96\x87", 45), "long"}};
    for (int i = 0; i < 60; ++i) {
        items.emplace_back("ka" + std::to_string(i), std::string(i % 5, 'v'));
    }
    return items;
}

// Pieces of the keys: whole keys, first characters, characters from the
// middle and the end, and text no key holds.
std::vector<std::string> damage_keywords() {
    std::vector<std::string> keywords{"a",         "k",    "ka",        "ka4",       "a1",  "9",
                                      "aus",       "haus", "ausm",      "\xC3\x9F",  "e",   "\xC3\xBC" "b",
                                      "r\xC3\xB6", "\xE6\x96\x87", "\xE4\xB8\xAD\xE6\x96\x87", "b\xC3\xA9" "a",
                                      repeat("\xE6\x96\x87\xE4\xB8\xAD", 20), "zz"};
    return keywords;
}

// The offsets where the records of each file begin and end, and where a
// record's header ends. Of the table's empty rows, one byte each and all
// alike, every 97th is taken.
std::vector<std::set<uint64_t>> bounds_of(const Blobs& blobs) {
    std::vector<std::set<uint64_t>> bounds(4);
    Lexarium::Records::walk_table(blobs.table.data(), blobs.table.size(),
                                  [&](uint32 code_point, Lexarium::Records::Row row, uint64_t at) {
                                      if (row.cells_count == 0 && code_point % 97 != 0) return;
                                      bounds[TABLE].insert(at);
                                      for (uint64_t cell = at + 1; cell < at + row.size(); cell += 8) {
                                          bounds[TABLE].insert(cell);
                                      }
                                      bounds[TABLE].insert(at + row.size());
                                  });
    for (uint64_t at = 0; at <= blobs.index.size(); at += 4) {
        bounds[INDEX].insert(at);
    }
    for (uint64_t at = 0; at < blobs.key.size();) {
        Lexarium::Records::Key key{};
        Lexarium::Records::Value value{};
        if (!Lexarium::Records::Key::decode_from(blobs.key.data(), blobs.key.size(), at, key) ||
            !Lexarium::Records::Value::decode_from(blobs.data.data(), blobs.data.size(), key.data_pointer, value)) {
            ADD_FAILURE() << "the sound index has a record outside its file at key.bin offset " << at;
            break;
        }
        bounds[KEY].insert({at, at + 4, at + 5, at + key.size()});
        bounds[DATA].insert({key.data_pointer, key.data_pointer + 2, key.data_pointer + value.size()});
        at += key.size();
    }
    return bounds;
}

void make_fifo(const std::string& path) { ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0) << std::strerror(errno); }

std::vector<uint8> bytes_of_file(const std::string& path) {
    std::string bytes = file_contents(path);
    return std::vector<uint8>(bytes.begin(), bytes.end());
}

void put_file(const std::string& path, const std::vector<uint8>& bytes) {
    make_file(path, std::string(bytes.begin(), bytes.end()));
}

}  // namespace

// Every way a file set can be broken without being changed while mapped
// (bytes flipped at random are the fuzz target's): files cut short at and
// next to every record boundary or one byte long, files swapped, emptied, missing, replaced by a directory
// or a FIFO, and paths that are not index directories.
TEST(MappedReaderDamage, NeverAbortsAndNamesTheFileOrStaysInsideIt) {
    TemporaryDirectory temporary;
    const std::string sound = temporary / "sound", work = temporary / "work";
    write_index(sound, damage_items());
    Blobs blobs{bytes_of_file(sound + "/table.bin"), bytes_of_file(sound + "/index.bin"),
                bytes_of_file(sound + "/key.bin"), bytes_of_file(sound + "/data.bin")};
    const std::vector<uint8>* originals[4] = {&blobs.table, &blobs.index, &blobs.key, &blobs.data};
    const std::vector<std::string> keywords = damage_keywords();
    std::string error;
    size_t opened = 0, refused = 0;
    uint64_t passed_over[4] = {};  // records the searches met outside their file, by the file at fault

    // Opens `work` and checks the outcome; `refusal` is the file whose name
    // a failure must carry, and nullptr when the open must succeed.
    auto try_open = [&](const std::string& what, const char* refusal, bool may_fail = false) {
        SCOPED_TRACE(what);
        Rc<IndexReader> reader = open_mapped(work, error);
        if (reader.is_null()) {
            ++refused;
            EXPECT_TRUE(refusal != nullptr || may_fail) << error;
            EXPECT_NE(error.find(refusal != nullptr ? refusal : "table.bin"), std::string::npos) << error;
            return;
        }
        ++opened;
        EXPECT_TRUE(refusal == nullptr || may_fail) << "opened";
        expect_sane_searches(*reader, keywords);
        IndexReader::Damage damage = reader->damage_passed_over();
        uint64_t counts[4] = {damage.table, damage.index, damage.key, damage.data};
        for (int f = 0; f < 4; ++f) passed_over[f] += counts[f];
    };
    auto restore = [&] {
        fs::remove_all(work);
        fs::copy(sound, work);
    };

    // Each file cut at every record boundary and a byte before and after,
    // longest first so that each cut only shortens the file (the reader is
    // gone by then), and one byte longer than it should be.
    std::vector<std::set<uint64_t>> bounds = bounds_of(blobs);
    for (int file = 0; file < 4 && !HasFailure(); ++file) {
        restore();
        const std::string path = work + "/" + FILES[file];
        const uint64_t length = originals[file]->size();
        std::set<uint64_t, std::greater<uint64_t>> cuts{length + 1};
        for (uint64_t bound : bounds[file]) {
            for (uint64_t cut : {bound - 1, bound, bound + 1}) {
                if (cut < length) cuts.insert(cut);  // bound - 1 wraps for 0: left out
            }
        }
        for (uint64_t cut : cuts) {
            ASSERT_EQ(::truncate(path.c_str(), static_cast<off_t>(cut)), 0);
            bool refused_by_open = file == TABLE || (file == INDEX && cut < 4);
            try_open(std::string(FILES[file]) + " cut to " + std::to_string(cut), refused_by_open ? FILES[file] : nullptr);
            if (HasFailure()) break;
        }
    }

    // Whole files in the wrong place, empty, missing, not files at all.
    struct Case {
        std::string what;
        std::function<void(const std::string& directory)> damage;
        const char* refusal;  // the file named on failure; nullptr: must open
    };
    std::vector<Case> cases;
    for (int a = 0; a < 4; ++a) {
        for (int b = a + 1; b < 4; ++b) {
            cases.push_back({std::string(FILES[a]) + " <-> " + FILES[b],
                             [a, b](const std::string& d) {
                                 fs::rename(d + "/" + FILES[a], d + "/swap");
                                 fs::rename(d + "/" + FILES[b], d + "/" + FILES[a]);
                                 fs::rename(d + "/swap", d + "/" + FILES[b]);
                             },
                             a == TABLE ? FILES[TABLE] : nullptr});
        }
    }
    for (int f = 0; f < 4; ++f) {
        const std::string name = FILES[f];
        bool open_needs_it = f == TABLE || f == INDEX;  // a table of 65535 rows, an index sentinel
        cases.push_back({name + " empty", [name](const std::string& d) { fs::resize_file(d + "/" + name, 0); },
                         open_needs_it ? FILES[f] : nullptr});
        cases.push_back({name + " missing", [name](const std::string& d) { fs::remove(d + "/" + name); }, FILES[f]});
        cases.push_back({name + " a directory",
                         [name](const std::string& d) {
                             fs::remove(d + "/" + name);
                             fs::create_directory(d + "/" + name);
                         },
                         FILES[f]});
        cases.push_back({name + " a FIFO",
                         [name](const std::string& d) {
                             fs::remove(d + "/" + name);
                             make_fifo(d + "/" + name);
                         },
                         FILES[f]});
    }
    cases.push_back({"a row of 255 cells", [](const std::string& d) {
                         std::vector<uint8> table = table_blob({{'a', std::vector<std::pair<uint32, uint32>>(255)}});
                         put_file(d + "/table.bin", table);
                     },
                     FILES[TABLE]});
    cases.push_back({"no directory", [](const std::string& d) { fs::remove_all(d); }, FILES[TABLE]});
    for (const Case& c : cases) {
        restore();
        c.damage(work);
        try_open(c.what, c.refusal);
    }

    // Paths that are no index directory.
    EXPECT_TRUE(open_mapped("", error).is_null());
    EXPECT_NE(error.find("empty path"), std::string::npos) << error;
    EXPECT_TRUE(open_mapped(sound + "/key.bin", error).is_null());
    EXPECT_NE(error.find("key.bin/table.bin"), std::string::npos) << error;
    EXPECT_TRUE(IndexReader::from_directory_mapped("", nullptr).is_null());  // no message wanted

    // The test means something only if both outcomes were common and the
    // searches met damage of every kind.
    EXPECT_GT(opened, 1000u);
    EXPECT_GT(refused, 1000u);
    std::cout << opened << " damaged sets opened and searched, " << refused << " refused; records passed over:";
    for (int f = 0; f < 4; ++f) {
        EXPECT_GT(passed_over[f], 0u) << FILES[f];
        std::cout << " " << FILES[f] << " " << passed_over[f];
    }
    std::cout << "\n";
}

// A file of 4 GiB or more cannot be addressed by the records' 32-bit
// offsets; one byte less still opens and searches as before.
TEST(MappedReaderDamage, FilesOf4GiBAreRefusedAndOneByteLessOpens) {
    TemporaryDirectory temporary;
    const std::string sound = temporary / "sound", work = temporary / "work";
    write_index(sound, damage_items());
    Rc<IndexReader> expected = IndexReader::from_directory(sound);
    std::string error;
    for (int file = 0; file < 4; ++file) {
        fs::remove_all(work);
        fs::copy(sound, work);
        const std::string path = work + "/" + FILES[file];
        if (::truncate(path.c_str(), off_t{1} << 32) != 0) {
            GTEST_SKIP() << "no sparse file of 4 GiB in " << temporary.path << ": " << std::strerror(errno);
        }
        EXPECT_TRUE(open_mapped(work, error).is_null()) << FILES[file];
        EXPECT_NE(error.find(std::string(FILES[file]) + ": 4294967296 bytes"), std::string::npos) << error;
    }
    fs::remove_all(work);
    fs::copy(sound, work);
    ASSERT_EQ(::truncate((work + "/data.bin").c_str(), off_t{UINT32_MAX}), 0);
    Rc<IndexReader> reader = open_mapped(work, error);
    ASSERT_FALSE(reader.is_null()) << error;
    EXPECT_EQ(reader->data_bytes->length, UINT32_MAX);
    for (const std::string& keyword : damage_keywords()) {
        EXPECT_EQ(hits_of(*reader->search(keyword, 65535)), hits_of(*expected->search(keyword, 65535)));
    }
}

namespace {

// Random keys over the first `letters` of one- to three-byte characters, a
// tenth of them long; now and then a long value.
Items random_items(std::mt19937& random, size_t count, size_t letters) {
    static const uint32 ALPHABET[] = {'a', 'b', 'n', 0xE9, 0xFC, 0x436, 0x4E2D, 0x6587};
    Items items;
    for (size_t i = 0; i < count; ++i) {
        std::string key;
        for (size_t n = random() % 10 == 0 ? 60 + random() % 190 : 1 + random() % 8; n > 0; --n) {
            key += utf8(ALPHABET[random() % std::min(letters, std::size(ALPHABET))]);
        }
        items.emplace_back(key, std::to_string(i) + std::string(i % 7 == 3 ? 150 : 0, 'v'));
    }
    return items;
}

// Pieces of 1 to 6 characters cut from the stored keys of `reader` at any
// character, and a few that are no piece of anything.
std::vector<std::string> keywords_from(const IndexReader& reader, std::mt19937& random, size_t count) {
    std::vector<std::vector<uint32>> keys;
    const ByteArray& blob = *reader.key_bytes;
    Lexarium::Records::Key key{};
    for (uint64_t at = 0; Lexarium::Records::decode_from(blob, at, key); at += key.size()) {
        keys.emplace_back();
        Lexarium::Utf8::decode(std::string(reinterpret_cast<const char*>(key.text), key.length), keys.back());
    }
    std::vector<std::string> keywords{"zz", "\xE2\x82\xAC", "a\xC3"};
    while (keywords.size() < count && !keys.empty()) {
        const std::vector<uint32>& characters = keys[random() % keys.size()];
        std::string keyword;
        for (size_t i = random() % characters.size(), end = i + 1 + random() % 6; i < end && i < characters.size(); ++i) {
            keyword += utf8(characters[i]);
        }
        keywords.push_back(keyword);
    }
    return keywords;
}

// Both readers searched with each keyword: the same keys and values in the
// same order at every limit, and (for the first `walked` keywords) at each
// position of the one-position search the same results, count and number of
// entries visited. Returns how many of the searches found something.
size_t expect_same_answers(IndexReader& mapped, IndexReader& read, const std::vector<std::string>& keywords,
                           size_t walked = SIZE_MAX) {
    size_t with_hits = 0;
    for (const std::string& keyword : keywords) {
        SCOPED_TRACE("keyword " + testing::PrintToString(keyword));
        for (uint16 limit : {0, 1, 3, 20, 65535}) {
            Hits expected = hits_of(*read.search(keyword, limit));
            EXPECT_EQ(hits_of(*mapped.search(keyword, limit)), expected) << "limit " << limit;
            with_hits += expected.empty() ? 0 : 1;
        }
        std::vector<Rc<SearchResult>> mapped_results, read_results;
        uint32 mapped_visited = 0, read_visited = 0;
        for (uint32 position = 0; position <= 254 && walked > 0; position += position < 8 ? 1 : 41) {
            for (uint16 limit : {3, 65535}) {
                uint8 at = static_cast<uint8>(position);
                EXPECT_EQ(mapped.search(keyword, limit, &mapped_results, mapped_visited, at),
                          read.search(keyword, limit, &read_results, read_visited, at));
                EXPECT_EQ(mapped_visited, read_visited) << "position " << position << ", limit " << limit;
            }
        }
        EXPECT_EQ(hits_of(mapped_results), hits_of(read_results));
        walked -= walked > 0;
        IndexReader::Damage damage = mapped.damage_passed_over();
        EXPECT_EQ(damage.table + damage.index + damage.key + damage.data, 0u) << "damage found in a sound index";
        if (testing::Test::HasFailure()) break;
    }
    return with_hits;
}

Rc<IndexReader> mapped(const std::string& directory) {
    std::string error;
    Rc<IndexReader> reader = IndexReader::from_directory_mapped(directory, &error);
    EXPECT_FALSE(reader.is_null()) << error;
    return reader;
}

}  // namespace

// Small random indexes, and a few with lists of thousands of entries, which
// the search intersects a stretch at a time and entry by entry.
TEST(MappedReaderDifferential, AnswersAsTheReadingReaderOnRandomIndexes) {
    std::mt19937 random(8128);
    size_t searches = 0, with_hits = 0;
    for (int round = 0; round < 16 && !HasFailure(); ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        TemporaryDirectory directory;
        bool long_lists = round % 8 == 0;
        write_index(directory.path, random_items(random, long_lists ? 3000 : 1 + random() % 60, long_lists ? 3 : 8));
        Rc<IndexReader> read = IndexReader::from_directory(directory.path);
        Rc<IndexReader> reader = mapped(directory.path);
        ASSERT_FALSE(reader.is_null());
        std::vector<std::string> keywords = keywords_from(*read, random, 50);
        with_hits += expect_same_answers(*reader, *read, keywords, long_lists ? 5 : SIZE_MAX);
        searches += 5 * keywords.size();
    }
    EXPECT_GT(with_hits, searches / 2);  // most searches must find something to compare
}

TEST(MappedReaderDifferential, AnswersAsTheReadingReaderOnFreeDictGermanEnglish) {
#if !defined(QUORVEX_TOOL)
    GTEST_SKIP() << "built without the quorvex tool, which builds the index";
#elif defined(__SANITIZE_ADDRESS__)
    // A minute there, for little: the mapped files are not instrumented, and
    // the random indexes above take the same paths under the sanitizers.
    GTEST_SKIP() << "left to the build without sanitizers";
#else
    const std::string dictionary = "/usr/share/dictd/freedict-deu-eng.index";
    if (!fs::exists(dictionary)) {
        GTEST_SKIP() << dictionary << " is missing; Debian's dict-freedict-deu-eng package provides it";
    }
    TemporaryDirectory directory;
    const std::string index = directory / "index";
    FILE* quiet = std::fopen("/dev/null", "w");  // the tool lists the dictionary's invalid items
    ASSERT_EQ(exit_status(start_process(
                  {QUORVEX_TOOL, "build", "-q", "--skip-invalid", "--duplicates", "merge", dictionary, index}, nullptr,
                  quiet)),
              0);
    std::fclose(quiet);
    Rc<IndexReader> read = IndexReader::from_directory(index);
    Rc<IndexReader> reader = mapped(index);
    ASSERT_FALSE(reader.is_null());
    // Random pieces, then common ones with lists of many thousand entries;
    // the literal one-position walk through such lists is slow, so it is
    // compared on the first few random ones only.
    std::mt19937 random(1905);
    std::vector<std::string> keywords = keywords_from(*read, random, 50);
    for (const char* common : {"e", "sch", "ung", "\xC3\x9F", "\xC3\xBC" "ber", " "}) {
        keywords.push_back(common);
    }
    EXPECT_GT(expect_same_answers(*reader, *read, keywords, 6), keywords.size() * 5 / 2);
#endif
}

// Readers of one directory share its mapping. An index replaced by renaming
// a new directory into place (and the old one deleted) is seen by the next
// reader, while a reader opened before still searches the old files.
TEST(MappedReaderSharing, ReadersShareOneMappingAndKeepTheirFilesWhenTheIndexIsReplaced) {
    TemporaryDirectory temporary;
    const std::string live = temporary / "live";
    std::mt19937 random(31);
    write_index(live, random_items(random, 30, 8));
    Rc<IndexReader> old_read = IndexReader::from_directory(live);
    Rc<IndexReader> first = mapped(live), second = mapped(live + "/");
    ASSERT_FALSE(first.is_null() || second.is_null());
    Rc<ByteArray> IndexReader::*const blobs[] = {&IndexReader::table_bytes, &IndexReader::index_bytes,
                                                 &IndexReader::key_bytes, &IndexReader::data_bytes};
    for (int f = 0; f < 4; ++f) {
        EXPECT_EQ(((*first).*blobs[f])->data, ((*second).*blobs[f])->data) << FILES[f];
    }
    std::vector<std::string> keywords = keywords_from(*old_read, random, 20);

    write_index(temporary / "next", random_items(random, 30, 8));
    fs::rename(live, temporary / "old");
    fs::rename(temporary / "next", live);
    fs::remove_all(temporary / "old");
    Rc<IndexReader> new_read = IndexReader::from_directory(live);
    Rc<IndexReader> fresh = mapped(live);
    ASSERT_FALSE(fresh.is_null());
    EXPECT_NE(fresh->key_bytes->data, first->key_bytes->data);
    second = Rc<IndexReader>();  // the mapping lives while any reader does
    expect_same_answers(*first, *old_read, keywords);
    expect_same_answers(*fresh, *new_read, keywords);
    size_t differing = 0;
    for (const std::string& keyword : keywords) {
        differing += hits_of(*first->search(keyword, 65535)) != hits_of(*fresh->search(keyword, 65535));
    }
    EXPECT_GT(differing, keywords.size() / 2);  // the two indexes really answer differently
}
