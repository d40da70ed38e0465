#include "Assertions.h"
#include "IndexVerifier.h"
#include "SuffixArray.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <sys/stat.h>

#include "Format.h"
#include "LittleEndian.h"
#include "Records.h"
#include "Utf8.h"

namespace Lexarium {

namespace {

using Format::TABLE_ROW_COUNT;

struct Cell {
    uint32 row;
    uint32 position;
    uint32 offset;
    uint32 count;
    uint64_t record;  // where the cell record sits in table.bin
};

class Checker {
public:
    Checker(const ByteArray& table_, const ByteArray& index_, const ByteArray& key_, const ByteArray& data_,
            size_t max_problems_)
        : table(table_), index(index_), key(key_), data(data_), max_problems(max_problems_) {}

    IndexVerification run(bool deep) {
        this->check_table();
        this->check_index_blob();
        this->check_values();
        this->check_keys();
        this->check_cells_and_entries();
        if (deep && this->result.is_sound()) {
            this->check_listing();
        }
        this->result.items = this->key_starts.size();
        return std::move(this->result);
    }

private:
    void problem(const char* blob, uint64_t offset, std::string message) {
        ++this->result.problem_count;
        if (this->result.problems.size() < this->max_problems) {
            this->result.problems.push_back(IndexProblem{blob, offset, std::move(message)});
        }
    }

    static std::string number(uint64_t value) { return std::to_string(value); }

    // 65535 row records, each decoded only once it is known to fit.
    void check_table() {
        Records::TableWalk walk =
            Records::walk_table(this->table.data, this->table.length, [&](uint32 row, Records::Row record, uint64_t offset) {
                this->check_row(row, record.cells_count, offset);
                for (uint32 i = 0; i < record.cells_count; ++i) {
                    Records::Cell cell = record.cell(i);
                    uint64_t at = offset + Format::ROW_HEADER_SIZE + uint64_t{i} * Format::CELL_RECORD_SIZE;
                    this->cells.push_back(Cell{row, i, cell.offset, cell.count, at});
                }
            });
        uint64_t offset = walk.end;
        if (!walk.complete) {
            this->table_complete = false;
            if (offset >= this->table.length) {
                this->problem("table.bin", offset,
                              "ends before row " + number(walk.stopped_row) + "; expected 65535 row records");
                return;
            }
            Records::Row record = Records::Row::decode(this->table.data + offset);
            this->check_row(walk.stopped_row, record.cells_count, offset);
            this->problem("table.bin", offset,
                          "row " + number(walk.stopped_row) + " needs " + number(record.size()) +
                              " bytes; the blob ends after " + number(this->table.length - offset));
            return;
        }
        if (offset != this->table.length) {
            this->problem("table.bin", offset,
                          number(this->table.length - offset) + " bytes after row 65534; expected the end of the blob");
        }
    }

    void check_row(uint32 row, uint32 cells, uint64_t offset) {
        if (cells > Format::MAX_CELLS_PER_ROW) {
            this->problem("table.bin", offset, "row " + number(row) + " has 255 cells; expected at most 254");
        }
        if (row == 0 && cells != 0) {
            this->problem("table.bin", offset, "row 0 has " + number(cells) + " cells; expected none");
        }
    }

    void check_index_blob() {
        if (this->index.length < Format::INDEX_SENTINEL_SIZE) {
            this->problem("index.bin", 0,
                          "holds " + number(this->index.length) + " bytes; expected at least the 4-byte sentinel");
            return;
        }
        if (this->index.length % Format::POSTING_ENTRY_SIZE != 0) {
            this->problem("index.bin", this->index.length - this->index.length % Format::POSTING_ENTRY_SIZE,
                          "ends inside an entry; expected a multiple of 4 bytes");
        }
        if (LittleEndian::load_u32(this->index.data) != 0) {
            this->problem("index.bin", 0, "sentinel is " + number(LittleEndian::load_u32(this->index.data)) +
                                              "; expected 0");
        }
    }

    void check_values() {
        uint64_t offset = 0;
        while (offset < this->data.length) {
            // The header first, so that its problems are told apart.
            if (this->data.length - offset < Format::VALUE_RECORD_HEADER_SIZE) {
                this->problem("data.bin", offset, "value record header runs past the end of the blob");
                return;
            }
            Records::Value value = Records::Value::decode(this->data.data + offset);
            if (value.length > Format::MAX_VALUE_BYTES) {
                this->problem("data.bin", offset, "value length 65535; expected at most 65534");
            }
            if (value.size() > this->data.length - offset) {
                this->problem("data.bin", offset,
                              "value record of " + number(value.size()) + " bytes runs past the end of the blob");
                return;
            }
            this->value_starts.push_back(static_cast<uint32>(offset));
            offset += value.size();
        }
    }

