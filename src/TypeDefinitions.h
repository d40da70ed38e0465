#ifndef QUORVEX_TYPE_DEFINITIONS_H
#define QUORVEX_TYPE_DEFINITIONS_H

#include <cstdint>

#include "Export.h"
#include "Rc.h"

typedef uint8_t uint8;
typedef uint16_t uint16;
typedef uint32_t uint32;
typedef int64_t int64;

// ByteArray: the one byte buffer of the library. It either owns its bytes
// (allocated as an array of `length` bytes, freed by the destructor) or, with
// `is_borrowed` set, views bytes that belong to somebody else and never frees
// them. A view keeps nothing alive: whoever made it must keep the viewed
// bytes valid for as long as the view is read.
class QUORVEX_API ByteArray {
public:
    uint8* data;
    uint32 length;
    bool is_borrowed;

    // Allocates `length` uninitialised bytes and owns them. A length of 0
    // still yields a distinct, non-null allocation. Throws std::bad_alloc.
    explicit ByteArray(uint32 length);

    // Records `data` and `length` without copying and takes ownership: the
    // bytes must come from new uint8[length]. A caller that must keep its
    // bytes sets `is_borrowed` to true right away.
    ByteArray(uint8* data, uint32 length);

    // Moving hands the bytes (and their ownership) over; the source is left
    // empty and borrowed. Copying is forbidden: two owners would free twice.
    ByteArray(ByteArray&& other) noexcept;
    ByteArray(const ByteArray&) = delete;
    ByteArray& operator=(const ByteArray&) = delete;
    ByteArray& operator=(ByteArray&&) = delete;

    ~ByteArray();

    // Array records are small and made by the thousand on the search path:
    // they come from the small-block pool (the bytes themselves do not).
    static void* operator new(std::size_t size);
    static void operator delete(void* record, std::size_t size) noexcept;

    // A new, separately counted view of `count` bytes from data + `offset`.
    // The view does not keep this array alive. `offset` + `count` is summed
    // modulo 2^32 and must not exceed `length`, or the process stops with
    // the assertion "offset + count <= this->length".
    Rc<ByteArray> borrow(uint32 offset, uint32 count) const;

    // The same view as borrow(), by value, for short-lived use on the search
    // path; same range check.
    ByteArray create_readonly_view(uint32 offset, uint32 count);
};

#endif
