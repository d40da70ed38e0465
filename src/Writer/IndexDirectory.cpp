#include "Writer/IndexDirectory.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <set>
#include <stdexcept>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace Lexarium::Writer {

namespace {

// The four files, then the optional suffix.bin.
const char* const BLOB_NAMES[] = {"table.bin", "index.bin", "key.bin", "data.bin", "suffix.bin"};

// A failure on the way; caught at the two entry points and turned into their
// message.
struct DirectoryError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

[[noreturn]] void fail(const std::string& path, const std::string& what, int error_number) {
    throw DirectoryError(path + ": " + what + ": " + std::strerror(error_number));
}

std::string without_trailing_slashes(std::string path) {
    while (path.size() > 1 && path.back() == '/') {
        path.pop_back();
    }
    return path;
}

std::string parent_of(const std::string& path) {
    size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

// Removes an index directory: its four files, then the directory.
void remove_index_directory(const std::string& directory) {
    for (const char* name : BLOB_NAMES) {
        ::unlink((directory + "/" + name).c_str());
    }
    ::rmdir(directory.c_str());
}

void make_parents(const std::string& directory) {
    for (size_t slash = directory.find('/', 1); slash != std::string::npos; slash = directory.find('/', slash + 1)) {
        std::string parent = directory.substr(0, slash);
        if (::mkdir(parent.c_str(), 0777) != 0 && errno != EEXIST) {
            fail(parent, "cannot create the directory", errno);
        }
    }
}

// Removes the staging directories beside `directory` that writers killed
// before they could (SIGKILL, a power cut) left behind: those of this
// naming that no living writer holds.
void remove_stale(const std::string& directory) {
    size_t slash = directory.find_last_of('/');
    std::string parent = parent_of(directory);
    std::string prefix = directory.substr(slash == std::string::npos ? 0 : slash + 1) + ".quorvex-new-";
    DIR* listing = ::opendir(parent.c_str());
    if (listing == nullptr) {
        return;
    }
    while (dirent* entry = ::readdir(listing)) {
        std::string name = entry->d_name;
        if (name.size() != prefix.size() + 6 || name.compare(0, prefix.size(), prefix) != 0) {
            continue;
        }
        std::string stale = parent + "/" + name;
        int lock = ::open(stale.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW);
        if (lock >= 0 && ::flock(lock, LOCK_EX | LOCK_NB) == 0) {
            remove_index_directory(stale);
        }
        if (lock >= 0) {
            ::close(lock);
        }
    }
    ::closedir(listing);
}

// Only an index directory (or an empty one) may be replaced: replacing never
// deletes anything else.
void check_replaceable(const std::string& directory) {
    DIR* listing = ::opendir(directory.c_str());
    if (listing == nullptr) {
        throw DirectoryError(directory + ": exists and is not a directory; refusing to replace it");
    }
    std::set<std::string> allowed(std::begin(BLOB_NAMES), std::end(BLOB_NAMES));
    std::string stranger;
    while (dirent* entry = ::readdir(listing)) {
        std::string name = entry->d_name;
        if (name != "." && name != ".." && allowed.count(name) == 0) {
            stranger = name;
            break;
        }
    }
    ::closedir(listing);
    if (!stranger.empty()) {
        throw DirectoryError(directory + ": holds " + stranger +
                             ", so it is not a Quorvex index directory; refusing to replace it");
    }
}

// Returns whether `directory` exists, after the checks of
// prepare_index_directory().
bool prepare(const std::string& directory, bool replace) {
    if (directory.empty()) {
        throw DirectoryError("an index directory needs a path");
    }
    make_parents(directory);
    remove_stale(directory);
    struct stat status;
    bool exists = ::lstat(directory.c_str(), &status) == 0;
    if (exists && S_ISLNK(status.st_mode)) {
        throw DirectoryError(directory + ": is a symbolic link; give the directory itself");
    }
    if (exists && !replace) {
        throw DirectoryError(directory + ": already exists");
    }
    if (exists) {
        check_replaceable(directory);
    }
    return exists;
}

void sync_path(const std::string& path, int flags) {
    int descriptor = ::open(path.c_str(), flags | O_CLOEXEC);
    if (descriptor < 0 || ::fsync(descriptor) != 0) {
        int error_number = errno;
        if (descriptor >= 0) {
            ::close(descriptor);
        }
        fail(path, "cannot flush to disk", error_number);
    }
    ::close(descriptor);
}

// Writes one blob and flushes it to disk, each failure named with the
// system's reason (a full disk is "No space left on device", whether the
// write, the flush or the close finds it).
void write_blob(const std::string& path, const std::vector<Rc<ByteArray>>& chunks) {
    int descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    auto failed = [&](const char* what) {
        int error_number = errno;
        if (descriptor >= 0) {
            ::close(descriptor);
        }
        fail(path, std::string("cannot ") + what, error_number);
    };
    if (descriptor < 0) {
        failed("create");
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
                failed("write");
            }
            done += static_cast<uint32_t>(written);
        }
    }
    if (::fsync(descriptor) != 0) {
        failed("flush to disk");
    }
    int closed = ::close(descriptor);
    descriptor = -1;
    if (closed != 0) {
        failed("close");
    }
}

