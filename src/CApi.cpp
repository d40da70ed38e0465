#include "Assertions.h"
#include "CApi.h"

#include <cstring>
#include <memory>

#include "TypeDefinitions.h"

// Every handle is a heap record with one field, `rc`, pointing at a heap
// Rc<T> that holds one reference to the object. make_handle() and
// release_handle() are the only places that build and tear them down.
struct ByteArrayHandle {
    Rc<ByteArray>* rc;
};

namespace {

template <typename Handle, typename T>
Handle* make_handle(Rc<T> object) {
    std::unique_ptr<Handle> handle(new Handle{nullptr});
    handle->rc = new Rc<T>(std::move(object));
    return handle.release();
}

template <typename Handle>
void release_handle(Handle* handle) {
    if (handle == nullptr) {
        return;
    }
    delete handle->rc;
    delete handle;
}

}  // namespace

extern "C" {

ByteArrayHandle* byte_array_new_empty(uint32_t length) {
    return make_handle<ByteArrayHandle>(Rc<ByteArray>(new ByteArray(length)));
}

ByteArrayHandle* byte_array_new_on_user_data(uint8_t* data, uint32_t length) {
    // Marked borrowed before it is wrapped, so that no failure path can ever
    // free the caller's bytes.
    std::unique_ptr<ByteArray> view(new ByteArray(data, length));
    view->is_borrowed = true;
    return make_handle<ByteArrayHandle>(Rc<ByteArray>(view.release()));
}

ByteArrayHandle* byte_array_new_clone_from(const uint8_t* data, uint32_t length) {
    Rc<ByteArray> array(new ByteArray(length));
    if (length != 0) {
        std::memcpy(array->data, data, length);
    }
    return make_handle<ByteArrayHandle>(std::move(array));
}

ByteArrayHandle* byte_array_new_borrow_from(ByteArrayHandle* source, uint32_t offset, uint32_t count) {
    Rc<ByteArray> keep_source = *source->rc;
    return make_handle<ByteArrayHandle>(keep_source->borrow(offset, count));
}

uint32_t byte_array_get_length(ByteArrayHandle* array) { return (*array->rc)->length; }

uint32_t byte_array_get_bytes(ByteArrayHandle* array, uint8_t** bytes) {
    *bytes = (*array->rc)->data;
    return (*array->rc)->length;
}

void byte_array_free(ByteArrayHandle* array) { release_handle(array); }

}  // extern "C"
