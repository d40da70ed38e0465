#include <gtest/gtest.h>

#include <memory>
#include <random>

#include "Reader/Utf8Characters.h"
#include "Utf8.h"
#include "TestSupport.h"

using Lexarium::Reader::get_bytes_count_of_char_from_unicode_string;
using Lexarium::Reader::get_unicode_string_length;

namespace {

struct Walk {
    std::vector<uint8> counts;
    uint8 found;
};

// Walks `text` from a heap copy of exactly its size, so that a read past
// the end shows up under AddressSanitizer.
Walk walk(const std::string& text, uint8 wanted, uint8 capacity = 255) {
    std::unique_ptr<uint8[]> copy(new uint8[text.size() + 1]);
    std::copy(text.begin(), text.end(), copy.get());
    uint8 counts[256];
    std::fill(std::begin(counts), std::end(counts), 0xEE);
    uint8 found = wanted;
    get_bytes_count_of_char_from_unicode_string(counts, capacity, copy.get(), static_cast<uint8>(text.size()), &found);
    Walk result{{}, found};
    for (uint8 i = 0; i < found && wanted != 0; ++i) {
        result.counts.push_back(counts[i]);
    }
    return result;
}

}  // namespace

TEST(Utf8Characters, CountsTheBytesOfTheLeadingCharacters) {
    struct Case {
        std::string text;
        uint8 wanted;
        std::vector<uint8> counts;
        uint8 capacity;
    };
    const std::string aeb = "a\xC3\xA9" "b";
    for (const Case& c : {Case{aeb, 2, {1, 2}, 255}, Case{aeb, 5, {1, 2, 1}, 255}, Case{aeb, 3, {1, 2, 1}, 255},
                          Case{aeb, 0, {}, 255}, Case{"", 4, {}, 255}, Case{"\xE4\xB8\x80\xF0\x9F\x98\x80", 9, {3, 4}, 255},
                          // Ends in the middle of a character: the text's end closes it.
                          Case{"a\xC3", 9, {1, 1}, 255}, Case{"\xE4\xB8", 9, {2}, 255},
                          // A stray continuation byte at the start joins nothing before it.
                          Case{"\xA9" "a", 9, {1, 1}, 255},
                          // Never more counts than the capacity; texts of up to 254 bytes.
                          Case{"abcdef", 6, {1, 1, 1}, 3},
                          Case{quorvex_test::repeat("\xC3\xA9", 127), 254, std::vector<uint8>(127, 2), 255}}) {
        SCOPED_TRACE(testing::PrintToString(c.text) + " wanted " + std::to_string(c.wanted));
        Walk result = walk(c.text, c.wanted, c.capacity);
        EXPECT_EQ(result.found, c.counts.size());
        EXPECT_EQ(result.counts, c.counts);
    }
    // The length in characters stops at the first zero byte.
    EXPECT_EQ(get_unicode_string_length(std::string("a\xC3\xA9\0b", 5)), 2u);
    EXPECT_EQ(get_unicode_string_length("\xE4\xB8\x80\xF0\x9F\x98\x80"), 2u);
}

// The offset where a character starts must agree with summing the walk's
// byte counts, on texts of every length up to a key's longest, mixing
// ASCII, lead bytes and stray continuation bytes so that characters straddle
// the eight-byte steps, and for positions past the text's end.
TEST(Utf8Characters, ByteOffsetOfACharacterAgreesWithTheWalk) {
    const uint8 pieces[] = {'a', 0xC3, 0xA9, 0xE4, 0xB8, 0x80, 0xF0, 0x9F, 0x98, 0x80, 0x80, 0xBF};
    std::mt19937 random(7);
    for (int round = 0; round < 2000; ++round) {
        std::string text;
        size_t length = random() % 255;
        for (size_t i = 0; i < length; ++i) {
            text += static_cast<char>(pieces[random() % sizeof pieces]);
        }
        std::unique_ptr<uint8[]> copy(new uint8[text.size() + 1]);  // exact size, for AddressSanitizer
        std::copy(text.begin(), text.end(), copy.get());
        Walk whole = walk(text, 255);
        for (uint32 position = 0; position <= whole.found + 2u; ++position) {
            uint32 expected = 0;
            for (uint32 c = 0; c < position && c < whole.found; ++c) {
                expected += whole.counts[c];
            }
            ASSERT_EQ(Lexarium::Utf8::char_byte_offset(copy.get(), static_cast<uint32>(text.size()), position), expected)
                << testing::PrintToString(text) << " position " << position;
        }
    }
}
