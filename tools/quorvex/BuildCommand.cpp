// quorvex build: read items, check every one, settle duplicates, build the
// index and put it in place atomically.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

#include <Writer/IndexBuilder.h>
#include <Writer/IndexDirectory.h>
#include <Writer/IndexWriter.h>

#include "Commands.h"
#include "IndexFiles.h"
#include "ItemSources.h"
#include "Progress.h"
#include "Text.h"

namespace quorvex_tool {

namespace {

const char* const BLOB_NAMES[] = {"table.bin", "index.bin", "key.bin", "data.bin", "suffix.bin"};

// ---- The staging directory of the write, removed by the signal handler if
// the build is interrupted. The handler only unlinks precomputed paths,
// which is safe to do from a handler.

char staged_paths[6][4096];
volatile sig_atomic_t staging_active = 0;

extern "C" void on_interrupt(int signal_number) {
    if (staging_active) {
        for (int i = 1; i < 6; ++i) {
            ::unlink(staged_paths[i]);
        }
        ::rmdir(staged_paths[0]);
    }
    ::signal(signal_number, SIG_DFL);
    ::raise(signal_number);
}

// Told by the library when the staging directory appears and goes.
void on_staging(const char* staging, void*) {
    if (staging == nullptr || std::strlen(staging) + 16 >= sizeof staged_paths[0]) {
        staging_active = 0;
        for (int signal_number : {SIGINT, SIGTERM, SIGHUP}) {
            ::signal(signal_number, SIG_DFL);
        }
        return;
    }
    std::snprintf(staged_paths[0], sizeof staged_paths[0], "%s", staging);
    for (int i = 0; i < 5; ++i) {
        std::snprintf(staged_paths[i + 1], sizeof staged_paths[0], "%s/%s", staging, BLOB_NAMES[i]);
    }
    staging_active = 1;
    struct sigaction action {};
    action.sa_handler = on_interrupt;
    sigemptyset(&action.sa_mask);
    for (int signal_number : {SIGINT, SIGTERM, SIGHUP}) {
        ::sigaction(signal_number, &action, nullptr);
    }
}

void print_problems(const std::vector<Problem>& problems, size_t limit) {
    size_t shown = std::min(limit, problems.size());
    for (size_t i = 0; i < shown; ++i) {
        const Problem& problem = problems[i];
        std::fprintf(stderr, "quorvex: %s:%llu: %s\n", problem.location.file.c_str(),
                     static_cast<unsigned long long>(problem.location.line), problem.reason.c_str());
    }
    if (problems.size() > shown) {
        std::fprintf(stderr, "quorvex: ... and %s more\n", with_thousands(problems.size() - shown).c_str());
    }
}

off_t file_size(const std::string& path) {
    struct stat status;
    return ::stat(path.c_str(), &status) == 0 ? status.st_size : 0;
}

// The description the index will carry: what the command line says, else
// what the input says about itself.
Lexarium::Writer::IndexSettings settings_of(const BuildOptions& options, const SourceFacts& facts) {
    Lexarium::Writer::IndexSettings settings;
    settings.folded = !options.exact;
    settings.merge_duplicates = options.duplicates == "merge";
    std::string name = options.name.empty() ? facts.name : options.name;
    std::string description = options.description.empty() ? facts.description : options.description;
    size_t slash = options.input.find_last_of('/');
    settings.description.set("name", name);
    settings.description.set("description", description);
    settings.description.set("source", slash == std::string::npos ? options.input : options.input.substr(slash + 1));
    settings.description.set("tool", std::string("quorvex ") + QUORVEX_TOOL_VERSION);
    return settings;
}

// Hands the settled items to `builder`, one at a time so that their bytes
// are not held twice; the items it refuses (a key that folds too long, ...)
// join `invalid`, in line order.
void add_items(std::vector<SourceItem>& items, Lexarium::Writer::IndexBuilder& builder,
               std::vector<Problem>& invalid, Progress& progress) {
    size_t refused_before = invalid.size();
    uint64_t added = 0;
    for (SourceItem& item : items) {
        std::string problem = builder.add(std::move(item.key), std::move(item.value));
        if (!problem.empty()) {
            invalid.push_back({item.location, problem});
        }
        if (++added % 65536 == 0) {
            progress.count(added);
        }
    }
    if (invalid.size() > refused_before) {
        auto by_line = [](const Problem& a, const Problem& b) { return a.location.line < b.location.line; };
        std::sort(invalid.begin(), invalid.end(), by_line);
    }
}

}  // namespace

int run_build(const BuildOptions& given) {
    auto start = std::chrono::steady_clock::now();
    BuildOptions options = given;
    // "index/" names the same directory as "index"; the staging directory
    // must go beside it, not inside it.
    while (options.output.size() > 1 && options.output.back() == '/') {
        options.output.pop_back();
    }
    InputFormat format;
    try {
        format = options.format.empty() ? format_of_file(options.input) : parse_format(options.format);
    } catch (const std::invalid_argument& error) {
        throw ToolError(EXIT_USAGE, error.what());
    }
    // Where the index goes is settled before the input is read.
    struct stat output_status;
    bool output_exists = ::lstat(options.output.c_str(), &output_status) == 0;
    if (output_exists && !S_ISLNK(output_status.st_mode) && !options.force) {
        throw ToolError(EXIT_DATA, options.output + ": already exists; use --force to replace it");
    }
    std::string problem;
    if (!Lexarium::Writer::prepare_index_directory(options.output, options.force, &problem)) {
        throw ToolError(EXIT_DATA, problem);
    }

    Progress progress(!options.quiet && is_terminal(STDERR_FILENO));
    progress.phase("reading " + options.input, true);
    std::vector<SourceItem> read;
    std::vector<Problem> invalid;
    SourceFacts facts;
    try {
        read_items(options.input, format, read, invalid, facts, [&](uint64_t count) { progress.count(count); });
    } catch (const InputError& error) {
        throw ToolError(EXIT_DATA, error.what());
    }

    progress.phase("checking items");
    PreparedItems settled = prepare_items(std::move(read), std::move(invalid), options.duplicates);
    std::vector<Problem>& invalid_items = settled.invalid;
    std::vector<Problem>& fatal = settled.fatal;
    progress.phase(options.exact ? "adding items" : "folding keys", true);
    Lexarium::Writer::IndexBuilder builder(settings_of(options, facts));
    add_items(settled.items, builder, invalid_items, progress);
    std::vector<SourceItem>().swap(settled.items);

    if (!fatal.empty() || (!invalid_items.empty() && !options.skip_invalid)) {
        progress.finish();
        std::vector<Problem> all = fatal;
        if (!options.skip_invalid) {
            all.insert(all.end(), invalid_items.begin(), invalid_items.end());
        }
        print_problems(all, 20);
        std::string hint = fatal.empty() ? "; --skip-invalid builds the rest" : "";
        throw ToolError(EXIT_DATA, "nothing written: " + with_thousands(all.size()) + " problem(s) in " +
                                       options.input + hint);
    }

    Lexarium::Writer::IndexWriter writer;
    problem = builder.fill(writer);
    if (!problem.empty()) {
        progress.finish();
        throw ToolError(EXIT_DATA, "nothing written: " + problem);
    }

    progress.phase("building and writing the index");
    Lexarium::Writer::DirectoryOptions placing;
    placing.replace = options.force;
    placing.staging_hook = on_staging;
    Rc<Lexarium::Writer::_IndexData> blobs = writer.to_bytes();
    if (!options.no_suffix_array) {
        blobs->add_suffix_array();
    }
    if (!Lexarium::Writer::write_index_directory(*blobs, options.output, placing, &problem)) {
        throw ToolError(EXIT_DATA, problem);
    }
    progress.finish();

    if (!invalid_items.empty()) {
        std::fprintf(stderr, "quorvex: skipped %s invalid item(s); the first ones:\n",
                     with_thousands(invalid_items.size()).c_str());
        print_problems(invalid_items, 5);
    }
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("built %s\n", options.output.c_str());
    std::printf("  items     %s\n", with_thousands(builder.item_count()).c_str());
    std::printf("  keys      %s\n", options.exact ? "exact" : "folded");
    std::printf("  skipped   %s\n", with_thousands(invalid_items.size()).c_str());
    std::printf("  merged    %s\n", with_thousands(settled.merged + builder.merged_count()).c_str());
    for (const char* name : BLOB_NAMES) {
        if (name == BLOB_NAMES[4] && options.no_suffix_array) {
            continue;
        }
        off_t size = file_size(options.output + "/" + name);
        std::printf("  %-9s %s (%s bytes)\n", name, human_bytes(size).c_str(), with_thousands(size).c_str());
    }
    std::printf("  time      %.2f s\n", seconds);
    return EXIT_OK;
}

}  // namespace quorvex_tool
