#ifndef QUORVEX_READER_POSTING_LIST_H
#define QUORVEX_READER_POSTING_LIST_H

// Posting lists as a search reads them in place from index.bin, and the two
// ways it intersects them. Internal to the reader; not installed.

#include "LittleEndian.h"
#include "TypeDefinitions.h"

namespace Lexarium::Reader {

// `count` little-endian uint32 key offsets from `entries`, a range the
// caller has checked against index.bin. In a sound index they ascend; a
// damaged one may hold anything, and then nothing here reads outside the
// range either (results are merely wrong). No member initializers: a search
// keeps one per keyword character on its stack and fills only those it uses.
struct PostingList {
    const uint8* entries;
    uint32 count;

    uint32 at(uint32 i) const { return LittleEndian::load_u32(this->entries + 4 * size_t{i}); }

    // Moves `cursor` forward to the first entry not below `wanted`,
    // galloping ahead then halving back; false (with `cursor` at `count`)
    // when the list runs out first.
    bool seek(uint32& cursor, uint32 wanted) const {
        if (cursor >= this->count) {
            return false;
        }
        if (this->at(cursor) >= wanted) {
            return true;
        }
        // at(low) < wanted; double the step until at(high) >= wanted.
        uint64_t low = cursor;
        uint64_t step = 1;
        uint64_t high = low + step;
        while (high < this->count && this->at(static_cast<uint32>(high)) < wanted) {
            low = high;
            step *= 2;
            high = low + step;
        }
        if (high > this->count) {
            high = this->count;
        }
        // The first entry in (low, high] not below `wanted`.
        uint64_t first = low + 1;
        while (first < high) {
            uint64_t middle = first + (high - first) / 2;
            if (this->at(static_cast<uint32>(middle)) < wanted) {
                first = middle + 1;
            } else {
                high = middle;
            }
        }
        cursor = static_cast<uint32>(first);
        return cursor < this->count;
    }

    // Moves `cursor` forward to the first entry above `value`.
    void seek_past(uint32& cursor, uint32 value) const {
        if (value == UINT32_MAX) {
            cursor = this->count;
        } else {
            this->seek(cursor, value + 1);
        }
    }
};

// The widest blocks the merges compare: eight entries where the processor
// has AVX2, four with SSE2 (every x86-64), one at a time elsewhere. Taken
// from the processor once; limit_vector_width() lowers it, so that tests
// reach the narrower ways on a processor that has the wider ones. Lower it
// only while nothing searches.
enum class VectorWidth { One = 1, Four = 4, Eight = 8 };
VectorWidth vector_width();
void limit_vector_width(VectorWidth width);

// A list this many times longer than the stretch of candidates it is
// intersected with is searched by galloping rather than stepped through.
constexpr uint32 GALLOP_RATIO = 16;

// Both write to `out` (room for `capacity`) the entries of a[a_from, a_to)
// that b also holds, ascending, and return how many: each once where the
// lists ascend strictly, as they do in an index the writer made. Entries of
// b below a[a_from] must not matter to the caller.

// Steps through a[a_from, a_to) and b[b_from, b_to) side by side, blocks
// of vector_width() entries of each at a time: the way for lists of similar
// density.
uint32 intersect_by_merging(const PostingList& a, uint32 a_from, uint32 a_to, const PostingList& b, uint32 b_from,
                            uint32 b_to, uint32* out, uint32 capacity);

// Looks each entry of a[a_from, a_to) up in b from `b_cursor` on, which it
// moves forward: the way when b is much longer than the range of a.
uint32 intersect_by_seeking(const PostingList& a, uint32 a_from, uint32 a_to, const PostingList& b,
                            uint32& b_cursor, uint32* out, uint32 capacity);

// The most candidates the search hands keep_common at once. The search and
// keep_common each keep that many on the stack (8 KiB apiece).
constexpr uint32 MAX_CANDIDATES = 2048;
// keep_common steps through the list rather than looking candidates up
// where the list has fewer than this many entries per candidate.
constexpr uint32 DENSE_RATIO = 16;

// Keeps those of `candidates[0, count)` (ascending) that `list` holds, in
// place, looking from `cursor` on, and returns how many are left. Sets
// `exhausted` when the list ran out, so no later candidate can be in it.
uint32 keep_common(const PostingList& list, uint32& cursor, uint32* candidates, uint32 count, bool& exhausted);

}  // namespace Lexarium::Reader

#endif
