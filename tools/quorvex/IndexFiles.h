#ifndef QUORVEX_TOOL_INDEX_FILES_H
#define QUORVEX_TOOL_INDEX_FILES_H

#include <stdexcept>
#include <string>

#include <IndexVerifier.h>
#include <Reader/IndexReader.h>
#include <TypeDefinitions.h>

namespace quorvex_tool {

constexpr int EXIT_OK = 0;
constexpr int EXIT_DATA = 1;   // bad data, a damaged or missing index, a failed write
constexpr int EXIT_USAGE = 2;  // the command line itself is wrong

// A failure that ends the command with `exit_code`; what() is the message,
// printed as "quorvex: <what>".
class ToolError : public std::runtime_error {
public:
    ToolError(int exit_code_, const std::string& message) : std::runtime_error(message), exit_code(exit_code_) {}
    int exit_code;
};

// A ToolError (EXIT_DATA) unless `directory` is a directory.
void check_is_directory(const std::string& directory);

// A mapped reader over the index in `directory`, with the reader's checks
// (table.bin whole, every other record where a search reaches it). A
// missing directory or file, or one the reader refuses, is a ToolError
// (EXIT_DATA) naming it. Nothing is read whole and nothing can abort.
Rc<Lexarium::Reader::IndexReader> open_index(const std::string& directory);

// The records `reader`'s searches passed over as damaged, as a ToolError
// (EXIT_DATA) naming the file at fault; nothing when there were none.
void check_damage(const Lexarium::Reader::IndexReader& reader, const std::string& directory);

}  // namespace quorvex_tool

#endif
