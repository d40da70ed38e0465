#ifndef QUORVEX_READER_SEARCH_PARTS_H
#define QUORVEX_READER_SEARCH_PARTS_H

// The search's working records, kept out of the public header. Internal to
// the reader; not installed.

#include "Format.h"
#include "Reader/IndexReader.h"
#include "Reader/PostingList.h"

namespace Lexarium::Reader {

// How many entries of driving lists a search takes one by one, over all its
// positions, before it intersects them a stretch at a time.
constexpr uint32 ENTRY_BY_ENTRY_STEPS = 128;
// Positions whose shortest list is shorter than this skip those steps: a
// few hundred entries are cheaper to stream through a stretch at a time than
// to leap through, one dependent read after another.
constexpr uint32 ENTRY_BY_ENTRY_MIN_LENGTH = 512;

// The keyword as every position of a search uses it.
struct IndexReader::Keyword {
    const std::string& text;
    uint32 row;                      // the row of its first character
    bool has_row;                    // false for a first character whose low 16 bits are 0xFFFF
    std::vector<uint32> characters;  // as decoded (an incomplete last one dropped)
    // Key records that find() has had from earlier positions, ascending:
    // they match no more.
    const std::vector<uint32>* found;
};

// An entry find() has matched: its key record, where the match begins, and
// the edits it took.
struct IndexReader::Found {
    uint32 entry;
    uint8 position;
    uint8 edits;
};

// A character at a position: the cell whose posting list find() wants.
struct IndexReader::Cell {
    uint32 code_point;
    uint32 position;
};

// The most occurrences of a keyword for which a search with `limit`
// collects them from the suffix array rather than walking posting lists: a
// few binary-search steps find them all, but they must then be ordered by
// position; the posting lists give the first hits of a common keyword
// sooner.
inline uint32 suffix_plan_limit(uint16 limit) { return 256 + 16 * uint32{limit}; }

// A key that holds the keyword, between checking its record and reading
// its value.
struct IndexReader::Match {
    uint32 entry;         // the key record's offset in key.bin
    uint32 data_pointer;  // the value record's offset in data.bin
    uint8 key_length;
};

// One search's room for the posting lists of a position, on the searching
// thread's stack and filled anew at each position; indexed by keyword
// character.
struct IndexReader::Scratch {
    PostingList lists[Format::MAX_CELLS_PER_ROW + 1];
    uint32 order[Format::MAX_CELLS_PER_ROW + 1];    // list indexes, shortest list first
    uint32 cursors[Format::MAX_CELLS_PER_ROW + 1];  // per place in `order`
    uint32 steps_left;  // of the search's entry-by-entry steps, over all positions
    uint32 chunk_size;  // of the next stretch, carried from one position to the next
};

}  // namespace Lexarium::Reader

#endif
