#include "ItemSources.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <fstream>
#include <map>
#include <memory>

#include <nlohmann/json.hpp>
#include <zlib.h>

#include "Text.h"

namespace quorvex_tool {

namespace {

bool ends_with(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

bool starts_with(const std::string& text, const std::string& prefix) { return text.compare(0, prefix.size(), prefix) == 0; }

std::string read_plain_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw InputError(path + ": " + std::strerror(errno));
    }
    std::string content((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad()) {
        throw InputError(path + ": read failed");
    }
    return content;
}

std::string read_gzip_file(const std::string& path) {
    gzFile file = gzopen(path.c_str(), "rb");
    if (file == nullptr) {
        throw InputError(path + ": " + std::strerror(errno));
    }
    gzbuffer(file, 1 << 17);
    std::string content;
    char buffer[1 << 16];
    int code = Z_OK;
    for (;;) {
        int count = gzread(file, buffer, sizeof buffer);
        if (count <= 0) {
            // 0 is the end of the data; zlib says whether it came early.
            const char* message = gzerror(file, &code);
            if (count < 0 || (code != Z_OK && code != Z_STREAM_END)) {
                std::string reason = message;
                gzclose(file);
                throw InputError(path + ": not a complete gzip file (" + reason + ")");
            }
            break;
        }
        content.append(buffer, static_cast<size_t>(count));
    }
    code = gzclose(file);
    if (code != Z_OK) {
        throw InputError(path + ": not a complete gzip file (the stream ends early)");
    }
    return content;
}

// Calls `on_line` with each line of `path` (without its newline and without
// a carriage return before it) and its number.
void for_each_line(const std::string& path, const std::function<void(const std::string&, uint64_t)>& on_line) {
    struct stat status;
    if (::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
        throw InputError(path + ": " + std::strerror(EISDIR));
    }
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw InputError(path + ": " + std::strerror(errno));
    }
    std::string line;
    uint64_t number = 0;
    errno = 0;
    while (std::getline(in, line)) {
        ++number;
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        // A byte order mark is not part of the first key.
        if (number == 1 && line.compare(0, 3, "\xEF\xBB\xBF") == 0) {
            line.erase(0, 3);
        }
        on_line(line, number);
    }
    if (in.bad()) {
        throw InputError(path + ": " + (errno != 0 ? std::strerror(errno) : "read failed"));
    }
}

// TSV value escapes: \t, \n and \\.
bool unescape(const std::string& text, std::string& out, std::string& error) {
    out.clear();
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\') {
            out += text[i];
            continue;
        }
        if (i + 1 == text.size()) {
            error = "the value ends with a lone backslash; write \\\\ for a backslash";
            return false;
        }
        char next = text[++i];
        switch (next) {
            case 't': out += '\t'; break;
            case 'n': out += '\n'; break;
            case '\\': out += '\\'; break;
            default:
                error = std::string("unknown escape \\") + next + " in the value; expected \\t, \\n or \\\\";
                return false;
        }
    }
    return true;
}

void read_tsv(const std::string& path, std::vector<SourceItem>& items, std::vector<Problem>& problems,
              const std::function<void(uint64_t)>& on_progress) {
    for_each_line(path, [&](const std::string& line, uint64_t number) {
        if (line.empty()) {
            return;
        }
        size_t tab = line.find('\t');
        if (tab == std::string::npos) {
            problems.push_back({{path, number}, "expected KEY<TAB>VALUE; the line has no tab"});
            return;
        }
        SourceItem item{line.substr(0, tab), std::string(), {path, number}};
        std::string error;
        if (!unescape(line.substr(tab + 1), item.value, error)) {
            problems.push_back({{path, number}, error});
            return;
        }
        items.push_back(std::move(item));
        if (items.size() % 65536 == 0) {
            on_progress(items.size());
        }
    });
}

