#include "Writer/IndexBuilder.h"

#include <algorithm>
#include <cstring>
#include <numeric>

#include "Fold.h"
#include "Records.h"
#include "Utf8.h"

namespace Lexarium::Writer {

namespace {

// Why `key` cannot be stored in key.bin, or "".
std::string storable_key_problem(const std::string& key, const char* what) {
    if (key.size() > Format::MAX_STORED_KEY_BYTES) {
        return std::string(what) + " has " + std::to_string(key.size()) + " bytes; at most " +
               std::to_string(Format::MAX_STORED_KEY_BYTES) + " can be stored";
    }
    std::vector<uint32> characters;
    if (!Utf8::decode_indexable(reinterpret_cast<const uint8*>(key.data()), key.size(), characters)) {
        return std::string(what) + " holds a character outside U+0001..U+FFFE";
    }
    return std::string();
}

Rc<ByteArray> array_of(const std::string& bytes) {
    Rc<ByteArray> array(new ByteArray(static_cast<uint32>(bytes.size())));
    if (!bytes.empty()) {
        std::memcpy(array->data, bytes.data(), bytes.size());
    }
    return array;
}

}  // namespace

void append_article(std::string& joined, const std::string& next) {
    if (!joined.empty() && joined.back() != '\n') {
        joined += '\n';
    }
    joined += '\n';
    joined += next;
}

IndexBuilder::IndexBuilder(IndexSettings settings) : settings(std::move(settings)) {}

std::string IndexBuilder::add(std::string key, std::string value) {
    if (key.empty()) {
        return "the key is empty";
    }
    std::vector<uint32> characters;
    if (!Utf8::decode_well_formed(reinterpret_cast<const uint8*>(key.data()), key.size(), characters)) {
        return "the key is not valid UTF-8";
    }
    std::string problem = storable_key_problem(key, "the key");
    if (!problem.empty()) {
        return problem;
    }
    Item item{std::move(key), std::string(), std::move(value)};
    if (this->settings.folded) {
        fold(item.key, &item.folded);  // the key is well-formed: folding succeeds
        if (item.folded.empty()) {
            return "the key folds to nothing (it is all white space or marks)";
        }
        problem = storable_key_problem(item.folded, ("the key folds to \"" + item.folded + "\", which").c_str());
        if (!problem.empty()) {
            return problem;
        }
    }
    if (this->settings.merge_duplicates) {
        auto earlier = this->first_of_key.find(item.key);
        if (earlier != this->first_of_key.end()) {
            return this->merge(this->items[earlier->second], item.value);
        }
    }
    problem = this->value_problem(item, item.value.size(), "the value has ");
    if (!problem.empty()) {
        return problem;
    }
    if (this->settings.merge_duplicates) {
        this->first_of_key.emplace(item.key, this->items.size());
    }
    this->items.push_back(std::move(item));
    return std::string();
}

// Why a value of `size` bytes cannot go beside `item`'s key, or "".
std::string IndexBuilder::value_problem(const Item& item, size_t size, const char* what) const {
    size_t room = Format::MAX_VALUE_BYTES;
    if (this->settings.folded) {
        // The entry keeps the original key beside the value.
        size_t kept_key = item.key == item.folded ? 0 : item.key.size();
        room = Format::MAX_VALUE_BYTES - Records::Pair::HEADER_SIZE - kept_key;
    }
    if (size <= room) {
        return std::string();
    }
    return what + std::to_string(size) + " bytes; at most " + std::to_string(room) + " can be stored" +
           (room < Format::MAX_VALUE_BYTES ? " beside its key in a folded index" : "");
}

// Joins `value` to the earlier item's value with one blank line between
// them, as dictionary articles of one headword are joined.
std::string IndexBuilder::merge(Item& earlier, const std::string& value) {
    std::string joined = earlier.value;
    append_article(joined, value);
    std::string problem = this->value_problem(earlier, joined.size(), "merged with the earlier value of its key, it has ");
    if (!problem.empty()) {
        return problem;
    }
    earlier.value = std::move(joined);
    ++this->merged;
    return std::string();
}

std::string IndexBuilder::fill(IndexWriter& writer) {
    IndexDescription description = this->settings.description;
    description.set("folding", std::to_string(this->settings.folded ? FOLDING_VERSION : 0));
    description.set("items", std::to_string(this->items.size()));
    writer.add_word("", array_of(description.encode()));

    if (!this->settings.folded) {
        for (Item& item : this->items) {
            writer.add_word(item.key, array_of(item.value));
            std::string().swap(item.value);
        }
        return std::string();
    }
    // Items of one folded key, in input order.
    std::vector<size_t> order(this->items.size());
    std::iota(order.begin(), order.end(), 0);
    std::stable_sort(order.begin(), order.end(),
                     [this](size_t a, size_t b) { return this->items[a].folded < this->items[b].folded; });
    std::vector<size_t> group;
    for (size_t i = 0; i < order.size(); ++i) {
        group.push_back(order[i]);
        const std::string& key = this->items[order[i]].folded;
        if (i + 1 == order.size() || this->items[order[i + 1]].folded != key) {
            std::string problem = this->add_entry(writer, key, group);
            if (!problem.empty()) {
                return problem;
            }
            group.clear();
        }
    }
    return std::string();
}

// One entry of a folded index: its original items one after another, each
// an original key (none when it is the folded key itself) and a value.
std::string IndexBuilder::add_entry(IndexWriter& writer, const std::string& key, const std::vector<size_t>& group) {
    std::string packed;
    for (size_t index : group) {
        const Item& item = this->items[index];
        bool same = item.key == key;
        Records::Pair::encode_to(packed, reinterpret_cast<const uint8*>(item.key.data()),
                                 static_cast<uint8>(same ? 0 : item.key.size()),
                                 reinterpret_cast<const uint8*>(item.value.data()),
                                 static_cast<uint16>(item.value.size()));
    }
    if (packed.size() > Format::MAX_VALUE_BYTES) {
        std::string keys;
        for (size_t n = 0; n < group.size() && n < 5; ++n) {
            keys += (n == 0 ? "\"" : ", \"") + this->items[group[n]].key + "\"";
        }
        return "the items with keys " + keys + (group.size() > 5 ? ", ..." : "") + " all fold to \"" + key +
               "\" and together hold " + std::to_string(packed.size()) + " bytes; one entry holds at most " +
               std::to_string(Format::MAX_VALUE_BYTES);
    }
    writer.add_word(key, array_of(packed));
    for (size_t index : group) {
        std::string().swap(this->items[index].value);
    }
    return std::string();
}

}  // namespace Lexarium::Writer
