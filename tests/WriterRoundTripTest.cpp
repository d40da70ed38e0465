// Random item sets, built and read back with the index records: every item's
// key and value come back, every key is listed in exactly the cells its
// characters call for, and the verifier finds the whole sound.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <random>
#include <set>

#include "IndexKey.h"
#include "IndexVerifier.h"
#include "IndexTable.h"
#include "LittleEndian.h"
#include "WriterTestSupport.h"

using Lexarium::IndexKey;
using Lexarium::IndexTable;
using Lexarium::Writer::IndexWriter;
using namespace quorvex_test;

namespace {

// Characters of one, two and three UTF-8 bytes, and U+FFFE at the top.
const uint32 ALPHABET[] = {'a', 'b', 'z', 0xE9, 0x416, 0x3B1, 0x4E2D, 0x6587, 0xFFFE};

struct Item {
    std::vector<uint32> code_points;
    std::string value;
};

std::map<std::string, Item> random_items(std::mt19937& random) {
    std::map<std::string, Item> items;
    size_t count = std::uniform_int_distribution<size_t>(0, 40)(random);
    std::uniform_int_distribution<size_t> pick(0, std::size(ALPHABET) - 1);
    for (size_t i = 0; i < count; ++i) {
        // Mostly short keys, sometimes long enough to be shortened.
        size_t length = random() % 8 == 0 ? std::uniform_int_distribution<size_t>(80, 254)(random)
                                          : std::uniform_int_distribution<size_t>(1, 12)(random);
        Item item;
        std::string key;
        for (size_t j = 0; j < length; ++j) {
            uint32 code_point = ALPHABET[pick(random)];
            item.code_points.push_back(code_point);
            key += utf8(code_point);
        }
        item.value = std::string(std::uniform_int_distribution<size_t>(0, 300)(random), static_cast<char>(i));
        items[key] = item;  // a repeated key keeps the last value, as the writer does
    }
    return items;
}

// The longest prefix of `key` made of whole characters within 254 bytes.
std::string stored_form(const std::string& key) {
    size_t end = key.size();
    while (end > 254) {
        do {
            --end;
        } while ((static_cast<uint8>(key[end]) & 0xC0) == 0x80);
    }
    return key.substr(0, end);
}

}  // namespace

TEST(WriterRoundTrip, RandomItemSetsReadBackWithTheRecords) {
    std::mt19937 random(20261121);
    for (int round = 0; round < 60; ++round) {
        SCOPED_TRACE(round);
        std::map<std::string, Item> items = random_items(random);
        IndexWriter writer;
        for (const auto& entry : items) {
            writer.add_word(entry.first, bytes_of(entry.second.value));
        }
        Blobs blobs = blobs_of(writer.to_bytes());
        Lexarium::IndexVerification verification = Lexarium::IndexVerifier::verify(
            *make_bytes(blobs.table), *make_bytes(blobs.index), *make_bytes(blobs.key), *make_bytes(blobs.data), true);
        EXPECT_TRUE(verification.is_sound());
        EXPECT_EQ(verification.items, items.size());
        Rc<ByteArray> key_blob = make_bytes(blobs.key);
        std::unique_ptr<IndexTable> table(new IndexTable(make_bytes(blobs.table)));

        // Walk key.bin: items in key order, each pointing at its value.
        std::map<uint32, const std::pair<const std::string, Item>*> item_at_offset;
        uint32 key_offset = 0;
        for (const auto& entry : items) {
            ASSERT_LT(key_offset, key_blob->length);
            IndexKey record(key_blob->borrow(key_offset, key_blob->length - key_offset));
            Rc<ByteArray> text = record.get_key();
            EXPECT_EQ(std::string(text->data, text->data + text->length), stored_form(entry.first));
            uint32 pointer = record.get_data_pointer();
            ASSERT_LE(pointer + 2u, blobs.data.size());
            uint16 value_length = Lexarium::LittleEndian::load_u16(&blobs.data[pointer]);
            EXPECT_EQ(std::string(blobs.data.begin() + pointer + 2, blobs.data.begin() + pointer + 2 + value_length),
                      entry.second.value);
            item_at_offset[key_offset] = &entry;
            key_offset += 5 + text->length;
        }
        EXPECT_EQ(key_offset, blobs.key.size());

        // Every (character, position) of every key, and nothing else, is in
        // the posting lists (whose order the verifier has checked).
        std::set<std::tuple<uint32, uint32, uint32>> expected;  // code point, position, key offset
        for (const auto& offset_and_item : item_at_offset) {
            const std::vector<uint32>& code_points = offset_and_item.second->second.code_points;
            for (uint32 position = 0; position < code_points.size(); ++position) {
                expected.insert({code_points[position], position, offset_and_item.first});
            }
        }
        std::set<std::tuple<uint32, uint32, uint32>> listed;
        size_t entries = 0;
        for (uint32 code_point = 0; code_point < 65535; ++code_point) {
            Rc<Lexarium::IndexRow> row = (*table)[code_point];
            for (uint32 position = 0; position < row->get_cells_count(); ++position) {
                Rc<Lexarium::IndexCell> cell = row->get_cell_at_index(static_cast<uint8>(position));
                for (uint32 i = 0; i < cell->get_count(); ++i) {
                    uint32 at = cell->get_offset() + 4 * i;
                    ASSERT_LE(at + 4u, blobs.index.size());
                    listed.insert({code_point, position, Lexarium::LittleEndian::load_u32(&blobs.index[at])});
                    ++entries;
                }
            }
        }
        EXPECT_EQ(listed, expected);
        EXPECT_EQ(entries, expected.size());
        EXPECT_EQ(blobs.index.size(), 4 + 4 * entries);
    }
}
