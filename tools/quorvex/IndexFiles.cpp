#include "IndexFiles.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>

namespace quorvex_tool {

namespace {

Rc<ByteArray> read_blob(const std::string& path) {
    struct stat status;
    if (::stat(path.c_str(), &status) != 0) {
        throw ToolError(EXIT_DATA, path + ": " + std::strerror(errno) + " (not a complete Quorvex index)");
    }
    if (!S_ISREG(status.st_mode)) {
        throw ToolError(EXIT_DATA, path + ": not a regular file");
    }
    if (static_cast<uint64_t>(status.st_size) > UINT32_MAX) {
        throw ToolError(EXIT_DATA, path + ": larger than 4 GiB, which no index blob can be");
    }
    FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) {
        throw ToolError(EXIT_DATA, path + ": " + std::strerror(errno));
    }
    Rc<ByteArray> bytes(new ByteArray(static_cast<uint32_t>(status.st_size)));
    size_t done = 0;
    while (done < bytes->length) {
        size_t count = std::fread(bytes->data + done, 1, bytes->length - done, file);
        if (count == 0) {
            std::fclose(file);
            throw ToolError(EXIT_DATA, path + ": could not be read whole");
        }
        done += count;
    }
    std::fclose(file);
    return bytes;
}

}  // namespace

namespace {

void check_is_directory(const std::string& directory) {
    struct stat status;
    if (::stat(directory.c_str(), &status) != 0) {
        throw ToolError(EXIT_DATA, directory + ": " + std::strerror(errno));
    }
    if (!S_ISDIR(status.st_mode)) {
        throw ToolError(EXIT_DATA, directory + ": not a directory; expected an index directory");
    }
}

}  // namespace

Rc<Lexarium::Reader::IndexReader> open_index(const std::string& directory) {
    check_is_directory(directory);
    std::string error;
    Rc<Lexarium::Reader::IndexReader> reader = Lexarium::Reader::IndexReader::from_directory_mapped(directory, &error);
    if (reader.is_null()) {
        throw ToolError(EXIT_DATA, error + " (run quorvex verify " + directory + " for a full report)");
    }
    return reader;
}

void check_damage(const Lexarium::Reader::IndexReader& reader, const std::string& directory) {
    Lexarium::Reader::IndexReader::Damage damage = reader.damage_passed_over();
    const std::pair<uint64_t, const char*> files[] = {
        {damage.table, "table.bin: a posting list runs past index.bin"},
        {damage.index, "index.bin: a posting entry points past key.bin"},
        {damage.key, "key.bin: a key record runs past key.bin or points past data.bin"},
        {damage.data, "data.bin: a value record runs past data.bin"}};
    for (const auto& file : files) {
        if (file.first > 0) {
            throw ToolError(EXIT_DATA, directory + "/" + file.second + " (" + std::to_string(file.first) +
                                           " record(s) passed over; the index is damaged: run quorvex verify " +
                                           directory + ")");
        }
    }
}

IndexFiles read_index_files(const std::string& directory) {
    check_is_directory(directory);
    IndexFiles files;
    files.directory = directory;
    files.table = read_blob(directory + "/table.bin");
    files.index = read_blob(directory + "/index.bin");
    files.key = read_blob(directory + "/key.bin");
    files.data = read_blob(directory + "/data.bin");
    return files;
}

}  // namespace quorvex_tool