void read_jsonl(const std::string& path, std::vector<SourceItem>& items, std::vector<Problem>& problems,
                const std::function<void(uint64_t)>& on_progress) {
    for_each_line(path, [&](const std::string& line, uint64_t number) {
        if (line.find_first_not_of(" \t") == std::string::npos) {
            return;
        }
        nlohmann::json object;
        try {
            object = nlohmann::json::parse(line);
        } catch (const nlohmann::json::exception& error) {
            std::string what = error.what();
            size_t detail = what.find("] ");
            problems.push_back({{path, number}, "not valid JSON: " + (detail == std::string::npos ? what : what.substr(detail + 2))});
            return;
        }
        if (!object.is_object()) {
            problems.push_back({{path, number}, "expected an object {\"key\": ..., \"value\": ...}"});
            return;
        }
        auto key = object.find("key");
        auto value = object.find("value");
        if (key == object.end() || !key->is_string() || value == object.end() || !value->is_string()) {
            problems.push_back({{path, number}, "expected string fields \"key\" and \"value\""});
            return;
        }
        items.push_back(SourceItem{key->get<std::string>(), value->get<std::string>(), {path, number}});
        if (items.size() % 65536 == 0) {
            on_progress(items.size());
        }
    });
}

// dictd numbers: base 64 over A-Z a-z 0-9 + /, most significant digit first.
bool decode_dictd_number(const std::string& text, uint64_t& value) {
    if (text.empty() || text.size() > 10) {
        return false;
    }
    value = 0;
    for (char c : text) {
        int digit;
        if (c >= 'A' && c <= 'Z') {
            digit = c - 'A';
        } else if (c >= 'a' && c <= 'z') {
            digit = c - 'a' + 26;
        } else if (c >= '0' && c <= '9') {
            digit = c - '0' + 52;
        } else if (c == '+') {
            digit = 62;
        } else if (c == '/') {
            digit = 63;
        } else {
            return false;
        }
        value = value * 64 + static_cast<uint64_t>(digit);
    }
    return true;
}

std::string dict_file_of(const std::string& index_path) {
    std::string stem = ends_with(index_path, ".index") ? index_path.substr(0, index_path.size() - 6) : index_path;
    for (const char* suffix : {".dict", ".dict.dz"}) {
        std::ifstream probe(stem + suffix);
        if (probe) {
            return stem + suffix;
        }
    }
    throw InputError(index_path + ": no " + stem + ".dict or " + stem + ".dict.dz beside it");
}

// A database entry's article without its headword line, trimmed.
std::string database_text(const std::string& headword, std::string article) {
    if (article.compare(0, headword.size(), headword) == 0) {
        size_t line_end = article.find('\n');
        article.erase(0, line_end == std::string::npos ? article.size() : line_end + 1);
    }
    size_t begin = article.find_first_not_of(" \t\r\n");
    size_t end = article.find_last_not_of(" \t\r\n");
    return begin == std::string::npos ? std::string() : article.substr(begin, end - begin + 1);
}

void read_dictd(const std::string& path, std::vector<SourceItem>& items, std::vector<Problem>& problems,
                SourceFacts& facts, const std::function<void(uint64_t)>& on_progress) {
    std::string dict_path = dict_file_of(path);
    std::string articles = ends_with(dict_path, ".dz") ? read_gzip_file(dict_path) : read_plain_file(dict_path);
    for_each_line(path, [&](const std::string& line, uint64_t number) {
        if (line.empty()) {
            return;
        }
        size_t first_tab = line.find('\t');
        size_t second_tab = first_tab == std::string::npos ? first_tab : line.find('\t', first_tab + 1);
        if (second_tab == std::string::npos || line.find('\t', second_tab + 1) != std::string::npos) {
            problems.push_back({{path, number}, "expected HEADWORD<TAB>OFFSET<TAB>LENGTH"});
            return;
        }
        std::string headword = line.substr(0, first_tab);
        uint64_t offset = 0;
        uint64_t length = 0;
        if (!decode_dictd_number(line.substr(first_tab + 1, second_tab - first_tab - 1), offset) ||
            !decode_dictd_number(line.substr(second_tab + 1), length)) {
            problems.push_back({{path, number}, "offset and length must be base-64 numbers over A-Za-z0-9+/"});
            return;
        }
        if (offset > articles.size() || length > articles.size() - offset) {
            problems.push_back({{path, number}, "the article at " + std::to_string(offset) + " (" +
                                                    std::to_string(length) + " bytes) lies outside " + dict_path +
                                                    " (" + std::to_string(articles.size()) + " bytes)"});
            return;
        }
        // The database's own entries describe the index rather than join it.
        if (headword == "00-database-short" || headword == "00databaseshort") {
            facts.name = database_text(headword, articles.substr(offset, length));
            return;
        }
        if (headword == "00-database-info" || headword == "00databaseinfo") {
            facts.description = database_text(headword, articles.substr(offset, length));
            return;
        }
        if (starts_with(headword, "00-database-") || starts_with(headword, "00database")) {
            return;
        }
        items.push_back(SourceItem{headword, articles.substr(offset, length), {path, number}});
        if (items.size() % 65536 == 0) {
            on_progress(items.size());
        }
    });
}

