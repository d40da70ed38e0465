#ifndef QUORVEX_FOLD_H
#define QUORVEX_FOLD_H

#include <cstdint>
#include <string>
#include <string_view>

#include "Export.h"

namespace Lexarium {

// The version of fold() below. An index records the version its keys were
// folded with; it changes whenever fold() gives another result for any text
// (new Unicode tables, a new rule).
constexpr uint32_t FOLDING_VERSION = 1;

// Folds UTF-8 `text` the way people type it, into `*folded` (replacing what
// it held), so that the forms of one word meet:
// - compatibility forms become plain ones: full-width and half-width
//   letters, ligatures ("ﬁ" -> "fi"), circled and squared letters ("㌀" ->
//   "あぱーと" after the next steps);
// - case is folded fully: "Straße" and "STRASSE" both become "strasse", "Σ"
//   and "ς" become "σ";
// - diacritics (U+0300..U+036F) after a Latin, Greek or Cyrillic letter go
//   ("é" -> "e", "й" -> "и", Russian stress marks), as do the stroke of
//   "ł", "ø", "đ" and the like, Arabic vowel points and Hebrew points;
//   marks that make another letter stay (Japanese voiced sound marks, Indic
//   vowel signs and viramas), and Hangul syllables stay whole;
// - katakana becomes hiragana;
// - every run of white space becomes one space, and none is left at either
//   end;
// - the result is composed (NFC), so NFC and NFD input fold alike.
// Folding a folded text changes nothing.
//
// Returns false on text that is not well-formed UTF-8 (a surrogate
// included), leaving `*folded` unspecified and, when `error` is not null,
// a message with the byte offset in it. U+0000 passes through. Throws only
// std::bad_alloc; any number of threads may fold at once.
QUORVEX_API bool fold(std::string_view text, std::string* folded, std::string* error = nullptr);

}  // namespace Lexarium

#endif
