// quorvex: build, search, describe and verify Quorvex indexes.
//
// Exit codes: 0 success (a search without hits included), 1 bad data or a
// damaged, missing or unwritable index, 2 a wrong command line.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <new>
#include <string>

#include <CLI/CLI.hpp>

#include "Commands.h"
#include "IndexFiles.h"

using namespace quorvex_tool;

namespace {

// Output that did not reach stdout (a full disk, a closed pipe, /dev/full)
// is a failure, whatever the command thought of its work.
int finish_output(int status) {
    // errno still holds the failed write's reason when an earlier write
    // failed; the flush and the close set it when they fail.
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0 || std::fclose(stdout) != 0) {
        std::fprintf(stderr, "quorvex: cannot write to stdout: %s\n",
                     errno != 0 ? std::strerror(errno) : "write error");
        return status == EXIT_OK ? EXIT_DATA : status;
    }
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"quorvex: build, search, describe and verify Quorvex substring indexes", "quorvex"};
    app.require_subcommand(1);
    app.set_version_flag("--version", std::string("quorvex ") + QUORVEX_TOOL_VERSION);

    BuildOptions build;
    CLI::App* build_command = app.add_subcommand("build", "Build an index from a dictionary file");
    build_command->add_option("--format", build.format, "Input format (default: from the file name)")
        ->check(CLI::IsMember({"tsv", "jsonl", "dictd"}));
    build_command->add_flag("--skip-invalid", build.skip_invalid, "Build from the valid items, skipping the others");
    build_command->add_option("--duplicates", build.duplicates, "What to do with repeated keys (default: merge)")
        ->check(CLI::IsMember({"merge", "last", "error"}));
    build_command->add_flag("--force", build.force, "Replace an existing index at OUTPUT_DIR");
    build_command->add_flag("-q,--quiet", build.quiet, "No progress display");
    build_command->add_flag("--exact", build.exact,
                            "Store keys as they are; by default they are folded (case, accents, width, kana)");
    build_command->add_flag("--no-suffix-array", build.no_suffix_array,
                            "Leave out suffix.bin, which speeds up searches for rare and absent keywords");
    build_command->add_option("--name", build.name, "The index's name (dictd default: 00-database-short)");
    build_command->add_option("--description", build.description,
                              "What the index holds (dictd default: 00-database-info)");
    build_command->add_option("INPUT", build.input, "A .tsv, .jsonl or dictd .index file")->required();
    build_command->add_option("OUTPUT_DIR", build.output, "Where the index goes")->required();

    SearchOptions search;
    CLI::App* search_command = app.add_subcommand("search", "Find the keys that contain a keyword");
    search_command->add_option("--limit", search.limit, "Most hits to show (default: 20)")->check(CLI::Range(1, 65535));
    search_command->add_flag("--json", search.json, "One JSON object per hit");
    search_command->add_flag("--full", search.full, "Whole values instead of their first line");
    search_command->add_flag("--stats", search.stats, "Report timings on stderr");
    search_command->add_flag("--pattern", search.pattern,
                             "KEYWORD is a pattern: ? any one character, ^ first and $ last anchor, \\ escapes");
    search_command->add_option("--typos", search.typos,
                               "Forgive up to N edits (0-2; none under 4 characters, 1 under 8)")
        ->check(CLI::Range(0, 2));
    search_command->add_flag("!--no-suggest,!-q", search.suggest,
                             "When nothing is found, do not show keys within one edit");
    search_command->add_option("-k,--keyword", search.keywords,
                               "A keyword to look for, again for more; then every argument is an index");
    search_command->add_option("INDEX_DIR... KEYWORD", search.arguments,
                               "Index directories, in the order their hits are shown, and the keyword; or "
                               "INDEX_DIR... -- KEYWORD... (any keyword, also one that begins with -)")
        ->required();

    InfoOptions info;
    CLI::App* info_command = app.add_subcommand("info", "Describe an index");
    info_command->add_flag("--json", info.json, "As one JSON object");
    info_command->add_option("INDEX_DIR", info.directory, "An index directory")->required();

    VerifyOptions verify;
    CLI::App* verify_command = app.add_subcommand("verify", "Check that an index is sound");
    verify_command->add_flag("--deep", verify.deep, "Also check every key against the cells that list it");
    verify_command->add_flag("--json", verify.json, "As one JSON object");
    verify_command->add_option("INDEX_DIR", verify.directory, "An index directory")->required();

    // `quorvex search DIR... -- KEYWORD...`: what follows "--" is keywords,
    // whatever they begin with, and CLI11 leaves it to us.
    int parsed_count = argc;
    for (int i = 1; i + 1 < argc && std::string(argv[1]) == "search"; ++i) {
        if (std::string(argv[i]) == "--") {
            search.keywords.assign(argv + i + 1, argv + argc);
            parsed_count = i;
            break;
        }
    }
    try {
        app.parse(parsed_count, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) {
            return finish_output(app.exit(error));  // --help, --version
        }
        // The first word names a command or is none: say so plainly.
        std::string what = error.what();
        if (argc > 1 && argv[1][0] != '-' && app.get_subcommands().empty()) {
            what = std::string("unknown command '") + argv[1] + "'; the commands are build, search, info and verify";
        }
        std::fprintf(stderr, "quorvex: %s\nRun 'quorvex --help' or 'quorvex COMMAND --help' for usage.\n",
                     what.c_str());
        return EXIT_USAGE;
    }

    try {
        int status = build_command->parsed()    ? run_build(build)
                     : search_command->parsed() ? run_search(search)
                     : info_command->parsed()   ? run_info(info)
                                                : run_verify(verify);
        return finish_output(status);
    } catch (const ToolError& error) {
        std::fprintf(stderr, "quorvex: %s\n", error.what());
        return error.exit_code;
    } catch (const std::bad_alloc&) {
        std::fprintf(stderr, "quorvex: out of memory\n");
        return EXIT_DATA;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "quorvex: %s\n", error.what());
        return EXIT_DATA;
    }
}
