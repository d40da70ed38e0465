// The writer's and reader's UTF-8 decoding must give exactly what the
// standard converter gives, including its odd corners.
#include <gtest/gtest.h>

#include <random>
#include <stdexcept>

#include "Utf8.h"
#include "WriterTestSupport.h"

using namespace quorvex_test;

namespace {

// What the standard converter makes of `text`: the code points, or "throws".
std::string reference(const std::string& text) {
    Lexarium::Utf8::Converter converter;
    try {
        std::wstring wide = converter.from_bytes(text);
        return testing::PrintToString(std::vector<uint32>(wide.begin(), wide.end()));
    } catch (const std::range_error& error) {
        return std::string("throws ") + error.what();
    }
}

std::string decoded(const std::string& text) {
    Lexarium::Utf8::Converter converter;
    std::vector<uint32> code_points{12345};  // must be cleared
    try {
        Lexarium::Utf8::decode(text, code_points, converter);
        return testing::PrintToString(code_points);
    } catch (const std::range_error& error) {
        return std::string("throws ") + error.what();
    }
}

}  // namespace

TEST(Utf8, MalformedAndTruncatedInputBehavesAsTheConverter) {
    for (std::string text :
         {std::string(""), std::string("ab\xC3"), std::string("ab\xE2\x82"), std::string("a\xE2\x41"),
          std::string("a\xC3\xC3"), std::string("\xC0\x80"), std::string("\xE0\x80\x80"), std::string("\xED\xA0\x80"),
          std::string("\xF4\x90\x80\x80"), std::string("\xF4\x90"), std::string("\xF8\x88\x80\x80\x80"),
          std::string("\x80"), std::string("\xEF\xBB\xBF" "a"), std::string("a\0b", 3), std::string("\xFF")}) {
        EXPECT_EQ(decoded(text), reference(text)) << testing::PrintToString(text);
    }
}

TEST(Utf8, RandomBytesBehaveAsTheConverter) {
    std::mt19937 random(7);
    // Bytes biased toward lead and continuation bytes, where the cases are.
    const uint8 interesting[] = {0x00, 0x41, 0x7F, 0x80, 0x8F, 0x90, 0x9F, 0xA0, 0xBF, 0xC0, 0xC1, 0xC2,
                                 0xDF, 0xE0, 0xE1, 0xED, 0xEE, 0xEF, 0xF0, 0xF1, 0xF4, 0xF5, 0xFE, 0xFF};
    for (int round = 0; round < 200000; ++round) {
        std::string text;
        size_t length = random() % 7;
        for (size_t i = 0; i < length; ++i) {
            text += static_cast<char>(random() % 3 == 0 ? random() % 256 : interesting[random() % std::size(interesting)]);
        }
        ASSERT_EQ(decoded(text), reference(text)) << testing::PrintToString(text);
    }
}
