#ifndef QUORVEX_WRITER_INDEX_DIRECTORY_H
#define QUORVEX_WRITER_INDEX_DIRECTORY_H

#include <string>

#include "Export.h"
#include "Writer/IndexWriter.h"

namespace Lexarium::Writer {

// How write_index_directory() puts an index in place.
struct DirectoryOptions {
    // Replace an existing index directory (one that holds nothing but the
    // four files, or nothing). Without it an existing path is refused.
    bool replace = false;
    // Called with the staging directory's path once it exists, and with
    // null once it has been renamed into place or removed: a program that
    // wants it removed on SIGINT keeps the path for its signal handler.
    // May be null.
    void (*staging_hook)(const char* staging, void* context) = nullptr;
    void* hook_context = nullptr;
};

// Makes ready to write an index at `directory`: creates the missing
// directories above it, removes the staging directories that killed
// writers left beside it (those no living writer holds), and checks that it
// does not exist or, with `replace`, is an index directory. Returns false
// with a message naming the path and the reason (the system's text where
// the system refused) when it cannot be written there. Trailing slashes of
// `directory` are ignored. Never throws but std::bad_alloc.
QUORVEX_API bool prepare_index_directory(const std::string& directory, bool replace, std::string* error);

// Writes the four blobs of `blobs` to `directory` atomically: into a new
// staging directory beside it ("<directory>.quorvex-new-XXXXXX", held with
// an exclusive flock while in use), each file flushed to disk, then renamed
// into place in one step (exchanged with the old index when replacing, the
// old one then removed). Readers see the old index or the whole new one,
// never a part. Calls prepare_index_directory() first. On failure nothing
// is left behind and the message names the file and the system's reason
// ("data.bin: cannot write: No space left on device"). Never throws but
// std::bad_alloc; installs no signal handler.
QUORVEX_API bool write_index_directory(const _IndexData& blobs, const std::string& directory,
                                       const DirectoryOptions& options, std::string* error);

}  // namespace Lexarium::Writer

#endif