    void check_keys() {
        this->key_start_bits.assign(uint64_t{this->key.length} + 1, false);
        uint64_t offset = 0;
        while (offset < this->key.length) {
            if (this->key.length - offset < Format::KEY_RECORD_HEADER_SIZE) {
                this->problem("key.bin", offset, "key record header runs past the end of the blob");
                return;
            }
            Records::Key record = Records::Key::decode(this->key.data + offset);
            if (record.length > Format::MAX_STORED_KEY_BYTES) {
                this->problem("key.bin", offset, "key length 255; expected at most 254");
            }
            if (record.size() > this->key.length - offset) {
                this->problem("key.bin", offset,
                              "key record of " + number(record.size()) + " bytes runs past the end of the blob");
                return;
            }
            uint32 pointer = record.data_pointer;
            size_t item = this->key_starts.size();
            if (item >= this->value_starts.size()) {
                this->problem("key.bin", offset,
                              "key " + number(item) + " has no value record; data.bin holds " +
                                  number(this->value_starts.size()));
            } else if (pointer != this->value_starts[item]) {
                this->problem("key.bin", offset,
                              "data pointer " + number(pointer) + "; expected " + number(this->value_starts[item]) +
                                  ", the start of value record " + number(item));
            }
            this->key_start_bits[offset] = true;
            this->key_starts.push_back(static_cast<uint32>(offset));
            offset += record.size();
        }
        if (this->key_starts.size() < this->value_starts.size()) {
            this->problem("data.bin", this->value_starts[this->key_starts.size()],
                          number(this->value_starts.size() - this->key_starts.size()) +
                              " value records have no key; expected one value per key");
        }
    }

    void check_cells_and_entries() {
        if (this->index.length < Format::INDEX_SENTINEL_SIZE) {
            return;
        }
        uint64_t listed = 0;
        for (const Cell& cell : this->cells) {
            uint64_t record = cell.record;
            std::string name = "row " + number(cell.row) + " cell " + number(cell.position);
            if (cell.count == 0) {
                if (cell.offset != 0) {
                    this->problem("table.bin", record, name + " is empty with offset " + number(cell.offset) +
                                                           "; expected 0");
                }
                continue;
            }
            Records::Cell list{cell.offset, cell.count};
            if (cell.offset < Format::INDEX_SENTINEL_SIZE || cell.offset % Format::POSTING_ENTRY_SIZE != 0 ||
                list.entries_in(this->index.data, this->index.length) == nullptr) {
                this->problem("table.bin", record,
                              name + " lists " + number(cell.count) + " entries from offset " + number(cell.offset) +
                                  "; expected a 4-byte aligned list inside index.bin after the sentinel (" +
                                  number(this->index.length) + " bytes)");
                continue;
            }
            listed += cell.count;
            uint64_t previous = 0;
            for (uint32 i = 0; i < cell.count; ++i) {
                uint64_t at = cell.offset + uint64_t{i} * Format::POSTING_ENTRY_SIZE;
                uint32 entry = LittleEndian::load_u32(this->index.data + at);
                if (entry >= this->key.length || !this->key_start_bits[entry]) {
                    this->problem("index.bin", at, name + " entry " + number(entry) +
                                                       "; expected the start of a key record");
                } else if (i > 0 && entry <= previous) {
                    this->problem("index.bin", at, name + " entry " + number(entry) + " after " + number(previous) +
                                                       "; expected ascending entries");
                }
                previous = entry;
            }
        }
        uint64_t entries = (this->index.length - Format::INDEX_SENTINEL_SIZE) / Format::POSTING_ENTRY_SIZE;
        if (this->table_complete && listed != entries) {
            this->problem("index.bin", Format::INDEX_SENTINEL_SIZE,
                          "holds " + number(entries) + " entries but the cells list " + number(listed) +
                              "; expected every entry in exactly one list");
        }
    }