// The staging directory of one write: removed again unless it was renamed
// into place, and locked while it lives so that no other writer takes it
// for a killed one's.
class Staging {
public:
    Staging(const std::string& directory, const DirectoryOptions& options) : options(options) {
        std::string pattern = directory + ".quorvex-new-XXXXXX";
        std::vector<char> buffer(pattern.begin(), pattern.end());
        buffer.push_back('\0');
        if (::mkdtemp(buffer.data()) == nullptr) {
            fail(directory, "cannot create a directory beside it", errno);
        }
        this->path = buffer.data();
        this->lock = ::open(this->path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (this->lock >= 0) {
            ::flock(this->lock, LOCK_EX);
        }
        if (options.staging_hook != nullptr) {
            options.staging_hook(this->path.c_str(), options.hook_context);
        }
    }

    ~Staging() {
        if (!this->committed) {
            remove_index_directory(this->path);
        }
        if (this->lock >= 0) {
            ::close(this->lock);
        }
        if (this->options.staging_hook != nullptr) {
            this->options.staging_hook(nullptr, this->options.hook_context);
        }
    }

    Staging(const Staging&) = delete;
    Staging& operator=(const Staging&) = delete;

    std::string file(int i) const { return this->path + "/" + BLOB_NAMES[i]; }

    std::string path;
    bool committed = false;

private:
    const DirectoryOptions& options;
    int lock = -1;
};

void write_directory(const _IndexData& blobs, const std::string& directory, const DirectoryOptions& options) {
    bool exists = prepare(directory, options.replace);
    Staging staging(directory, options);
    const std::vector<Rc<ByteArray>>* chunks[5] = {&blobs.table_chunks, &blobs.index_chunks, &blobs.key_chunks,
                                                   &blobs.data_chunks, &blobs.suffix_chunks};
    for (int i = 0; i < 5; ++i) {
        if (i < 4 || !blobs.suffix_chunks.empty()) {
            write_blob(staging.file(i), *chunks[i]);
        }
    }
    // mkdtemp makes the directory private; an index is as readable as the
    // files a plain mkdir would give.
    mode_t mask = ::umask(0);
    ::umask(mask);
    ::chmod(staging.path.c_str(), 0777 & ~mask);
    sync_path(staging.path, O_RDONLY | O_DIRECTORY);

    // The one rename that makes the new index visible: a plain rename when
    // there is nothing to replace, an exchange of the two directories when
    // there is (then the old one, now under the staging name, goes).
    if (!exists) {
        if (::rename(staging.path.c_str(), directory.c_str()) != 0) {
            fail(directory, "cannot rename the new index into place", errno);
        }
        staging.committed = true;
    } else if (::renameat2(AT_FDCWD, staging.path.c_str(), AT_FDCWD, directory.c_str(), RENAME_EXCHANGE) != 0) {
        fail(directory, "cannot swap the new index in", errno);
    }
    sync_path(parent_of(directory), O_RDONLY | O_DIRECTORY);
}

bool report(const DirectoryError& failure, std::string* error) {
    if (error != nullptr) {
        *error = failure.what();
    }
    return false;
}

}  // namespace

bool prepare_index_directory(const std::string& directory, bool replace, std::string* error) {
    try {
        prepare(without_trailing_slashes(directory), replace);
        return true;
    } catch (const DirectoryError& failure) {
        return report(failure, error);
    }
}

bool write_index_directory(const _IndexData& blobs, const std::string& directory, const DirectoryOptions& options,
                           std::string* error) {
    try {
        write_directory(blobs, without_trailing_slashes(directory), options);
        return true;
    } catch (const DirectoryError& failure) {
        return report(failure, error);
    }
}

}  // namespace Lexarium::Writer
