#ifndef QUORVEX_RC_H
#define QUORVEX_RC_H

#include <cstddef>
#include <cstdint>
#include <new>
#include <utility>

#include "SmallBlocks.h"

// Shared state of one Rc: the count of handles and the object they share.
// The state owns the object and deletes it through T's own destructor, so a
// polymorphic T is destroyed through its virtual destructor. make_rc()
// builds a state and its object together in one block, the object right
// after the state ("inline"); an object handed to Rc's constructor never
// sits there, so where the object lives tells which kind a state is.
template <typename T>
struct _RcState {
    uint64_t ref_count;
    T* object;

    _RcState(T* object_) : ref_count(1), object(object_) {}
    ~_RcState() { delete object; }
    _RcState(const _RcState&) = delete;
    _RcState& operator=(const _RcState&) = delete;

    // Where an inline object starts, and the size of the block holding both.
    static constexpr std::size_t INLINE_OFFSET = (sizeof(_RcState) + alignof(T) - 1) / alignof(T) * alignof(T);
    static constexpr std::size_t INLINE_SIZE = INLINE_OFFSET + sizeof(T);
    const void* inline_place() const noexcept { return reinterpret_cast<const char*>(this) + INLINE_OFFSET; }

    // Destroys the state and its object. Kept out of line on purpose: when a
    // caller's handles are all inlined, g++ cannot see that the count keeps
    // the other copies from reaching a freed state, and its use-after-free
    // warning would fire in every program that copies a handle.
    __attribute__((noinline)) static void destroy(_RcState* state) noexcept {
        if (static_cast<const void*>(state->object) == state->inline_place()) {
            // The state itself holds nothing else to destroy.
            state->object->~T();
            quorvex_small_block_release(state, INLINE_SIZE);
        } else {
            delete state;
        }
    }

    // States are two words: they come from the small-block pool.
    static void* operator new(std::size_t size) { return quorvex_small_block_allocate(size); }
    static void operator delete(void* block, std::size_t size) noexcept { quorvex_small_block_release(block, size); }
};



// Rc<T>: the library's reference-counted handle. One pointer wide; copies
// share one _RcState. The count is a plain integer: a handle and all of its
// copies belong to one thread at a time.
template <typename T>
class Rc {
public:
    // The null handle.
    Rc() noexcept : state(nullptr) {}

    // Takes ownership of `object`, which was just allocated with new. If the
    // state block cannot be allocated, `object` is deleted and bad_alloc
    // propagates, so nothing leaks.
    explicit Rc(T* object) : state(nullptr) {
        try {
            this->state = new _RcState<T>(object);
            if (static_cast<const void*>(object) == this->state->inline_place()) {
                // The object happens to follow this state: take another
                // state, so that the object is not taken for an inline one.
                _RcState<T>* other = new _RcState<T>(object);
                this->state->object = nullptr;
                delete this->state;
                this->state = other;
            }
        } catch (...) {
            delete object;
            throw;
        }
    }

    Rc(const Rc& other) noexcept : state(other.state) {
        if (this->state != nullptr) {
            ++this->state->ref_count;
        }
    }

    Rc(Rc&& other) noexcept : state(other.state) { other.state = nullptr; }

    // Takes the new reference before releasing the old one, so assigning a
    // handle to itself (or to a copy of itself) is safe.
    Rc& operator=(const Rc& other) noexcept {
        if (other.state != nullptr) {
            ++other.state->ref_count;
        }
        this->_unref();
        this->state = other.state;
        return *this;
    }

    Rc& operator=(Rc&& other) noexcept {
        if (this != &other) {
            this->_unref();
            this->state = other.state;
            other.state = nullptr;
        }
        return *this;
    }

    ~Rc() { this->_unref(); }

    // Releases this handle's reference. The last reference destroys the
    // object and the state and nulls this handle; otherwise the handle keeps
    // its now stale pointer, so _unref() must only end a handle's life (the
    // destructor and the assignments are its only callers in the library).
    void _unref() noexcept {
        if (this->state == nullptr) {
            return;
        }
        if (this->state->ref_count-- > 1) {
            return;
        }
        _RcState<T>::destroy(this->state);
        this->state = nullptr;
    }

    // Access makes no null check: dereferencing a null handle is a bug.
    T* operator->() const noexcept { return this->state->object; }
    T& operator*() const noexcept { return *this->state->object; }

    // The object, or null for a null handle.
    T* get() const noexcept { return this->state == nullptr ? nullptr : this->state->object; }
    explicit operator bool() const noexcept { return this->get() != nullptr; }
    bool is_null() const noexcept { return this->state == nullptr; }

    // How many handles share the object; 0 for a null handle.
    uint64_t get_ref_count() const noexcept { return this->state == nullptr ? 0 : this->state->ref_count; }

private:
    template <typename U, typename... Args>
    friend Rc<U> make_rc(Args&&... args);

    explicit Rc(_RcState<T>* state_) noexcept : state(state_) {}

    _RcState<T>* state;
};

// Builds a T from `args` and hands it out in a fresh handle (count 1). The
// object and the handle's shared state share one block (for objects of up
// to 16 bytes, one from the small-block pool): one allocation, not two.
template <typename T, typename... Args>
Rc<T> make_rc(Args&&... args) {
    if constexpr (alignof(T) > alignof(std::max_align_t)) {
        return Rc<T>(new T(std::forward<Args>(args)...));
    } else {
        void* block = quorvex_small_block_allocate(_RcState<T>::INLINE_SIZE);
        T* object;
        try {
            object = ::new (static_cast<char*>(block) + _RcState<T>::INLINE_OFFSET) T(std::forward<Args>(args)...);
        } catch (...) {
            quorvex_small_block_release(block, _RcState<T>::INLINE_SIZE);
            throw;
        }
        return Rc<T>(::new (block) _RcState<T>(object));
    }
}

#endif
