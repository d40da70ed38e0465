#ifndef QUORVEX_WRITER_INDEX_BUILDER_H
#define QUORVEX_WRITER_INDEX_BUILDER_H

#include <string>
#include <unordered_map>
#include <vector>

#include "IndexDescription.h"
#include "Writer/IndexWriter.h"

namespace Lexarium::Writer {

// How an IndexBuilder lays its items out.
struct IndexSettings {
    // Folded (the default): keys are stored folded (see Fold.h), and the
    // items whose keys fold alike share one entry whose value lists every
    // original key with its value, in input order (docs/FORMAT.md).
    // Exact: keys and values are stored as they are, one entry per key.
    bool folded = true;
    // Free fields ("name", "description", "source", "tool", ...); the
    // builder adds "folding" and "items".
    IndexDescription description;
    // Merge the values of items that have the same key (byte for byte):
    // the later value joins the earlier one's with one blank line between
    // them, as dictionary articles of one headword are joined. Without it,
    // a later item replaces an earlier one in an exact index, and both stay
    // side by side in an entry of a folded index.
    bool merge_duplicates = false;
};

// Joins `next` to `joined` with one blank line between them, as the values
// of one key are merged (IndexSettings::merge_duplicates).
QUORVEX_API void append_article(std::string& joined, const std::string& next);

// IndexBuilder: checks items as they come and puts them into an IndexWriter
// as an index that describes itself (the value of its empty key), folded or
// exact. Unlike the plain writer it never stops the process over an item:
// whatever cannot go in comes back as a message.
//
// Call order: construct, add any number of times, then fill one fresh
// IndexWriter once and build or write with it. fill hands the items' bytes
// over to the writer, so a builder fills one writer only.
class QUORVEX_API IndexBuilder {
public:
    explicit IndexBuilder(IndexSettings settings = IndexSettings());

    // Checks the item and keeps it. Returns "" when it goes in; otherwise
    // why not, and nothing is kept: an empty key, a key that is not UTF-8 or
    // holds a character outside U+0001..U+FFFE, a key of more than 254
    // bytes, a folded key that is empty or longer than 254 bytes (folding
    // can grow a key: "㌀" becomes four kana), a value of more than 65534 bytes
    // (in a folded index, 65531 less the key's bytes when folding changed
    // the key, as the entry keeps the key beside the value).
    // A later item with the key of an earlier one is merged into it (see
    // IndexSettings::merge_duplicates), refused when the joined value would
    // not fit.
    std::string add(std::string key, std::string value);

    // The items kept so far, and how many more were merged into them.
    size_t item_count() const { return this->items.size(); }
    size_t merged_count() const { return this->merged; }

    // Puts the entries and the description into `writer`, which must hold
    // nothing yet. Returns "" or, when the items that share a folded key
    // hold more than an entry can (65534 bytes with their keys), a message
    // naming those keys; `writer` is then unfit to build.
    std::string fill(IndexWriter& writer);

private:
    struct Item {
        std::string key;
        std::string folded;  // empty in an exact index
        std::string value;
    };

    std::string value_problem(const Item& item, size_t size, const char* what) const;
    std::string merge(Item& earlier, const std::string& value);
    std::string add_entry(IndexWriter& writer, const std::string& key, const std::vector<size_t>& group);

    IndexSettings settings;
    std::vector<Item> items;
    std::unordered_map<std::string, size_t> first_of_key;  // with merge_duplicates only
    size_t merged = 0;
};

}  // namespace Lexarium::Writer

#endif
