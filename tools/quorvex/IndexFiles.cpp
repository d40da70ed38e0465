#include "IndexFiles.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>

namespace quorvex_tool {

void check_is_directory(const std::string& directory) {
    struct stat status;
    if (::stat(directory.c_str(), &status) != 0) {
        throw ToolError(EXIT_DATA, directory + ": " + std::strerror(errno));
    }
    if (!S_ISDIR(status.st_mode)) {
        throw ToolError(EXIT_DATA, directory + ": not a directory; expected an index directory");
    }
}

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

}  // namespace quorvex_tool
