#include "Assertions.h"
#include "Reader/MappedIndex.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <sys/mman.h>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>

namespace Lexarium::Reader {

bool RowDirectory::build(const uint8* blob, uint32 length, std::string& error) {
    this->table = blob;
    // The walk only notes each row (it runs on every open, 65535 times);
    // what went wrong is put into words afterwards.
    uint32 too_wide = Format::TABLE_ROW_COUNT;  // the first row of 255 cells
    Records::TableWalk walk =
        Records::walk_table(blob, length, [this, &too_wide](uint32 code_point, Records::Row row, uint64_t at) {
            this->offsets[code_point] = static_cast<uint32>(at);
            this->counts[code_point] = row.cells_count;
            if (row.cells_count > Format::MAX_CELLS_PER_ROW && too_wide == Format::TABLE_ROW_COUNT) {
                too_wide = code_point;
            }
        });
    if (too_wide != Format::TABLE_ROW_COUNT) {
        error = "table.bin: row " + std::to_string(too_wide) + " at offset " +
                std::to_string(this->offsets[too_wide]) + " has 255 cells; expected at most 254";
        return false;
    }
    if (!walk.complete) {
        error = "table.bin: ends inside row " + std::to_string(walk.stopped_row) + " at offset " +
                std::to_string(walk.end) + " (" + std::to_string(length) + " bytes); expected 65535 row records";
        return false;
    }
    if (walk.end != length) {
        error = "table.bin: " + std::to_string(length - walk.end) +
                " bytes after row 65534; expected the end of the file";
        return false;
    }
    return true;
}

namespace {

// What identifies a file's contents for as long as it is not changed in
// place: readers of the same four files share their mappings.
struct FileIdentity {
    dev_t device;
    ino_t inode;
    off_t size;
    time_t seconds;
    long nanoseconds;

