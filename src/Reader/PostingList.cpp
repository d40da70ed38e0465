#include "Assertions.h"
#include "Reader/PostingList.h"

#include <algorithm>
#include <atomic>
#include <cstring>

// Entries are little-endian: where the host is too and has SSE2 (every
// x86-64), four of them load as one vector.
#if defined(__SSE2__) && defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
#include <immintrin.h>
#define QUORVEX_MERGE_FOUR_AT_A_TIME 1
#endif

namespace Lexarium::Reader {

namespace {

// Appends `value` unless `out` is full or already ends with it (only a
// damaged list, which the verifier refuses, repeats an entry).
inline void emit(uint32* out, uint32& n, uint32 capacity, uint32 value) {
    if (n < capacity && (n == 0 || out[n - 1] != value)) {
        out[n++] = value;
    }
}

// Writes a[i + k] for every bit k of `mask` (ascending) to `out`, without
// a branch per bit: each lane is stored, and `n` moves past the kept ones.
inline void emit_lanes(const PostingList& a, uint32 i, unsigned mask, uint32 lanes, uint32* out, uint32& n) {
    for (uint32 k = 0; k < lanes; ++k) {
        out[n] = a.at(i + k);
        n += (mask >> k) & 1;
    }
}

// The blocked merge below needs room for a whole block's lanes; it stops
// early when `out` cannot take them and the caller finishes entry by entry.
// Blocks of a and b are compared all pairs against all pairs; then the block
// with the smaller last entry moves on (both when they end alike): nothing
// after it can equal one of its entries. Each entry of a is written at most
// once when the lists ascend strictly.

#ifdef QUORVEX_MERGE_FOUR_AT_A_TIME
inline __m128i load_four(const PostingList& list, uint32 i) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(list.entries + 4 * size_t{i}));
}

// Four entries of each list at a time; b's block in its four rotations
// meets every entry of a's.
void merge_by_four(const PostingList& a, uint32& i, uint32 a_to, const PostingList& b, uint32& j, uint32 b_to,
                   uint32* out, uint32& n, uint32 capacity) {
    while (a_to - i >= 4 && b_to - j >= 4 && capacity - n >= 4) {
        __m128i four_a = load_four(a, i);
        __m128i four_b = load_four(b, j);
        __m128i equal = _mm_or_si128(
            _mm_or_si128(_mm_cmpeq_epi32(four_a, four_b),
                         _mm_cmpeq_epi32(four_a, _mm_shuffle_epi32(four_b, _MM_SHUFFLE(0, 3, 2, 1)))),
            _mm_or_si128(_mm_cmpeq_epi32(four_a, _mm_shuffle_epi32(four_b, _MM_SHUFFLE(1, 0, 3, 2))),
                         _mm_cmpeq_epi32(four_a, _mm_shuffle_epi32(four_b, _MM_SHUFFLE(2, 1, 0, 3)))));
        emit_lanes(a, i, static_cast<unsigned>(_mm_movemask_ps(_mm_castsi128_ps(equal))), 4, out, n);
        uint32 last_a = a.at(i + 3);
        uint32 last_b = b.at(j + 3);
        i += last_a <= last_b ? 4 : 0;
        j += last_b <= last_a ? 4 : 0;
    }
}

// For each mask of eight lanes, the lanes whose bit is set, in order, then
// the others: the order that packs a block's hits to its front.
struct PackOrder {
    int32_t lanes[256][8];
    constexpr PackOrder() : lanes() {
        for (unsigned mask = 0; mask < 256; ++mask) {
            int32_t next = 0;
            for (int32_t lane = 0; lane < 8; ++lane) {
                if ((mask >> lane) & 1) {
                    this->lanes[mask][next++] = lane;
                }
            }
            for (int32_t lane = 0; lane < 8; ++lane) {
                if (!((mask >> lane) & 1)) {
                    this->lanes[mask][next++] = lane;
                }
            }
        }
    }
};
constexpr PackOrder PACK_ORDER;

