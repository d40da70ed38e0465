#ifndef QUORVEX_READER_SEARCH_RESULT_H
#define QUORVEX_READER_SEARCH_RESULT_H

#include "TypeDefinitions.h"

namespace Lexarium::Reader {

// SearchResult: one hit of a search. Both arrays are borrowed views into the
// reader's key and data blobs, without headers: `key` is the key's UTF-8
// text, `value` the value's bytes. They keep nothing alive, so a result is
// read only while the reader (or whoever else holds its key and data
// arrays) lives.
class QUORVEX_API SearchResult {
public:
    Rc<ByteArray> key;
    Rc<ByteArray> value;

    SearchResult(Rc<ByteArray> key, Rc<ByteArray> value);

    // A search makes one per hit: they come from the small-block pool.
    static void* operator new(std::size_t size);
    static void operator delete(void* result, std::size_t size) noexcept;
};

}  // namespace Lexarium::Reader

#endif
