#include "corvalin_lib/owner.h"

#include <memory>
#include <string>
#include <thread>
#include <utility>

#include <gtest/gtest.h>

namespace {

using corvalin::Owner;

/// Tells at its end what its owner shows then.
struct Owned {
    Owned(const Owner<Owned>* its_owner, const Owned** its_seen) : owner(its_owner), seen(its_seen) {}
    ~Owned() { *seen = owner->get(); }

    const Owner<Owned>* owner;
    const Owned** seen;
};

TEST(OwnerTest, a_new_owner_is_null) {
    const Owner<int> owner;
    EXPECT_FALSE(owner);
    EXPECT_EQ(owner.get(), nullptr);
}

TEST(OwnerTest, an_object_is_kept_until_the_next_one) {
    Owner<std::string> owner;
    owner.reset(std::make_unique<std::string>("first"));
    EXPECT_TRUE(owner);
    EXPECT_EQ(owner->size(), 5u);
    owner.reset(std::make_unique<std::string>("second"));
    EXPECT_EQ(*owner.get(), "second");
    owner.reset();
    EXPECT_FALSE(owner);
}

TEST(OwnerTest, an_object_that_is_reset_is_out_of_sight_before_it_ends) {
    Owner<Owned> owner;
    const Owned* seen = nullptr;
    auto object = std::make_unique<Owned>(&owner, &seen);
    seen = object.get();
    owner.reset(std::move(object));
    owner.reset();
    EXPECT_EQ(seen, nullptr);
}

TEST(OwnerTest, an_object_that_ends_with_its_owner_is_in_sight_until_then) {
    const Owned* seen = nullptr;
    const Owned* object = nullptr;
    {
        Owner<Owned> owner;
        owner.reset(std::make_unique<Owned>(&owner, &seen));
        object = owner.get();
    }
    EXPECT_EQ(seen, object);
}

// Shows something under ThreadSanitizer.
TEST(OwnerTest, who_sees_the_object_sees_it_as_it_was_built) {
    Owner<std::string> owner;
    std::string seen;
    std::thread reader([&] {
        while (!owner) {
            std::this_thread::yield();
        }
        seen = *owner.get();
    });
    owner.reset(std::make_unique<std::string>("a text that is too long to be kept in the object"));
    reader.join();
    EXPECT_EQ(seen, *owner.get());
}

} // namespace
