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

IndexFiles read_index_files(const std::string& directory) {
    struct stat status;
    if (::stat(directory.c_str(), &status) != 0) {
        throw ToolError(EXIT_DATA, directory + ": " + std::strerror(errno));
    }
    if (!S_ISDIR(status.st_mode)) {
        throw ToolError(EXIT_DATA, directory + ": not a directory; expected an index directory");
    }
    IndexFiles files;
    files.directory = directory;
    files.table = read_blob(directory + "/table.bin");
    files.index = read_blob(directory + "/index.bin");
    files.key = read_blob(directory + "/key.bin");
    files.data = read_blob(directory + "/data.bin");
    return files;
}

IndexFiles load_checked_index(const std::string& directory, bool deep) {
    IndexFiles files = read_index_files(directory);
    files.verification = Lexarium::IndexVerifier::verify(*files.table, *files.index, *files.key, *files.data, deep);
    if (!files.verification.is_sound()) {
        throw ToolError(EXIT_DATA, directory + ": the index is damaged (" +
                                       std::to_string(files.verification.problem_count) + " problems; run quorvex verify " +
                                       directory + " for all of them)\n" + describe_problems(files, 3));
    }
    return files;
}

std::string describe_problems(const IndexFiles& files, size_t limit) {
    std::string text;
    size_t shown = 0;
    for (const Lexarium::IndexProblem& problem : files.verification.problems) {
        if (shown++ == limit) {
            break;
        }
        if (!text.empty()) {
            text += '\n';
        }
        text += files.directory + "/" + problem.blob + ": offset " + std::to_string(problem.offset) + ": " +
                problem.message;
    }
    return text;
}

}  // namespace quorvex_tool
