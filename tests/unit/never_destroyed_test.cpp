#include "corvalin_lib/never_destroyed.h"

#include <gtest/gtest.h>

#include <new>

namespace {

using corvalin::NeverDestroyed;

struct Counted {
    Counted(int first, int& destroyed_times) : value(first), destroyed(destroyed_times) {}
    ~Counted() { ++destroyed; }
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;

    int value;
    int& destroyed;
};

TEST(NeverDestroyedTest, builds_its_object_from_the_arguments_and_leaves_it_alive) {
    int destroyed = 0;
    alignas(NeverDestroyed<Counted>) unsigned char place[sizeof(NeverDestroyed<Counted>)];
    auto* const holder = new (place) NeverDestroyed<Counted>(7, destroyed);
    Counted& object = holder->object;
    EXPECT_EQ(object.value, 7);

    holder->~NeverDestroyed<Counted>();

    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(object.value, 7);
}

// Without this the object would be built at run time, and a statement that comes before would meet zeros.
struct Constant {
    constexpr explicit Constant(int first) : value(first) {}
    int value;
};
constinit NeverDestroyed<Constant> constant(9);

TEST(NeverDestroyedTest, may_hold_a_constant_initialised_object) {
    EXPECT_EQ(constant.object.value, 9);
}

} // namespace