// Eight at a time where the processor has AVX2 (asked once, at run time):
// twice the entries per step of the loop, whose steps wait on each other.
__attribute__((target("avx2"))) void merge_by_eight(const PostingList& a, uint32& i, uint32 a_to,
                                                    const PostingList& b, uint32& j, uint32 b_to, uint32* out,
                                                    uint32& n, uint32 capacity) {
    const __m256i rotate = _mm256_setr_epi32(1, 2, 3, 4, 5, 6, 7, 0);
    while (a_to - i >= 8 && b_to - j >= 8 && capacity - n >= 8) {
        __m256i eight_a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(a.entries + 4 * size_t{i}));
        __m256i eight_b = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b.entries + 4 * size_t{j}));
        __m256i b1 = _mm256_permutevar8x32_epi32(eight_b, rotate);
        __m256i b2 = _mm256_permutevar8x32_epi32(b1, rotate);
        __m256i b3 = _mm256_permutevar8x32_epi32(b2, rotate);
        __m256i b4 = _mm256_permutevar8x32_epi32(b3, rotate);
        __m256i b5 = _mm256_permutevar8x32_epi32(b4, rotate);
        __m256i b6 = _mm256_permutevar8x32_epi32(b5, rotate);
        __m256i b7 = _mm256_permutevar8x32_epi32(b6, rotate);
        __m256i equal = _mm256_or_si256(
            _mm256_or_si256(_mm256_or_si256(_mm256_cmpeq_epi32(eight_a, eight_b), _mm256_cmpeq_epi32(eight_a, b1)),
                            _mm256_or_si256(_mm256_cmpeq_epi32(eight_a, b2), _mm256_cmpeq_epi32(eight_a, b3))),
            _mm256_or_si256(_mm256_or_si256(_mm256_cmpeq_epi32(eight_a, b4), _mm256_cmpeq_epi32(eight_a, b5)),
                            _mm256_or_si256(_mm256_cmpeq_epi32(eight_a, b6), _mm256_cmpeq_epi32(eight_a, b7))));
        // The hits of a's block packed to the front, all eight lanes
        // stored, `n` moved past the hits.
        unsigned mask = static_cast<unsigned>(_mm256_movemask_ps(_mm256_castsi256_ps(equal)));
        __m256i order = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(PACK_ORDER.lanes[mask]));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + n), _mm256_permutevar8x32_epi32(eight_a, order));
        n += static_cast<uint32>(__builtin_popcount(mask));
        uint32 last_a = a.at(i + 7);
        uint32 last_b = b.at(j + 7);
        i += last_a <= last_b ? 8 : 0;
        j += last_b <= last_a ? 8 : 0;
    }
}

#endif

std::atomic<int> width_limit{static_cast<int>(VectorWidth::Eight)};

}  // namespace

VectorWidth vector_width() {
#ifdef QUORVEX_MERGE_FOUR_AT_A_TIME
    static const int detected =
        static_cast<int>(__builtin_cpu_supports("avx2") ? VectorWidth::Eight : VectorWidth::Four);
#else
    static const int detected = static_cast<int>(VectorWidth::One);
#endif
    return static_cast<VectorWidth>(std::min(detected, width_limit.load(std::memory_order_relaxed)));
}

void limit_vector_width(VectorWidth width) { width_limit.store(static_cast<int>(width), std::memory_order_relaxed); }

uint32 intersect_by_merging(const PostingList& a, uint32 a_from, uint32 a_to, const PostingList& b, uint32 b_from,
                            uint32 b_to, uint32* out, uint32 capacity) {
    uint32 n = 0;
    uint32 i = a_from;
    uint32 j = b_from;
#ifdef QUORVEX_MERGE_FOUR_AT_A_TIME
    VectorWidth width = vector_width();
    if (width == VectorWidth::Eight) {
        merge_by_eight(a, i, a_to, b, j, b_to, out, n, capacity);
    }
    if (width != VectorWidth::One) {
        merge_by_four(a, i, a_to, b, j, b_to, out, n, capacity);
    }
#endif
    while (i < a_to && j < b_to) {
        uint32 x = a.at(i);
        uint32 y = b.at(j);
        if (x == y) {
            emit(out, n, capacity, x);
        }
        i += x <= y ? 1 : 0;
        j += y <= x ? 1 : 0;
    }
    return n;
}

