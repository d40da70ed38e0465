// The tool's rebuild stopped in the middle of writing: the earlier index
// must come through byte for byte and still verify.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <sys/wait.h>
#include <thread>

#include "IndexVerifier.h"
#include "TestSupport.h"

namespace fs = std::filesystem;
using namespace quorvex_test;

namespace {

const std::string TOOL = QUORVEX_TOOL;

// The staging directory of a build of `output`, once it holds a file.
std::string wait_for_staging(const std::string& output, pid_t child) {
    fs::path parent = fs::path(output).parent_path();
    std::string prefix = fs::path(output).filename().string() + ".quorvex-new-";
    for (int i = 0; i < 60000; ++i) {
        for (const auto& entry : fs::directory_iterator(parent)) {
            std::string name = entry.path().filename().string();
            if (name.rfind(prefix, 0) == 0 && fs::exists(entry.path() / "table.bin")) {
                return entry.path().string();
            }
        }
        int status = 0;
        if (::waitpid(child, &status, WNOHANG) == child) {
            return "";  // finished before we could catch it
        }
        std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
    return "";
}

// A dictionary big enough that writing its index takes a while.
void write_big_input(const std::string& path) {
    std::ofstream out(path, std::ios::binary);
    std::string value(400, 'v');
    for (int i = 0; i < 300000; ++i) {
        out << "wort" << i << "\t" << value << i << "\n";
    }
}

class CliFault : public testing::TestWithParam<int> {};

}  // namespace

TEST_P(CliFault, RebuildStoppedWhileWritingLeavesTheEarlierIndexIntact) {
    int signal_number = GetParam();
    TemporaryDirectory temporary;
    const std::string output = temporary / "index";
    make_file(temporary / "small.tsv", "haus\thouse\nstra\xC3\x9F" "e\tstreet\n");
    ASSERT_EQ(exit_status(start_process({TOOL, "build", "-q", temporary / "small.tsv", output})), 0);
    std::map<std::string, std::string> before;
    for (const char* name : {"table.bin", "index.bin", "key.bin", "data.bin"}) {
        before[name] = file_contents(output + "/" + name);
    }

    write_big_input(temporary / "big.tsv");
    pid_t child = start_process({TOOL, "build", "-q", "--force", temporary / "big.tsv", output});
    std::string staging = wait_for_staging(output, child);
    ASSERT_FALSE(staging.empty()) << "the build never wrote a staging directory";
    ::kill(child, signal_number);
    int status = 0;
    ::waitpid(child, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), signal_number);

    for (const auto& file : before) {
        EXPECT_EQ(file_contents(output + "/" + file.first), file.second) << file.first;
    }
    EXPECT_TRUE(Lexarium::IndexVerifier::verify_directory(output, true).is_sound());
    if (signal_number != SIGKILL) {
        // A signal the tool can catch also takes its half-written files away.
        EXPECT_FALSE(fs::exists(staging));
    }
}

INSTANTIATE_TEST_SUITE_P(Signals, CliFault, testing::Values(SIGKILL, SIGINT, SIGTERM),
                         [](const testing::TestParamInfo<int>& info) { return std::string(sigabbrev_np(info.param)); });
