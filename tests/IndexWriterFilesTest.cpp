#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <stdexcept>
#include <unistd.h>

#include "WriterTestSupport.h"

using Lexarium::Writer::IndexWriter;
using Lexarium::Writer::write_file;
using namespace quorvex_test;
namespace fs = std::filesystem;

namespace {
std::vector<uint8> read_all(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void fill(IndexWriter& writer) {
    writer.add_word("ab", bytes_of("X"));
    writer.add_word("b", bytes_of("YZ"));
}

Blobs expected_blobs() {
    IndexWriter writer;
    fill(writer);
    return blobs_of(writer.to_bytes());
}

void expect_file_set(const std::string& directory, const Blobs& expected) {
    EXPECT_EQ(read_all(directory + "/table.bin"), expected.table);
    EXPECT_EQ(read_all(directory + "/index.bin"), expected.index);
    EXPECT_EQ(read_all(directory + "/key.bin"), expected.key);
    EXPECT_EQ(read_all(directory + "/data.bin"), expected.data);
}

std::string runtime_error_text(const std::function<void()>& action) {
    try {
        action();
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "(no std::runtime_error)";
}

}  // namespace

TEST(IndexWriterFiles, CreatesTheDirectoryAndWritesTheFourBlobs) {
    TemporaryDirectory temporary;
    std::string directory = temporary.path + "/index";
    IndexWriter writer;
    fill(writer);
    writer.write_into_directory_with_default_file_name(directory);
    expect_file_set(directory, expected_blobs());
}

TEST(IndexWriterFiles, EmptyWriterWritesTheSmallestFileSet) {
    TemporaryDirectory temporary;
    IndexWriter writer;
    writer.write_into_directory_with_default_file_name(temporary.path);
    EXPECT_EQ(read_all(temporary.path + "/table.bin"), std::vector<uint8>(65535, 0));
    EXPECT_EQ(read_all(temporary.path + "/index.bin"), std::vector<uint8>(4, 0));
    EXPECT_EQ(fs::file_size(temporary.path + "/key.bin"), 0u);
    EXPECT_EQ(fs::file_size(temporary.path + "/data.bin"), 0u);
}

TEST(IndexWriterFiles, OverwritesAnExistingFileSetAndLeavesOtherFilesAlone) {
    TemporaryDirectory temporary;
    { std::ofstream(temporary.path + "/notes.txt") << "keep me"; }
    { std::ofstream(temporary.path + "/data.bin") << std::string(100000, 'z'); }
    IndexWriter writer;
    fill(writer);
    // A trailing slash gives "dir//table.bin", which names the same file.
    writer.write_into_directory_with_default_file_name(temporary.path + "/");
    expect_file_set(temporary.path, expected_blobs());
    EXPECT_EQ(read_all(temporary.path + "/notes.txt"), std::vector<uint8>({'k', 'e', 'e', 'p', ' ', 'm', 'e'}));
}

TEST(IndexWriterFiles, WritesToFourChosenPathsInTableIndexKeyDataOrder) {
    TemporaryDirectory temporary;
    IndexWriter writer;
    fill(writer);
    writer.write_into_file(temporary.path + "/t", temporary.path + "/i", temporary.path + "/k", temporary.path + "/d");
    Blobs expected = expected_blobs();
    EXPECT_EQ(read_all(temporary.path + "/t"), expected.table);
    EXPECT_EQ(read_all(temporary.path + "/i"), expected.index);
    EXPECT_EQ(read_all(temporary.path + "/k"), expected.key);
    EXPECT_EQ(read_all(temporary.path + "/d"), expected.data);
}

TEST(IndexWriterFiles, MissingParentDirectoryIsTheFileSystemsError) {
    TemporaryDirectory temporary;
    IndexWriter writer;
    EXPECT_THROW(writer.write_into_directory_with_default_file_name(temporary.path + "/missing/index"),
                 fs::filesystem_error);
    EXPECT_FALSE(fs::exists(temporary.path + "/missing"));
}

TEST(IndexWriterFiles, RegularFileInTheWayIsRefusedWithTheSystemsText) {
    TemporaryDirectory temporary;
    std::string file = temporary.path + "/plain";
    { std::ofstream(file) << "x"; }
    IndexWriter writer;
    EXPECT_EQ(runtime_error_text([&] { writer.write_into_directory_with_default_file_name(file); }),
              "Not a directory");
}

TEST(IndexWriterFiles, WriteFileReportsOpenWriteAndCloseFailures) {
    TemporaryDirectory temporary;
    std::vector<Rc<ByteArray>> small{bytes_of("abc"), bytes_of(""), bytes_of("de")};
    EXPECT_EQ(runtime_error_text([&] { write_file(temporary.path + "/no/such/file", small); }),
              "No such file or directory");

    write_file(temporary.path + "/ok", small);
    EXPECT_EQ(read_all(temporary.path + "/ok"), std::vector<uint8>({'a', 'b', 'c', 'd', 'e'}));

    if (!fs::exists("/dev/full")) {
        GTEST_SKIP() << "no /dev/full";
    }
    // Buffered bytes fail only when the stream is closed: the close's own
    // return value is reported, deliberately.
    EXPECT_EQ(runtime_error_text([&] { write_file("/dev/full", small); }), "Unknown error -1");
    // A write too large to buffer fails in the write itself.
    std::vector<Rc<ByteArray>> large{make_zeros(1 << 20)};
    EXPECT_EQ(runtime_error_text([&] { write_file("/dev/full", large); }), "No space left on device");
}
