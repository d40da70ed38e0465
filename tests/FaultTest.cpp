// Faults from outside: full disks, read-only places, files cut short or
// replaced. Every one must end in a clear error, never a crash, and nothing
// that was there before may be lost.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <set>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

#include "IndexVerifier.h"
#include "LittleEndian.h"
#include "WriterTestSupport.h"

using Lexarium::IndexVerification;
using Lexarium::IndexVerifier;
using Lexarium::Writer::IndexWriter;
using namespace quorvex_test;
namespace fs = std::filesystem;

namespace {

std::string error_text(const std::function<void()>& action) {
    try {
        action();
    } catch (const std::exception& error) {
        return error.what();
    }
    return "(no error)";
}

Items sample_items() {
    return {{"haus", "house"}, {"rathaus", "town hall"}, {"straße", "street"}, {"über", "over"},
            {"übung", "exercise"}, {"\xE4\xB8\xAD\xE6\x96\x87", "Chinese"}, {repeat("\xC3\xA9", 150), "long key, stored shortened"}};
}

// Offsets at which each record of a blob starts, and its end.
std::vector<size_t> value_boundaries(const std::vector<uint8>& data) {
    std::vector<size_t> boundaries;
    for (size_t offset = 0; offset < data.size(); offset += 2 + Lexarium::LittleEndian::load_u16(&data[offset])) {
        boundaries.push_back(offset);
    }
    return boundaries;
}

std::vector<size_t> key_boundaries(const std::vector<uint8>& key) {
    std::vector<size_t> boundaries;
    for (size_t offset = 0; offset < key.size(); offset += 5 + key[offset + 4]) {
        boundaries.push_back(offset);
    }
    return boundaries;
}

std::vector<size_t> row_boundaries(const std::vector<uint8>& table) {
    std::vector<size_t> boundaries;
    for (size_t offset = 0; offset < table.size(); offset += 1 + 8 * table[offset]) {
        boundaries.push_back(offset);
    }
    return boundaries;
}

}  // namespace

TEST(WriterFaults, FullDiskAndReadOnlyPlacesGiveTheSystemsText) {
    IndexWriter writer;
    for (const auto& item : sample_items()) {
        writer.add_word(item.first, bytes_of(item.second));
    }
    // A table blob too large for the stream's buffer fails in the write.
    EXPECT_EQ(error_text([&] { writer.write_into_file("/dev/full", "/dev/full", "/dev/full", "/dev/full"); }),
              "No space left on device");

    // root writes wherever permissions say it may not, but not into sysfs.
    TemporaryDirectory temporary;
    std::string read_only = temporary.path;
    if (::geteuid() == 0) {
        read_only = "/sys";
    } else {
        ::chmod(read_only.c_str(), 0555);
    }
    EXPECT_EQ(error_text([&] { writer.write_into_directory_with_default_file_name(read_only); }), "Permission denied");
    EXPECT_FALSE(fs::exists(read_only + "/table.bin"));

    std::string file = temporary.path + "/plain";
    ::chmod(temporary.path.c_str(), 0700);
    { std::ofstream(file) << "not a directory"; }
    // A regular file where the directory should be, or on the way to it.
    EXPECT_EQ(error_text([&] { writer.write_into_directory_with_default_file_name(file); }), "Not a directory");
    EXPECT_NE(error_text([&] { writer.write_into_directory_with_default_file_name(file + "/index"); })
                  .find("cannot create directory: Not a directory"),
              std::string::npos);
    std::ifstream still(file);
    std::string content;
    std::getline(still, content);
    EXPECT_EQ(content, "not a directory");
}

TEST(VerifierFaults, EveryTruncationOfEveryBlobIsCaught) {
    Blobs blobs = build(sample_items());
    ASSERT_TRUE(IndexVerifier::verify(*make_bytes(blobs.table), *make_bytes(blobs.index), *make_bytes(blobs.key),
                                      *make_bytes(blobs.data), true)
                    .is_sound());
    std::mt19937 random(5);
    struct Blob {
        const char* name;
        std::vector<uint8>* bytes;
        std::vector<size_t> boundaries;
    };
    std::vector<size_t> entry_boundaries;
    for (size_t offset = 0; offset < blobs.index.size(); offset += 4) {
        entry_boundaries.push_back(offset);
    }
    // The table has 65535 rows: its boundaries around the rows with cells,
    // and a spread of the empty ones.
    std::vector<size_t> rows = row_boundaries(blobs.table);
    std::vector<size_t> some_rows;
    for (size_t i = 0; i < rows.size(); ++i) {
        bool near_cells = blobs.table[rows[i]] != 0 || (i > 0 && blobs.table[rows[i - 1]] != 0);
        if (near_cells || i % 997 == 0 || i + 3 > rows.size()) {
            some_rows.push_back(rows[i]);
        }
    }
    Blob all[] = {{"table.bin", &blobs.table, some_rows},
                  {"index.bin", &blobs.index, entry_boundaries},
                  {"key.bin", &blobs.key, key_boundaries(blobs.key)},
                  {"data.bin", &blobs.data, value_boundaries(blobs.data)}};
    size_t checked = 0;
    for (Blob& blob : all) {
        std::set<size_t> cuts(blob.boundaries.begin(), blob.boundaries.end());
        for (int i = 0; i < 200; ++i) {
            cuts.insert(random() % blob.bytes->size());
        }
        for (size_t cut : cuts) {
            SCOPED_TRACE(std::string(blob.name) + " cut at " + std::to_string(cut));
            Blobs damaged = blobs;
            std::vector<uint8>* target = blob.bytes == &blobs.table   ? &damaged.table
                                         : blob.bytes == &blobs.index ? &damaged.index
                                         : blob.bytes == &blobs.key   ? &damaged.key
                                                                      : &damaged.data;
            target->resize(cut);
            IndexVerification verification =
                IndexVerifier::verify(*make_bytes(damaged.table), *make_bytes(damaged.index),
                                      *make_bytes(damaged.key), *make_bytes(damaged.data), cut % 2 == 0);
            ASSERT_FALSE(verification.is_sound());
            ++checked;
        }
    }
    EXPECT_GT(checked, 500u);
}

TEST(VerifierFaults, AFileReplacedByADirectoryIsReportedNotRead) {
    TemporaryDirectory temporary;
    IndexWriter writer;
    writer.add_word("haus", bytes_of("house"));
    writer.write_into_directory_with_default_file_name(temporary.path);
    fs::remove(temporary.path + "/key.bin");
    fs::create_directory(temporary.path + "/key.bin");
    IndexVerification verification = IndexVerifier::verify_directory(temporary.path, false);
    ASSERT_EQ(verification.problem_count, 1u);
    EXPECT_EQ(verification.problems[0].blob, temporary.path + "/key.bin");
    EXPECT_EQ(verification.problems[0].message, "not a regular file");
}
