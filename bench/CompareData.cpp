#include "CompareData.h"

#include <algorithm>
#include <cstring>
#include <numeric>
#include <random>
#include <set>
#include <unordered_map>
#include <stdexcept>
#include <utility>

#include "Format.h"
#include "ItemSources.h"
#include "Writer/IndexBuilder.h"

namespace Lexarium::Bench::Compare {

namespace {

constexpr uint64_t MAX_KEYWORD_CODE_POINTS = 6;
constexpr uint64_t MIN_ABSENT_CODE_POINTS = 3;

// Uniform in [0, n), by rejection, so the keywords depend only on
// mt19937_64 and not on the standard library's distributions.
uint64_t below(std::mt19937_64& rng, uint64_t n) {
    uint64_t threshold = (0 - n) % n;
    uint64_t x;
    do {
        x = rng();
    } while (x < threshold);
    return x % n;
}

// Byte offsets of the code points of `text`, then text.size().
std::vector<size_t> code_point_starts(const std::string& text) {
    std::vector<size_t> starts;
    for (size_t i = 0; i < text.size(); ++i) {
        if (!is_continuation_byte(text[i])) {
            starts.push_back(i);
        }
    }
    starts.push_back(text.size());
    return starts;
}

// A random piece of `text` of `length` code points (at most the text's).
std::string random_piece(std::mt19937_64& rng, const std::string& text, uint64_t length) {
    std::vector<size_t> starts = code_point_starts(text);
    uint64_t code_points = starts.size() - 1;
    length = std::min(length, code_points);
    uint64_t first = below(rng, code_points - length + 1);
    return text.substr(starts[first], starts[first + length] - starts[first]);
}

}  // namespace

size_t code_point_count(std::string_view text) {
    return static_cast<size_t>(
        std::count_if(text.begin(), text.end(), [](char byte) { return !is_continuation_byte(byte); }));
}

std::string stored_key(const std::string& key) {
    if (key.size() <= Format::MAX_STORED_KEY_BYTES) {
        return key;
    }
    size_t end = Format::MAX_STORED_KEY_BYTES;
    while (end > 0 && is_continuation_byte(key[end])) {
        --end;
    }
    return key.substr(0, end);
}

Dictionary make_dictionary(std::string name, std::vector<std::string> keys, std::vector<std::string> values) {
    if (keys.size() != values.size()) {
        throw std::logic_error("as many keys as values expected");
    }
    std::vector<size_t> order(keys.size());
    std::iota(order.begin(), order.end(), size_t{0});
    // std::string compares as unsigned bytes, like the writer's std::map.
    std::sort(order.begin(), order.end(), [&](size_t a, size_t b) { return keys[a] < keys[b]; });
    Dictionary dictionary;
    dictionary.name = std::move(name);
    dictionary.keys.reserve(keys.size());
    dictionary.values.reserve(keys.size());
    dictionary.stored.reserve(keys.size());
    for (size_t i : order) {
        if (!dictionary.keys.empty() && dictionary.keys.back() == keys[i]) {
            throw std::logic_error("duplicate key " + keys[i]);
        }
        dictionary.key_bytes += keys[i].size();
        dictionary.value_bytes += values[i].size();
        dictionary.stored.push_back(stored_key(keys[i]));
        dictionary.keys.push_back(std::move(keys[i]));
        dictionary.values.push_back(std::move(values[i]));
    }
    return dictionary;
}

Dictionary load_dictd(const std::string& index_path) {
    std::vector<quorvex_tool::SourceItem> read;
    std::vector<quorvex_tool::Problem> problems;
    try {
        quorvex_tool::SourceFacts facts;
        quorvex_tool::read_items(index_path, quorvex_tool::InputFormat::Dictd, read, problems, facts, [](uint64_t) {});
    } catch (const quorvex_tool::InputError& error) {
        throw std::runtime_error(error.what());
    }
    quorvex_tool::PreparedItems prepared = quorvex_tool::prepare_items(std::move(read), std::move(problems), "merge");
    if (!prepared.fatal.empty()) {
        throw std::logic_error("the merge policy refused an item");
    }

    // The values of one key merged as the tool merges them; a key whose
    // merged value would not fit is refused, as the tool refuses it.
    std::vector<std::string> keys;
    std::vector<std::string> values;
    std::unordered_map<std::string, size_t> first_of_key;
    size_t merged = 0;
    for (quorvex_tool::SourceItem& item : prepared.items) {
        auto [at, fresh] = first_of_key.emplace(item.key, keys.size());
        if (fresh) {
            keys.push_back(std::move(item.key));
            values.push_back(std::move(item.value));
            continue;
        }
        std::string joined = values[at->second];
        Writer::append_article(joined, item.value);
        if (joined.size() <= Format::MAX_VALUE_BYTES) {
            values[at->second] = std::move(joined);
            ++merged;
        } else {
            prepared.invalid.push_back({item.location, "merged value too large"});
        }
    }
    std::vector<quorvex_tool::SourceItem>().swap(prepared.items);

    std::string name = index_path.substr(index_path.find_last_of('/') + 1);
    if (name.size() > 6 && name.compare(name.size() - 6, 6, ".index") == 0) {
        name.resize(name.size() - 6);
    }
    Dictionary dictionary = make_dictionary(name, std::move(keys), std::move(values));
    dictionary.invalid = prepared.invalid.size();
    dictionary.merged = prepared.merged + merged;
    return dictionary;
}

std::vector<Keyword> present_keywords(const std::vector<std::string>& stored, size_t count, uint64_t seed) {
    if (stored.empty()) {
        throw std::logic_error("no keys to take keywords from");
    }
    std::mt19937_64 rng(seed);
    std::vector<Keyword> keywords;
    keywords.reserve(count);
    for (size_t i = 0; i < count; ++i) {
        const std::string& key = stored[below(rng, stored.size())];
        uint64_t length = 1 + below(rng, MAX_KEYWORD_CODE_POINTS);
        Keyword keyword;
        keyword.text = random_piece(rng, key, length);
        keyword.code_points = code_point_count(keyword.text);
        keywords.push_back(std::move(keyword));
    }
    return keywords;
}

std::vector<Keyword> absent_keywords(const std::vector<std::string>& keys, size_t count, uint64_t seed) {
    // All keys NUL-joined: a keyword holds no NUL, so a hit in the joined
    // text is a hit inside one key.
    std::string joined;
    for (const std::string& key : keys) {
        joined += key;
        joined += '\0';
    }
    std::mt19937_64 rng(seed);
    std::set<std::string> chosen;
    std::vector<Keyword> keywords;
    for (size_t tries = 0; keywords.size() < count; ++tries) {
        if (tries > 1000 * count) {
            throw std::runtime_error("cannot find " + std::to_string(count) + " keywords that no key holds");
        }
        uint64_t length = MIN_ABSENT_CODE_POINTS + below(rng, MAX_KEYWORD_CODE_POINTS - MIN_ABSENT_CODE_POINTS + 1);
        std::string piece = random_piece(rng, keys[below(rng, keys.size())], length);
        std::string donor = random_piece(rng, keys[below(rng, keys.size())], 1);
        std::vector<size_t> starts = code_point_starts(piece);
        if (starts.size() - 1 < MIN_ABSENT_CODE_POINTS) {
            continue;  // the key was too short
        }
        size_t replaced = below(rng, starts.size() - 1);
        piece.replace(starts[replaced], starts[replaced + 1] - starts[replaced], donor);
        if (chosen.count(piece) != 0 ||
            memmem(joined.data(), joined.size(), piece.data(), piece.size()) != nullptr) {
            continue;
        }
        chosen.insert(piece);
        Keyword keyword;
        keyword.text = piece;
        keyword.code_points = code_point_count(piece);
        keyword.kind = KeywordKind::Absent;
        keywords.push_back(std::move(keyword));
    }
    return keywords;
}

}  // namespace Lexarium::Bench::Compare