    // Deep: each key's stored characters against the cells that list it.
    void check_listing() {
        std::vector<std::vector<uint32>> characters(this->key_starts.size());
        for (size_t item = 0; item < this->key_starts.size(); ++item) {
            uint32 offset = this->key_starts[item];
            Records::Key record = Records::Key::decode(this->key.data + offset);
            if (!Utf8::decode_indexable(record.text, record.length, characters[item])) {
                this->problem("key.bin", offset, "key text is not valid UTF-8");
            }
        }
        std::vector<uint32> listings(this->key_starts.size(), 0);
        for (const Cell& cell : this->cells) {
            for (uint32 i = 0; i < cell.count; ++i) {
                uint64_t at = cell.offset + uint64_t{i} * Format::POSTING_ENTRY_SIZE;
                uint32 entry = LittleEndian::load_u32(this->index.data + at);
                size_t item = static_cast<size_t>(
                    std::lower_bound(this->key_starts.begin(), this->key_starts.end(), entry) - this->key_starts.begin());
                const std::vector<uint32>& text = characters[item];
                std::string where = "row " + number(cell.row) + " cell " + number(cell.position);
                if (cell.position < text.size()) {
                    if (text[cell.position] != cell.row) {
                        this->problem("index.bin", at,
                                      where + " lists the key at " + number(entry) + ", whose character " +
                                          number(cell.position) + " is U+" + hex(text[cell.position]));
                    } else {
                        ++listings[item];
                    }
                } else if (!this->may_be_shortened(entry)) {
                    this->problem("index.bin", at,
                                  where + " lists the key at " + number(entry) + ", which has only " +
                                      number(text.size()) + " characters");
                }
            }
        }
        for (size_t item = 0; item < this->key_starts.size(); ++item) {
            if (listings[item] != characters[item].size()) {
                this->problem("key.bin", this->key_starts[item],
                              "key is listed for " + number(listings[item]) + " of its " +
                                  number(characters[item].size()) + " characters; expected all of them");
            }
        }
    }

    // A stored key of 251 bytes or more may be the cut form of a longer one.
    bool may_be_shortened(uint32 entry) const {
        return Records::Key::decode(this->key.data + entry).length > Format::MAX_STORED_KEY_BYTES - 4;
    }

    static std::string hex(uint32 value) {
        char text[16];
        std::snprintf(text, sizeof text, "%04X", value);
        return text;
    }

    const ByteArray& table;
    const ByteArray& index;
    const ByteArray& key;
    const ByteArray& data;
    size_t max_problems;
    IndexVerification result;
    bool table_complete = true;
    std::vector<Cell> cells;
    std::vector<uint32> value_starts;
    std::vector<uint32> key_starts;
    std::vector<bool> key_start_bits;
};

// The whole file at `path`, or a problem saying why not.
Rc<ByteArray> read_whole_file(const std::string& path, IndexVerification& result) {
    auto fail = [&](const std::string& why) {
        ++result.problem_count;
        result.problems.push_back(IndexProblem{path, 0, why});
        return Rc<ByteArray>();
    };
    struct stat status;
    if (::stat(path.c_str(), &status) != 0) {
        return fail(std::strerror(errno));
    }
    if (!S_ISREG(status.st_mode)) {
        return fail("not a regular file");
    }
    if (static_cast<uint64_t>(status.st_size) > UINT32_MAX) {
        return fail("larger than 4 GiB; expected a blob a 32-bit offset can address");
    }
    FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) {
        return fail(std::strerror(errno));
    }
    Rc<ByteArray> bytes(new ByteArray(static_cast<uint32>(status.st_size)));
    size_t done = 0;
    while (done < bytes->length) {
        size_t count = std::fread(bytes->data + done, 1, bytes->length - done, file);
        if (count == 0) {
            std::fclose(file);
            return fail("could not be read whole");
        }
        done += count;
    }
    std::fclose(file);
    return bytes;
}

}  // namespace

IndexVerification IndexVerifier::verify(const ByteArray& table, const ByteArray& index, const ByteArray& key,
                                        const ByteArray& data, bool deep, size_t max_problems) {
    return Checker(table, index, key, data, max_problems).run(deep);
}

IndexVerification IndexVerifier::verify_directory(const std::string& directory, bool deep, size_t max_problems) {
    IndexVerification result;
    Rc<ByteArray> table = read_whole_file(directory + Format::TABLE_FILE_NAME, result);
    Rc<ByteArray> index = read_whole_file(directory + Format::INDEX_FILE_NAME, result);
    Rc<ByteArray> key = read_whole_file(directory + Format::KEY_FILE_NAME, result);
    Rc<ByteArray> data = read_whole_file(directory + Format::DATA_FILE_NAME, result);
    if (!result.is_sound()) {
        return result;
    }
    result = verify(*table, *index, *key, *data, deep, max_problems);
    // The optional suffix.bin must be exactly the suffix array of key.bin.
    struct stat status;
    std::string suffix_path = directory + Format::SUFFIX_FILE_NAME;
    if (::lstat(suffix_path.c_str(), &status) == 0) {
        Rc<ByteArray> suffix = read_whole_file(suffix_path, result);
        std::string why;
        SuffixArray suffixes;
        if (!suffix.is_null()) {
            suffixes = SuffixArray::open(suffix->data, suffix->length, key->length, &why);
        }
        if (!suffix.is_null() && (suffixes.empty() || !suffixes.check(key->data, key->length, &why))) {
            ++result.problem_count;
            if (result.problems.size() < max_problems) {
                result.problems.push_back(IndexProblem{"suffix.bin", 0, why.substr(why.find(": ") + 2)});
            }
        }
    }
    return result;
}

}  // namespace Lexarium