    bool operator<(const FileIdentity& other) const {
        return std::tie(this->device, this->inode, this->size, this->seconds, this->nanoseconds) <
               std::tie(other.device, other.inode, other.size, other.seconds, other.nanoseconds);
    }
};

// The four files, then suffix.bin (all zero when there is none).
using IndexIdentity = std::tuple<FileIdentity, FileIdentity, FileIdentity, FileIdentity, FileIdentity>;

std::mutex shared_mutex;
std::map<IndexIdentity, std::weak_ptr<const MappedIndex>>* shared_indexes = nullptr;

// A file descriptor closed when it goes out of scope.
struct Descriptor {
    int fd = -1;
    ~Descriptor() {
        if (this->fd >= 0) {
            ::close(this->fd);
        }
    }
};

// Opens one file of the set without blocking (a FIFO in its place must not
// wait for a writer) and checks that it is a regular file a 32-bit offset
// can address.
bool open_file(const std::string& path, const char* name, Descriptor& descriptor, struct stat& status,
               std::string& error) {
    descriptor.fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (descriptor.fd < 0) {
        error = std::string(name) + ": " + std::strerror(errno);
        return false;
    }
    if (::fstat(descriptor.fd, &status) != 0) {
        error = std::string(name) + ": " + std::strerror(errno);
        return false;
    }
    if (!S_ISREG(status.st_mode)) {
        error = std::string(name) + ": " + (S_ISDIR(status.st_mode) ? "a directory" : "not a regular file") +
                "; expected an index file";
        return false;
    }
    if (static_cast<uint64_t>(status.st_size) > UINT32_MAX) {
        error = std::string(name) + ": " + std::to_string(status.st_size) +
                " bytes; an index file is smaller than 4 GiB";
        return false;
    }
    return true;
}

// An empty file is not mapped (mmap refuses a length of 0); its bytes are
// this, so that even an empty blob has an address.
uint8 no_bytes[1];

bool map_file(int fd, const struct stat& status, const char* name, MappedIndex::File& file, std::string& error) {
    file.length = static_cast<uint32>(status.st_size);
    if (file.length == 0) {
        file.data = no_bytes;
        return true;
    }
    void* address = ::mmap(nullptr, file.length, PROT_READ, MAP_SHARED, fd, 0);
    if (address == MAP_FAILED) {
        error = std::string(name) + ": " + std::strerror(errno);
        return false;
    }
    file.data = static_cast<uint8*>(address);
    file.mapped_length = file.length;
    return true;
}

FileIdentity identity_of(const struct stat& status) {
    return FileIdentity{status.st_dev, status.st_ino, status.st_size, status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
}

// As MappedIndex::open, with `error` naming the file but not the directory.
std::shared_ptr<const MappedIndex> open_unguarded(const std::string& directory, std::string& error) {
    const char* names[4] = {"table.bin", "index.bin", "key.bin", "data.bin"};
    const char* suffixes[4] = {Format::TABLE_FILE_NAME, Format::INDEX_FILE_NAME, Format::KEY_FILE_NAME,
                               Format::DATA_FILE_NAME};
    Descriptor descriptors[4];
    struct stat statuses[4];
    for (int i = 0; i < 4; ++i) {
        if (!open_file(directory + suffixes[i], names[i], descriptors[i], statuses[i], error)) {
            return nullptr;
        }
    }
    // suffix.bin may be missing; one that cannot be used is noted, not an
    // error: searches then go without it.
    Descriptor suffix_descriptor;
    struct stat suffix_status {};
    std::string suffix_problem;
    bool has_suffix = open_file(directory + Format::SUFFIX_FILE_NAME, "suffix.bin", suffix_descriptor,
                                suffix_status, suffix_problem);
    if (!has_suffix && errno == ENOENT) {
        suffix_problem.clear();
    }
    IndexIdentity identity{identity_of(statuses[0]), identity_of(statuses[1]), identity_of(statuses[2]),
                           identity_of(statuses[3]), has_suffix ? identity_of(suffix_status) : FileIdentity{}};
    std::lock_guard<std::mutex> lock(shared_mutex);
    if (shared_indexes == nullptr) {
        shared_indexes = new std::map<IndexIdentity, std::weak_ptr<const MappedIndex>>();
    }
    auto known = shared_indexes->find(identity);
    if (known != shared_indexes->end()) {
        if (std::shared_ptr<const MappedIndex> shared = known->second.lock()) {
            return shared;
        }
    }

    // Made with new, not make_shared: that would zero the row directory's
    // 320 KiB first, which build() fills anyway.
    std::shared_ptr<MappedIndex> mapped(new MappedIndex);
    MappedIndex::File* files[4] = {&mapped->table, &mapped->index, &mapped->key, &mapped->data};
    for (int i = 0; i < 4; ++i) {
        if (!map_file(descriptors[i].fd, statuses[i], names[i], *files[i], error)) {
            return nullptr;
        }
    }
    if (!mapped->rows.build(mapped->table.data, mapped->table.length, error)) {
        return nullptr;
    }
    if (mapped->index.length < Format::INDEX_SENTINEL_SIZE) {
        error = "index.bin: " + std::to_string(mapped->index.length) +
                " bytes; expected at least the 4-byte sentinel";
        return nullptr;
    }
    if (has_suffix && map_file(suffix_descriptor.fd, suffix_status, "suffix.bin", mapped->suffix, suffix_problem)) {
        mapped->suffixes =
            SuffixArray::open(mapped->suffix.data, mapped->suffix.length, mapped->key.length, &suffix_problem);
    }
    mapped->suffix_problem = suffix_problem;
    // Forget the readers that are gone, then remember this one.
    for (auto entry = shared_indexes->begin(); entry != shared_indexes->end();) {
        entry = entry->second.expired() ? shared_indexes->erase(entry) : std::next(entry);
    }
    (*shared_indexes)[identity] = mapped;
    return mapped;
}

}  // namespace

MappedIndex::~MappedIndex() {
    for (File* file : {&this->table, &this->index, &this->key, &this->data, &this->suffix}) {
        if (file->mapped_length != 0) {
            ::munmap(file->data, file->mapped_length);
        }
    }
}

std::shared_ptr<const MappedIndex> MappedIndex::open(const std::string& directory, std::string& error) noexcept {
    if (directory.empty()) {
        error = "empty path; expected an index directory";
        return nullptr;
    }
    try {
        std::shared_ptr<const MappedIndex> mapped = open_unguarded(directory, error);
        if (mapped == nullptr) {
            error = directory + "/" + error;
        }
        return mapped;
    } catch (...) {
        // Only allocations can fail here. The message fits the string's
        // own room, so setting it allocates nothing.
        error = "out of memory";
    }
    return nullptr;
}

}  // namespace Lexarium::Reader
