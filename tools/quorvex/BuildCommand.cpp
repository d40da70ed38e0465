// quorvex build: read items, check every one, settle duplicates, build the
// index and put it in place atomically.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <set>
#include <stdexcept>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <Writer/IndexBuilder.h>
#include <Writer/IndexWriter.h>

#include "Commands.h"
#include "IndexFiles.h"
#include "ItemSources.h"
#include "Progress.h"
#include "Text.h"

namespace quorvex_tool {

namespace {

const char* const BLOB_NAMES[] = {"table.bin", "index.bin", "key.bin", "data.bin"};

// ---- The staging directory, removed again if the build fails or is
// interrupted. The signal handler only unlinks precomputed paths, which is
// safe to do from a handler.

char staged_paths[5][4096];
volatile sig_atomic_t staging_active = 0;

void remove_staging_from_handler() {
    if (staging_active) {
        for (int i = 1; i < 5; ++i) {
            ::unlink(staged_paths[i]);
        }
        ::rmdir(staged_paths[0]);
    }
}

extern "C" void on_interrupt(int signal_number) {
    remove_staging_from_handler();
    ::signal(signal_number, SIG_DFL);
    ::raise(signal_number);
}

class Staging {
public:
    explicit Staging(const std::string& output) {
        std::string pattern = output + ".quorvex-new-XXXXXX";
        std::vector<char> buffer(pattern.begin(), pattern.end());
        buffer.push_back('\0');
        if (::mkdtemp(buffer.data()) == nullptr) {
            throw ToolError(EXIT_DATA, output + ": cannot create a directory beside it: " + std::strerror(errno));
        }
        this->path = buffer.data();
        if (this->path.size() + 16 >= sizeof staged_paths[0]) {
            ::rmdir(this->path.c_str());
            throw ToolError(EXIT_DATA, output + ": path too long");
        }
        std::snprintf(staged_paths[0], sizeof staged_paths[0], "%s", this->path.c_str());
        for (int i = 0; i < 4; ++i) {
            std::snprintf(staged_paths[i + 1], sizeof staged_paths[0], "%s/%s", this->path.c_str(), BLOB_NAMES[i]);
        }
        // Held while this build lives: a staging directory nobody holds is
        // a killed build's, which a later build may remove.
        this->lock = ::open(this->path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (this->lock >= 0) {
            ::flock(this->lock, LOCK_EX);
        }
        staging_active = 1;
        struct sigaction action {};
        action.sa_handler = on_interrupt;
        sigemptyset(&action.sa_mask);
        for (int signal_number : {SIGINT, SIGTERM, SIGHUP}) {
            ::sigaction(signal_number, &action, nullptr);
        }
    }

    ~Staging() {
        if (!this->committed) {
            remove_directory(this->path);
        }
        if (this->lock >= 0) {
            ::close(this->lock);
        }
        staging_active = 0;
        for (int signal_number : {SIGINT, SIGTERM, SIGHUP}) {
            ::signal(signal_number, SIG_DFL);
        }
    }

    std::string file(int i) const { return this->path + "/" + BLOB_NAMES[i]; }

    // Removes an index directory: its four files, then the directory.
    static void remove_directory(const std::string& directory) {
        for (const char* name : BLOB_NAMES) {
            ::unlink((directory + "/" + name).c_str());
        }
        ::rmdir(directory.c_str());
    }

    // Removes the staging directories beside `output` that builds killed
    // before they could (SIGKILL, a power cut) left behind: those of this
    // tool's naming that no living build holds.
    static void remove_stale(const std::string& output) {
        size_t slash = output.find_last_of('/');
        std::string parent = slash == std::string::npos ? "." : slash == 0 ? "/" : output.substr(0, slash);
        std::string prefix = output.substr(slash == std::string::npos ? 0 : slash + 1) + ".quorvex-new-";
        DIR* directory = ::opendir(parent.c_str());
        if (directory == nullptr) {
            return;
        }
        while (dirent* entry = ::readdir(directory)) {
            std::string name = entry->d_name;
            if (name.size() != prefix.size() + 6 || name.compare(0, prefix.size(), prefix) != 0) {
                continue;
            }
            std::string stale = parent + "/" + name;
            int lock = ::open(stale.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW);
            if (lock >= 0 && ::flock(lock, LOCK_EX | LOCK_NB) == 0) {
                remove_directory(stale);
            }
            if (lock >= 0) {
                ::close(lock);
            }
        }
        ::closedir(directory);
    }

    std::string path;
    bool committed = false;
    int lock = -1;
};

// Creates the directories above `output` that do not exist yet.
void make_parents(const std::string& output) {
    for (size_t slash = output.find('/', 1); slash != std::string::npos; slash = output.find('/', slash + 1)) {
        std::string parent = output.substr(0, slash);
        if (::mkdir(parent.c_str(), 0777) != 0 && errno != EEXIST) {
            throw ToolError(EXIT_DATA, parent + ": cannot create the directory: " + std::strerror(errno));
        }
    }
}

void sync_path(const std::string& path, int flags) {
    int descriptor = ::open(path.c_str(), flags);
    if (descriptor < 0 || ::fsync(descriptor) != 0) {
        int error = errno;
        if (descriptor >= 0) {
            ::close(descriptor);
        }
        throw ToolError(EXIT_DATA, path + ": cannot flush to disk: " + std::strerror(error));
    }
    ::close(descriptor);
}

// Writes one blob and flushes it to disk, every failure named with the
// system's reason (a full disk is "No space left on device", whether the
// write, the flush or the close finds it).
void write_blob(const std::string& path, const std::vector<Rc<ByteArray>>& chunks) {
    int descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    auto fail = [&](const char* what) {
        int error = errno;
        if (descriptor >= 0) {
            ::close(descriptor);
        }
        throw ToolError(EXIT_DATA, path + ": cannot " + what + ": " + std::strerror(error));
    };
    if (descriptor < 0) {
        fail("create");
    }
    for (const Rc<ByteArray>& chunk : chunks) {
        for (uint32_t done = 0; done < chunk->length;) {
            ssize_t written = ::write(descriptor, chunk->data + done, chunk->length - done);
            if (written < 0 && errno == EINTR) {
                continue;
            }
            if (written <= 0) {
                if (written == 0) {
                    errno = ENOSPC;
                }
                fail("write");
            }
            done += static_cast<uint32_t>(written);
        }
    }
    if (::fsync(descriptor) != 0) {
        fail("flush to disk");
    }
    int closed = ::close(descriptor);
    descriptor = -1;
    if (closed != 0) {
        fail("close");
    }
}

std::string parent_of(const std::string& path) {
    size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

// An existing output may be replaced only if it is an index directory (or
// an empty one): a --force never deletes anything else.
void check_replaceable(const std::string& output) {
    DIR* directory = ::opendir(output.c_str());
    if (directory == nullptr) {
        throw ToolError(EXIT_DATA, output + ": exists and is not a directory; refusing to replace it");
    }
    std::set<std::string> allowed(std::begin(BLOB_NAMES), std::end(BLOB_NAMES));
    std::string stranger;
    while (dirent* entry = ::readdir(directory)) {
        std::string name = entry->d_name;
        if (name != "." && name != ".." && allowed.count(name) == 0) {
            stranger = name;
            break;
        }
    }
    ::closedir(directory);
    if (!stranger.empty()) {
        throw ToolError(EXIT_DATA, output + ": holds " + stranger +
                                       ", so it is not a Quorvex index directory; refusing to replace it");
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
    make_parents(options.output);
    Staging::remove_stale(options.output);
    struct stat output_status;
    bool output_exists = ::lstat(options.output.c_str(), &output_status) == 0;
    if (output_exists && S_ISLNK(output_status.st_mode)) {
        throw ToolError(EXIT_DATA, options.output + ": is a symbolic link; give the directory itself");
    }
    if (output_exists && !options.force) {
        throw ToolError(EXIT_DATA, options.output + ": already exists; use --force to replace it");
    }
    if (output_exists) {
        check_replaceable(options.output);
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
    std::string problem = builder.fill(writer);
    if (!problem.empty()) {
        progress.finish();
        throw ToolError(EXIT_DATA, "nothing written: " + problem);
    }

    progress.phase("building and writing the index");
    Staging staging(options.output);
    Rc<Lexarium::Writer::_IndexData> blobs = writer.to_bytes();
    const std::vector<Rc<ByteArray>>* chunks[4] = {&blobs->table_chunks, &blobs->index_chunks, &blobs->key_chunks,
                                                   &blobs->data_chunks};
    for (int i = 0; i < 4; ++i) {
        write_blob(staging.file(i), *chunks[i]);
    }
    mode_t mask = ::umask(0);
    ::umask(mask);
    ::chmod(staging.path.c_str(), 0777 & ~mask);
    sync_path(staging.path, O_RDONLY | O_DIRECTORY);

    // The one rename that makes the new index visible: a plain rename when
    // there is nothing to replace, an exchange of the two directories when
    // there is (then the old one, now under the staging name, goes).
    if (!output_exists) {
        if (::rename(staging.path.c_str(), options.output.c_str()) != 0) {
            throw ToolError(EXIT_DATA, options.output + ": " + std::strerror(errno));
        }
        staging.committed = true;
    } else if (::renameat2(AT_FDCWD, staging.path.c_str(), AT_FDCWD, options.output.c_str(), RENAME_EXCHANGE) == 0) {
        // The staging path now holds the old index; ~Staging removes it.
    } else {
        throw ToolError(EXIT_DATA, options.output + ": cannot swap the new index in: " + std::strerror(errno));
    }
    sync_path(parent_of(options.output), O_RDONLY | O_DIRECTORY);
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
    std::printf("  merged    %s\n", with_thousands(settled.merged).c_str());
    for (const char* name : BLOB_NAMES) {
        off_t size = file_size(options.output + "/" + name);
        std::printf("  %-9s %s (%s bytes)\n", name, human_bytes(size).c_str(), with_thousands(size).c_str());
    }
    std::printf("  time      %.2f s\n", seconds);
    return EXIT_OK;
}

}  // namespace quorvex_tool