uint32 intersect_by_seeking(const PostingList& a, uint32 a_from, uint32 a_to, const PostingList& b,
                            uint32& b_cursor, uint32* out, uint32 capacity) {
    uint32 n = 0;
    for (uint32 i = a_from; i < a_to; ++i) {
        uint32 entry = a.at(i);
        if (!b.seek(b_cursor, entry)) {
            break;
        }
        if (b.at(b_cursor) == entry) {
            emit(out, n, capacity, entry);
        }
    }
    return n;
}

namespace {

// keep_common's lookups, each from where the last one stopped. Candidates
// tend to lie a few dozen entries apart in the list, so the next eight
// entries are tried at once before galloping further.
uint32 keep_by_seeking(const PostingList& list, uint32& cursor, uint32* candidates, uint32 count, bool& exhausted) {
    uint32 kept = 0;
    for (uint32 k = 0; k < count; ++k) {
        if (!list.seek(cursor, candidates[k])) {
            exhausted = true;
            break;
        }
        if (list.at(cursor) == candidates[k]) {
            candidates[kept++] = candidates[k];
        }
    }
    return kept;
}

#ifdef QUORVEX_MERGE_FOUR_AT_A_TIME
__attribute__((target("avx2"))) uint32 keep_by_scanning_eight(const PostingList& list, uint32& cursor,
                                                              uint32* candidates, uint32 count, bool& exhausted) {
    uint32 kept = 0;
    for (uint32 k = 0; k < count; ++k) {
        uint32 wanted = candidates[k];
        __m256i wanted8 = _mm256_set1_epi32(static_cast<int>(wanted));
        int scans = 0;
        // Eight entries at a time, a few times, then galloping.
        while (scans < 4 && list.count - cursor >= 8) {
            __m256i eight = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(list.entries + 4 * size_t{cursor}));
            // entry >= wanted exactly where max(entry, wanted) == entry.
            __m256i not_below = _mm256_cmpeq_epi32(_mm256_max_epu32(eight, wanted8), eight);
            unsigned mask = static_cast<unsigned>(_mm256_movemask_ps(_mm256_castsi256_ps(not_below)));
            if (mask != 0) {
                cursor += static_cast<uint32>(__builtin_ctz(mask));
                break;
            }
            cursor += 8;
            ++scans;
        }
        if (!list.seek(cursor, wanted)) {
            exhausted = true;
            break;
        }
        if (list.at(cursor) == wanted) {
            candidates[kept++] = wanted;
        }
    }
    return kept;
}
#endif

}  // namespace

uint32 keep_common(const PostingList& list, uint32& cursor, uint32* candidates, uint32 count, bool& exhausted) {
#ifdef QUORVEX_MERGE_FOUR_AT_A_TIME
    // Where the candidates lie only a few entries apart in the list, both
    // are stepped through side by side, as the two shortest lists were (on
    // this little-endian host the candidates read as a list themselves).
    if (count > 0 && count <= MAX_CANDIDATES && vector_width() != VectorWidth::One) {
        uint32 end = cursor;
        list.seek_past(end, candidates[count - 1]);
        if ((end - cursor) / DENSE_RATIO <= count) {
            PostingList own{reinterpret_cast<const uint8*>(candidates), count};
            uint32 kept[MAX_CANDIDATES];
            uint32 kept_count = intersect_by_merging(own, 0, count, list, cursor, end, kept, MAX_CANDIDATES);
            std::memcpy(candidates, kept, kept_count * sizeof(uint32));
            cursor = end;
            if (end >= list.count) {
                exhausted = true;
            }
            return kept_count;
        }
    }
    if (vector_width() == VectorWidth::Eight) {
        return keep_by_scanning_eight(list, cursor, candidates, count, exhausted);
    }
#endif
    return keep_by_seeking(list, cursor, candidates, count, exhausted);
}

}  // namespace Lexarium::Reader
