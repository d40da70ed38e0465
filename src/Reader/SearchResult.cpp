#include "Assertions.h"
#include "Reader/SearchResult.h"

namespace Lexarium::Reader {

SearchResult::SearchResult(Rc<ByteArray> key_, Rc<ByteArray> value_) : key(std::move(key_)), value(std::move(value_)) {}

void* SearchResult::operator new(std::size_t size) { return quorvex_small_block_allocate(size); }

void SearchResult::operator delete(void* result, std::size_t size) noexcept {
    quorvex_small_block_release(result, size);
}

}  // namespace Lexarium::Reader