// One item per key, by the duplicates policy; problems for what cannot be.
void settle_duplicates(std::vector<SourceItem>&& items, const std::string& policy, PreparedItems& settled) {
    if (policy == "merge") {
        settled.items = std::move(items);  // the index builder merges them
        return;
    }
    std::vector<Problem>& fatal = settled.fatal;
    std::map<std::string, size_t> first_of_key;
    for (SourceItem& item : items) {
        auto found = first_of_key.find(item.key);
        if (found == first_of_key.end()) {
            first_of_key.emplace(item.key, settled.items.size());
            settled.items.push_back(std::move(item));
            continue;
        }
        SourceItem& earlier = settled.items[found->second];
        if (policy == "error") {
            fatal.push_back({item.location, "duplicate key \"" + printable(item.key) + "\" (first at line " +
                                                std::to_string(earlier.location.line) + ")"});
        } else {
            earlier.value = std::move(item.value);
            ++settled.merged;
        }
    }
}

}  // namespace

InputFormat parse_format(const std::string& name) {
    if (name == "tsv") {
        return InputFormat::Tsv;
    }
    if (name == "jsonl") {
        return InputFormat::Jsonl;
    }
    if (name == "dictd") {
        return InputFormat::Dictd;
    }
    throw std::invalid_argument("unknown format " + name);
}

InputFormat format_of_file(const std::string& path) {
    if (ends_with(path, ".tsv") || ends_with(path, ".txt")) {
        return InputFormat::Tsv;
    }
    if (ends_with(path, ".jsonl") || ends_with(path, ".ndjson")) {
        return InputFormat::Jsonl;
    }
    if (ends_with(path, ".index")) {
        return InputFormat::Dictd;
    }
    throw std::invalid_argument("cannot tell the format of " + path + " from its name; use --format tsv|jsonl|dictd");
}

void read_items(const std::string& path, InputFormat format, std::vector<SourceItem>& items,
                std::vector<Problem>& problems, SourceFacts& facts,
                const std::function<void(uint64_t)>& on_progress) {
    switch (format) {
        case InputFormat::Tsv: read_tsv(path, items, problems, on_progress); break;
        case InputFormat::Jsonl: read_jsonl(path, items, problems, on_progress); break;
        case InputFormat::Dictd: read_dictd(path, items, problems, facts, on_progress); break;
    }
    on_progress(items.size());
}

std::string check_item(const SourceItem& item) {
    if (item.key.empty()) {
        return "empty key";
    }
    std::vector<uint32_t> code_points;
    size_t bad_byte = 0;
    if (!decode_utf8(item.key, code_points, bad_byte)) {
        return "key is not valid UTF-8 (byte " + std::to_string(bad_byte + 1) + " of " +
               std::to_string(item.key.size()) + ")";
    }
    for (uint32_t code_point : code_points) {
        if (code_point == 0 || code_point > 0xFFFE) {
            return "key holds " + code_point_name(code_point) + "; keys may only hold U+0001..U+FFFE";
        }
    }
    if (code_points.size() > 254) {
        return "key has " + std::to_string(code_points.size()) + " characters; at most 254 fit";
    }
    if (item.value.size() > MAX_VALUE_BYTES) {
        return "value has " + std::to_string(item.value.size()) + " bytes; at most 65534 fit";
    }
    return "";
}

PreparedItems prepare_items(std::vector<SourceItem>&& read, std::vector<Problem>&& read_problems,
                            const std::string& policy) {
    PreparedItems prepared;
    prepared.invalid = std::move(read_problems);
    std::vector<SourceItem> good;
    good.reserve(read.size());
    for (SourceItem& item : read) {
        std::string reason = check_item(item);
        if (reason.empty()) {
            good.push_back(std::move(item));
        } else {
            prepared.invalid.push_back({item.location, reason});
        }
    }
    read.clear();
    read.shrink_to_fit();
    settle_duplicates(std::move(good), policy, prepared);
    std::stable_sort(prepared.invalid.begin(), prepared.invalid.end(),
                     [](const Problem& a, const Problem& b) { return a.location.line < b.location.line; });
    return prepared;
}

}  // namespace quorvex_tool
