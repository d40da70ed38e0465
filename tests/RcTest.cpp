#include <gtest/gtest.h>

#include <new>

#include "TestSupport.h"
#include "TypeDefinitions.h"

namespace {

// Counts its destructions into a counter owned by the test.
struct Tracked {
    explicit Tracked(int* destroyed_) : destroyed(destroyed_) {}
    virtual ~Tracked() { ++*destroyed; }
    int* destroyed;
};

struct DerivedTracked : Tracked {
    DerivedTracked(int* destroyed_, int* derived_destroyed_) : Tracked(destroyed_), derived_destroyed(derived_destroyed_) {}
    ~DerivedTracked() override { ++*derived_destroyed; }
    int* derived_destroyed;
};

}  // namespace

// A handle is one pointer wide; its state two words, from the small-block pool.
static_assert(sizeof(Rc<ByteArray>) == sizeof(void*));
static_assert(sizeof(_RcState<ByteArray>) == 2 * sizeof(void*));

TEST(Rc, NullHandlesCopyAsNullWithoutCounting) {
    Rc<Tracked> empty;
    Rc<Tracked> copy(empty);
    Rc<Tracked> assigned;
    assigned = empty;
    EXPECT_TRUE(copy.is_null() && assigned.is_null());
    EXPECT_EQ(copy.get(), nullptr);
    EXPECT_EQ(copy.get_ref_count(), 0u);
    copy._unref();  // releasing a null handle does nothing
    EXPECT_TRUE(copy.is_null());
}

// Copies share one object, destroyed once, by the last handle, through its
// virtual destructor.
TEST(Rc, CopiesShareOneObjectDestroyedByTheLast) {
    int destroyed = 0;
    int derived_destroyed = 0;
    {
        Rc<Tracked> first(new DerivedTracked(&destroyed, &derived_destroyed));
        EXPECT_EQ(first.get_ref_count(), 1u);
        {
            Rc<Tracked> second(first);
            Rc<Tracked> third = second;
            EXPECT_EQ(first.get(), third.get());
            EXPECT_EQ(first.get_ref_count(), 3u);
        }
        EXPECT_EQ(first.get_ref_count(), 1u);
        EXPECT_EQ(destroyed, 0);
    }
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(derived_destroyed, 1);
}

// _unref() ends a handle's life: the last one destroys the object and nulls
// its handle. (These handles live in raw storage, whose destructors never run.)
TEST(Rc, ExplicitUnrefDestroysOnceAtZeroAndNullsThatHandle) {
    int destroyed = 0;
    alignas(Rc<Tracked>) unsigned char storage[2][sizeof(Rc<Tracked>)];
    auto* first = new (storage[0]) Rc<Tracked>(new Tracked(&destroyed));
    auto* second = new (storage[1]) Rc<Tracked>(*first);
    first->_unref();
    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(second->get_ref_count(), 1u);
    second->_unref();
    EXPECT_EQ(destroyed, 1);
    EXPECT_TRUE(second->is_null());
}

TEST(Rc, AssignmentTakesTheNewReferenceBeforeReleasingTheOld) {
    int destroyed_a = 0;
    int destroyed_b = 0;
    Rc<Tracked> a(new Tracked(&destroyed_a));
    Rc<Tracked> b(new Tracked(&destroyed_b));
    a = a;  // self-assignment keeps the object
    EXPECT_EQ(destroyed_a, 0);
    EXPECT_EQ(a.get_ref_count(), 1u);
    Rc<Tracked> a_copy = a;
    a_copy = a_copy;
    EXPECT_EQ(a.get_ref_count(), 2u);

    a = b;
    EXPECT_EQ(destroyed_a, 0);  // a_copy still holds it
    EXPECT_EQ(b.get_ref_count(), 2u);
    a_copy = b;
    EXPECT_EQ(destroyed_a, 1);
    EXPECT_EQ(b.get_ref_count(), 3u);

    Rc<Tracked> moved(std::move(a));
    EXPECT_TRUE(a.is_null());
    EXPECT_EQ(b.get_ref_count(), 3u);
    moved = std::move(a_copy);
    EXPECT_EQ(b.get_ref_count(), 2u);
    EXPECT_EQ(destroyed_b, 0);
}

// make_rc() puts the object in the state's own block; copies, the count and
// the one destruction behave as for a handle made from a new object.
TEST(Rc, MadeHandlesShareTheStatesBlockAndDestroyOnce) {
    int destroyed = 0;
    {
        Rc<Tracked> made = make_rc<Tracked>(&destroyed);
        Rc<Tracked> copy = made;
        EXPECT_EQ(made.get_ref_count(), 2u);
        EXPECT_EQ(copy.get(), made.get());
        Rc<Tracked> other(new Tracked(&destroyed));
        copy = other;  // the made object loses one handle, not its life
        EXPECT_EQ(destroyed, 0);
        EXPECT_EQ(made.get_ref_count(), 1u);
    }
    EXPECT_EQ(destroyed, 2);

    Rc<ByteArray> array = make_rc<ByteArray>(3u);
    array->data[2] = 9;
    EXPECT_EQ(array->length, 3u);
    Rc<ByteArray> view = array->borrow(1, 2);  // made by make_rc() too
    EXPECT_EQ(view->data[1], 9);
}
