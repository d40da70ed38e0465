#ifndef QUORVEX_TOOL_COMMANDS_H
#define QUORVEX_TOOL_COMMANDS_H

#include <cstdint>
#include <string>
#include <vector>

namespace quorvex_tool {

struct BuildOptions {
    std::string input;
    std::string output;
    std::string format;      // "" = from the input's file name
    std::string duplicates = "merge";  // merge | last | error
    bool skip_invalid = false;
    bool force = false;
    bool quiet = false;
    bool exact = false;        // keys as they are rather than folded
    bool no_suffix_array = false;  // leave suffix.bin out
    std::string name;          // "" = from the input (dictd: 00-database-short)
    std::string description;   // "" = from the input (dictd: 00-database-info)
};

struct SearchOptions {
    std::vector<std::string> arguments;  // INDEX_DIR... [KEYWORD]
    std::vector<std::string> keywords;   // from -k; then every argument is an index
    uint32_t limit = 20;
    bool json = false;
    bool full = false;
    bool stats = false;
    bool pattern = false;      // ? for any character, ^ and $ anchors, \ escapes
    uint32_t typos = 0;        // edits forgiven, 0 to 2
    bool suggest = true;       // when nothing is found, keys within one edit
};

struct InfoOptions {
    std::string directory;
    bool json = false;
};

struct VerifyOptions {
    std::string directory;
    bool deep = false;
    bool json = false;
};

// Each returns the process's exit code; failures that end the command are
// thrown as ToolError.
int run_build(const BuildOptions& options);
int run_search(const SearchOptions& options);
int run_info(const InfoOptions& options);
int run_verify(const VerifyOptions& options);

}  // namespace quorvex_tool

#endif
