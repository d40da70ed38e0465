// The writer's files: where they go, and the system's own words when they
// cannot be written (full disks, read-only places, files in the way).
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

#include "Writer/IndexDirectory.h"
#include "WriterTestSupport.h"

using Lexarium::Writer::IndexWriter;
using Lexarium::Writer::write_file;
using namespace quorvex_test;
namespace fs = std::filesystem;

namespace {

const Items ITEMS = {{"ab", "X"}, {"b", "YZ"}, {"stra\xC3\x9F" "e", "street"}};

// A writer holding ITEMS. (A writer's second build would double its lists.)
std::unique_ptr<IndexWriter> filled() {
    std::unique_ptr<IndexWriter> writer(new IndexWriter());
    for (const auto& item : ITEMS) {
        writer->add_word(item.first, bytes_of(item.second));
    }
    return writer;
}

void expect_files(const std::vector<std::string>& paths) {
    Blobs expected = build(ITEMS);
    const std::vector<uint8>* blobs[] = {&expected.table, &expected.index, &expected.key, &expected.data};
    for (size_t i = 0; i < 4; ++i) {
        std::string bytes = file_contents(paths[i]);
        EXPECT_EQ(std::vector<uint8>(bytes.begin(), bytes.end()), *blobs[i]) << paths[i];
    }
}

std::string error_text(const std::function<void()>& action) {
    try {
        action();
    } catch (const std::exception& error) {
        return error.what();
    }
    return "(no error)";
}

}  // namespace

TEST(IndexWriterFiles, WritesTheFourBlobsWhereTheyAreAskedFor) {
    TemporaryDirectory temporary;
    // A directory is created when it is missing.
    filled()->write_into_directory_with_default_file_name(temporary / "index");
    expect_files({temporary / "index/table.bin", temporary / "index/index.bin", temporary / "index/key.bin",
                  temporary / "index/data.bin"});

    // An existing file set is overwritten and other files are left alone. A
    // trailing slash gives "dir//table.bin", which names the same file.
    make_file(temporary / "notes.txt", "keep me");
    make_file(temporary / "data.bin", std::string(100000, 'z'));
    filled()->write_into_directory_with_default_file_name(temporary.path + "/");
    expect_files({temporary / "table.bin", temporary / "index.bin", temporary / "key.bin", temporary / "data.bin"});
    EXPECT_EQ(file_contents(temporary / "notes.txt"), "keep me");

    filled()->write_into_file(temporary / "t", temporary / "i", temporary / "k", temporary / "d");
    expect_files({temporary / "t", temporary / "i", temporary / "k", temporary / "d"});
}

TEST(IndexWriterFiles, FailuresAreTheSystemsText) {
    TemporaryDirectory temporary;
    std::unique_ptr<IndexWriter> writer = filled();
    EXPECT_THROW(writer->write_into_directory_with_default_file_name(temporary / "missing/index"), fs::filesystem_error);
    EXPECT_FALSE(fs::exists(temporary / "missing"));

    // A regular file where the directory should be, or on the way to it.
    make_file(temporary / "plain", "not a directory");
    EXPECT_EQ(error_text([&] { writer->write_into_directory_with_default_file_name(temporary / "plain"); }),
              "Not a directory");
    EXPECT_NE(error_text([&] { writer->write_into_directory_with_default_file_name(temporary / "plain/index"); })
                  .find("cannot create directory: Not a directory"),
              std::string::npos);
    EXPECT_EQ(file_contents(temporary / "plain"), "not a directory");

    // root writes wherever permissions say it may not, but not into sysfs.
    TemporaryDirectory locked;
    std::string read_only = ::geteuid() == 0 ? "/sys" : locked.path;
    ::chmod(locked.path.c_str(), 0555);
    EXPECT_EQ(error_text([&] { writer->write_into_directory_with_default_file_name(read_only); }), "Permission denied");
    EXPECT_FALSE(fs::exists(read_only + "/table.bin"));

    std::vector<Rc<ByteArray>> small{bytes_of("abc"), bytes_of(""), bytes_of("de")};
    EXPECT_EQ(error_text([&] { write_file(temporary / "no/such/file", small); }), "No such file or directory");
    write_file(temporary / "ok", small);
    EXPECT_EQ(file_contents(temporary / "ok"), "abcde");

    if (!fs::exists("/dev/full")) {
        GTEST_SKIP() << "no /dev/full";
    }
    // Buffered bytes fail only when the stream is closed: the close's own
    // return value is reported, deliberately.
    EXPECT_EQ(error_text([&] { write_file("/dev/full", small); }), "Unknown error -1");
    // A write too large to buffer, such as a table blob, fails in the write itself.
    EXPECT_EQ(error_text([&] { writer->write_into_file("/dev/full", "/dev/full", "/dev/full", "/dev/full"); }),
              "No space left on device");
}

// write_index_directory puts an index where nothing is, replaces only an
// index directory and only when asked, and leaves no staging behind.
TEST(IndexDirectory, ReplacesOnlyAnIndexAndOnlyWhenAsked) {
    TemporaryDirectory dir;
    IndexWriter writer;
    writer.add_word("ab", make_bytes({'X'}));
    Rc<Lexarium::Writer::_IndexData> blobs = writer.to_bytes();
    Lexarium::Writer::DirectoryOptions replace;
    replace.replace = true;
    std::filesystem::create_directories(dir / "other");
    make_file(dir / "other/notes.txt", "mine");
    struct Case {
        std::string directory;
        const Lexarium::Writer::DirectoryOptions& options;
        std::string error;  // "" when the write succeeds
    };
    const Lexarium::Writer::DirectoryOptions plain;
    for (const Case& c : {Case{dir / "new/index", plain, ""}, Case{dir / "new/index", plain, "already exists"},
                          Case{dir / "new/index/", replace, ""}, Case{dir / "other", replace, "holds notes.txt"}}) {
        SCOPED_TRACE(c.directory + (c.options.replace ? " replace" : ""));
        std::string error;
        EXPECT_EQ(Lexarium::Writer::write_index_directory(*blobs, c.directory, c.options, &error), c.error.empty());
        EXPECT_NE(error.find(c.error), std::string::npos) << error;
    }
    EXPECT_EQ(file_contents(dir / "new/index/data.bin"), std::string("\x01\x00X", 3));
    EXPECT_EQ(file_contents(dir / "other/notes.txt"), "mine");
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir / "new")) names.push_back(entry.path().filename());
    EXPECT_EQ(names, std::vector<std::string>{"index"});
}
