#include <gtest/gtest.h>

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

// Copies share one object, destroyed once by the last handle through its
// virtual destructor, whether it was made with new or by make_rc(); null
// handles copy as null and count nothing.
TEST(Rc, CopiesShareOneObjectDestroyedByTheLast) {
    int destroyed = 0;
    int derived_destroyed = 0;
    {
        Rc<Tracked> first(new DerivedTracked(&destroyed, &derived_destroyed));
        Rc<Tracked> made = make_rc<Tracked>(&destroyed);
        {
            Rc<Tracked> second(first);
            Rc<Tracked> third = second;
            Rc<Tracked> made_copy = made;
            EXPECT_EQ(first.get_ref_count(), 3u);
            EXPECT_EQ(made.get_ref_count(), 2u);
        }
        EXPECT_EQ(first.get_ref_count(), 1u);
        EXPECT_EQ(destroyed, 0);
        Rc<Tracked> empty;
        Rc<Tracked> empty_copy(empty);
        EXPECT_TRUE(empty_copy.is_null());
        EXPECT_EQ(empty_copy.get_ref_count(), 0u);
    }
    EXPECT_EQ(destroyed, 2);
    EXPECT_EQ(derived_destroyed, 1);
}

// Assignment takes the new reference before releasing the old, so
// self-assignment keeps the object; moves transfer without counting.
TEST(Rc, AssignmentTakesTheNewReferenceBeforeReleasingTheOld) {
    int destroyed_a = 0;
    int destroyed_b = 0;
    Rc<Tracked> a(new Tracked(&destroyed_a));
    Rc<Tracked> b(new Tracked(&destroyed_b));
    Rc<Tracked> a_copy = a;
    a_copy = a_copy;
    EXPECT_EQ(a.get_ref_count(), 2u);
    a = b;
    EXPECT_EQ(destroyed_a, 0);  // a_copy still holds it
    a_copy = b;
    EXPECT_EQ(destroyed_a, 1);
    EXPECT_EQ(b.get_ref_count(), 3u);
    Rc<Tracked> moved(std::move(a));
    EXPECT_TRUE(a.is_null());
    moved = std::move(a_copy);
    EXPECT_EQ(b.get_ref_count(), 2u);
    moved = Rc<Tracked>();
    EXPECT_EQ(b.get_ref_count(), 1u);
    EXPECT_EQ(destroyed_b, 0);
}
