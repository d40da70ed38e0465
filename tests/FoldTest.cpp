// The folding: one table of cases per script, then properties over the
// Unicode normalization tests (NFC, NFD, NFKC and NFKD forms fold alike) and
// over every code point (folding twice changes nothing).
#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>

#include "Fold.h"
#include "Utf8.h"

namespace {

std::string folded(const std::string& text) {
    std::string out;
    std::string error;
    EXPECT_TRUE(Lexarium::fold(text, &out, &error)) << error;
    return out;
}

}  // namespace

TEST(Fold, FoldsEachScriptAsReadersExpect) {
    const std::pair<const char*, const char*> cases[] = {
        // Latin: case, ß, ligatures, widths, stacked and decomposed diacritics, strokes
        {"Stra\xC3\x9F" "e STRASSE \xE1\xBA\x9E", "strasse strasse ss"},
        {"\xEF\xAC\x81le \xEF\xBC\xA8\xEF\xBC\xA1\xEF\xBC\xB5\xEF\xBC\xB3", "file haus"},
        {"\xC7\x95 \xE1\xB9\xA9 e\xCC\x81\xCC\xA3 \xC3\x9C" "bersetzung", "u s e ubersetzung"},
        {"\xC5\x81\xC3\xB3" "d\xC5\xBA \xC3\x98re \xC4\x90" "ak", "lodz ore dak"},
        // Greek: final sigma, tonos, dialytika
        {"\xCE\x8C\xCE\xA3\xCE\x9F\xCE\xA3 \xCE\x90", "\xCE\xBF\xCF\x83\xCE\xBF\xCF\x83 \xCE\xB9"},
        // Cyrillic: stress marks, ё and й lose their marks
        {"\xD0\xBC\xD0\xBE\xD0\xBB\xD0\xBE\xCC\x81\xD0\xBA\xD0\xBE \xD0\x81\xD0\xB9",
         "\xD0\xBC\xD0\xBE\xD0\xBB\xD0\xBE\xD0\xBA\xD0\xBE \xD0\xB5\xD0\xB8"},
        // Japanese: half-width and katakana to hiragana, voiced marks kept, squared words
        {"\xEF\xBD\xB6\xEF\xBE\x9E\xEF\xBD\xB7\xEF\xBE\x9E \xE3\x82\xAC \xE3\x81\x8B", "\xE3\x81\x8C\xE3\x81\x8E \xE3\x81\x8C \xE3\x81\x8B"},
        {"\xE3\x8C\x80", "\xE3\x81\x82\xE3\x81\xB1\xE3\x83\xBC\xE3\x81\xA8"},
        // Hangul stays whole, and conjoining jamo compose into it
        {"\xED\x95\x9C\xEA\xB5\xAD\xEC\x96\xB4 \xE1\x84\x92\xE1\x85\xA1\xE1\x86\xAB",
         "\xED\x95\x9C\xEA\xB5\xAD\xEC\x96\xB4 \xED\x95\x9C"},
        // Devanagari keeps its vowel signs and virama
        {"\xE0\xA4\xB9\xE0\xA4\xBF\xE0\xA4\xA8\xE0\xA5\x8D\xE0\xA4\xA6\xE0\xA5\x80",
         "\xE0\xA4\xB9\xE0\xA4\xBF\xE0\xA4\xA8\xE0\xA5\x8D\xE0\xA4\xA6\xE0\xA5\x80"},
        // Arabic vowel points and tatweel, Hebrew points go
        {"\xD9\x85\xD9\x8F\xD8\xAD\xD9\x80\xD9\x8E\xD9\x85\xD9\x8E\xD9\x91\xD8\xAF", "\xD9\x85\xD8\xAD\xD9\x85\xD8\xAF"},
        {"\xD7\xA9\xD7\x81\xD6\xB8\xD7\x9C\xD7\x95\xD6\xB9\xD7\x9D", "\xD7\xA9\xD7\x9C\xD7\x95\xD7\x9D"},
        // White space: runs become one space, both ends trimmed; U+0000 stays
        {" \t a\xC2\xA0\xE3\x80\x80 b\n", "a b"},
        {"", ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(folded(c.first), c.second) << c.first;
    }
    EXPECT_EQ(folded(std::string("a\0B", 3)), std::string("a\0b", 3));
}

TEST(Fold, RefusesWhatIsNotUtf8) {
    for (const char* bad : {"\xFF", "ab\xC3", "\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80"}) {
        std::string out, error;
        EXPECT_FALSE(Lexarium::fold(bad, &out, &error)) << bad;
        EXPECT_NE(error.find("invalid UTF-8 at byte"), std::string::npos) << error;
    }
}

// Every code point alone and after a Latin letter: folding is idempotent.
TEST(Fold, FoldingTwiceChangesNothing) {
    for (uint32 code_point = 1; code_point <= 0x2FFFF; ++code_point) {
        if (Lexarium::Utf8::is_surrogate(code_point)) continue;
        for (const std::string& text : {Lexarium::Utf8::encode(code_point), "a" + Lexarium::Utf8::encode(code_point)}) {
            std::string once = folded(text);
            ASSERT_EQ(folded(once), once) << "U+" << std::hex << code_point;
        }
    }
}

// NormalizationTest.txt (unicode-data): the five forms of each line fold
// alike.
TEST(Fold, NormalizationFormsFoldAlike) {
    FILE* pipe = popen("bzcat /usr/share/unicode/NormalizationTest.txt.bz2 2>/dev/null", "r");
    std::string line;
    size_t lines = 0;
    for (int c = pipe != nullptr ? std::fgetc(pipe) : EOF; c != EOF; c = std::fgetc(pipe)) {
        if (c != '\n') {
            line += static_cast<char>(c);
            continue;
        }
        if (!line.empty() && line[0] != '#' && line[0] != '@') {
            std::istringstream fields(line);
            std::string field, forms[5];
            for (int f = 0; f < 5 && std::getline(fields, field, ';'); ++f) {
                std::istringstream code_points(field);
                for (unsigned code_point; code_points >> std::hex >> code_point;) forms[f] += Lexarium::Utf8::encode(code_point);
            }
            for (int f = 1; f < 5; ++f) ASSERT_EQ(folded(forms[f]), folded(forms[0])) << line;
            ++lines;
        }
        line.clear();
    }
    if (pipe != nullptr) pclose(pipe);
    if (lines == 0) GTEST_SKIP() << "unicode-data's NormalizationTest.txt.bz2 is not installed";
}
