#ifndef QUORVEX_CAPI_INTERNAL_H
#define QUORVEX_CAPI_INTERNAL_H

#include <string>
#include <vector>

#include "TypeDefinitions.h"

// Helpers of the C interface that are not exported.

// One owning array holding `chunks` concatenated in order (length 0 for no
// chunks). A list of exactly one owning chunk is handed back as it is,
// without a copy; the chunks are never changed.
Rc<ByteArray> joinByteArrays(std::vector<Rc<ByteArray>>* chunks);

// A std::string copy of the C string `text`. NULL throws std::logic_error
// with the standard library's own words for it.
std::string string_from_c(const char* text);

#endif
