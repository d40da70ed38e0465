#include "Assertions.h"
#include "Reader/SearchResult.h"

namespace Lexarium::Reader {

SearchResult::SearchResult(Rc<ByteArray> key_, Rc<ByteArray> value_) : key(std::move(key_)), value(std::move(value_)) {}

}  // namespace Lexarium::Reader
