// Runs a fuzz target on saved inputs without libFuzzer, so that the targets
// also build with g++ and their corpora and crashers are replayed by ctest.
//
//   replay_<target> [--require-searched] PATH... [--optional PATH...]
//
// A PATH is an input file or a directory whose regular files (not those of
// its subdirectories) are all inputs, taken in name order. Paths after
// --optional may be missing. --require-searched fails the run when no input
// reached a search, which would leave the target proving nothing. A failing
// input stops the process in the target itself; its name is the last one
// printed.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "QuorvexTesting.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" size_t quorvex_fuzz_searched_inputs();

int main(int argc, char** argv) {
    bool require_searched = false;
    bool optional = false;
    std::vector<std::filesystem::path> inputs;
    for (int i = 1; i < argc; ++i) {
        std::string argument = argv[i];
        if (argument == "--require-searched" || argument == "--optional") {
            (argument == "--optional" ? optional : require_searched) = true;
            continue;
        }
        if (argument[0] == '-') {
            std::fprintf(stderr, "%s: unknown option %s\n", argv[0], argument.c_str());
            return 2;
        }
        std::error_code error;
        std::filesystem::file_status status = std::filesystem::status(argument, error);
        if (std::filesystem::is_directory(status)) {
            std::vector<std::filesystem::path> files;
            for (const auto& entry : std::filesystem::directory_iterator(argument)) {
                if (entry.is_regular_file()) {
                    files.push_back(entry.path());
                }
            }
            std::sort(files.begin(), files.end());
            inputs.insert(inputs.end(), files.begin(), files.end());
        } else if (std::filesystem::is_regular_file(status)) {
            inputs.push_back(argument);
        } else if (!optional) {
            std::fprintf(stderr, "%s: %s: no such file or directory\n", argv[0], argument.c_str());
            return 2;
        }
    }
    if (inputs.empty()) {
        std::fprintf(stderr, "%s: no inputs to replay\n", argv[0]);
        return 1;
    }

    for (const std::filesystem::path& input : inputs) {
        bool readable = false;
        std::string bytes = quorvex_testing::file_contents(input, &readable);
        if (!readable) {
            std::fprintf(stderr, "%s: %s: cannot be read\n", argv[0], input.c_str());
            return 1;
        }
        std::printf("%s\n", input.c_str());
        std::fflush(stdout);
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    }
    size_t searched = quorvex_fuzz_searched_inputs();
    std::printf("replayed %zu input(s), %zu reached a search\n", inputs.size(), searched);
    if (require_searched && searched == 0) {
        std::fprintf(stderr, "%s: no input reached a search\n", argv[0]);
        return 1;
    }
    return 0;
}
