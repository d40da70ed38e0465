#ifndef QUORVEX_TOOL_ITEM_SOURCES_H
#define QUORVEX_TOOL_ITEM_SOURCES_H

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace quorvex_tool {

// Where something came from: a file and a 1-based line.
struct Location {
    std::string file;
    uint64_t line = 0;
};

// One item as read from an input, before any check.
struct SourceItem {
    std::string key;
    std::string value;
    Location location;
};

// Something wrong with one line of an input.
struct Problem {
    Location location;
    std::string reason;
};

enum class InputFormat { Tsv, Jsonl, Dictd };

// The format named by `name` ("tsv", "jsonl", "dictd").
InputFormat parse_format(const std::string& name);

// The format a file name suggests: .tsv/.txt, .jsonl/.ndjson, .index. Throws
// std::invalid_argument when it suggests none.
InputFormat format_of_file(const std::string& path);

// An input that cannot be read at all (missing file, missing .dict, ...).
class InputError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// What an input says about itself: for dictd, the articles of its
// 00-database-short and 00-database-info entries.
struct SourceFacts {
    std::string name;
    std::string description;
};

// Reads every item of `path`. Lines that do not parse become problems; the
// rest become items, in input order. `on_progress` is called now and then
// with the number of items read so far.
void read_items(const std::string& path, InputFormat format, std::vector<SourceItem>& items,
                std::vector<Problem>& problems, SourceFacts& facts,
                const std::function<void(uint64_t)>& on_progress);

// Why `item` cannot go into an index, or "" when it can: an empty key, a key
// that is not UTF-8, holds a character outside U+0001..U+FFFE or more than
// 254 characters; a value of more than 65534 bytes.
std::string check_item(const SourceItem& item);

// The items of an input made ready for a writer: checked one by one, then
// one item per key by the duplicates `policy` ("last" keeps the last,
// "error" refuses; "merge" leaves them to IndexSettings::merge_duplicates). `invalid` holds the items that cannot go into an index (with the
// problems read_items found), sorted by line; `fatal` the duplicates that
// "error" refuses.
struct PreparedItems {
    std::vector<SourceItem> items;
    std::vector<Problem> invalid;
    std::vector<Problem> fatal;
    uint64_t merged = 0;  // items folded into an earlier one with the same key
};

PreparedItems prepare_items(std::vector<SourceItem>&& read, std::vector<Problem>&& read_problems,
                            const std::string& policy);

// Largest value an index stores.
constexpr size_t MAX_VALUE_BYTES = 65534;

}  // namespace quorvex_tool

#endif
