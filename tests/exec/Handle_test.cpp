#include "exec/Handle.h"

#include <gtest/gtest.h>

#include <vector>

using frask::Handle;

namespace {

/// Counts how often it is destroyed.
class Watched {
 public:
  explicit Watched(int* destroyed) : destroyed_(destroyed) {}
  Watched(const Watched&) = delete;
  Watched& operator=(const Watched&) = delete;
  virtual ~Watched() { ++*destroyed_; }

 private:
  int* destroyed_;
};

class Derived : public Watched {
 public:
  Derived(int* base, int* derived) : Watched(base), derived_(derived) {}
  Derived(const Derived&) = delete;
  Derived& operator=(const Derived&) = delete;
  ~Derived() override { ++*derived_; }

 private:
  int* derived_;
};

}  // namespace

TEST(Handle, HasTwoMembersBothPointers) {
  EXPECT_EQ(sizeof(Handle<Watched>), 2 * sizeof(void*));
}

TEST(Handle, IsEmptyWithACountOfOneByDefault) {
  const Handle<Watched> handle;
  EXPECT_EQ(handle.get(), nullptr);
  EXPECT_FALSE(handle);
  EXPECT_EQ(handle.count(), 1U);
}

TEST(Handle, GivesItsObject) {
  const Handle<int> handle(new int(7));
  EXPECT_TRUE(handle);
  EXPECT_EQ(*handle, 7);
  *handle = 8;
  EXPECT_EQ(*handle.get(), 8);
  EXPECT_EQ(handle.operator->(), handle.get());
}

TEST(Handle, SharesObjectAndCountWithItsCopies) {
  const Handle<int> first(new int(7));
  EXPECT_EQ(first.count(), 1U);
  {
    const std::vector<Handle<int>> copies(2, first);
    EXPECT_EQ(copies[0].get(), first.get());
    EXPECT_EQ(first.count(), 3U);
    EXPECT_EQ(copies[1].count(), 3U);
  }
  EXPECT_EQ(first.count(), 1U);
}

TEST(Handle, DeletesTheObjectWithItsLastOwnerAndOnlyOnce) {
  int destroyed = 0;
  {
    std::vector<Handle<Watched>> owners(3, Handle<Watched>(new Watched(&destroyed)));
    owners.erase(owners.begin(), owners.begin() + 2);
    EXPECT_EQ(destroyed, 0) << "one owner is left";
  }
  EXPECT_EQ(destroyed, 1);
}

TEST(Handle, DeletesADerivedObjectWhole) {
  int base = 0;
  int derived = 0;
  { const Handle<Watched> handle(new Derived(&base, &derived)); }
  EXPECT_EQ(derived, 1);
  EXPECT_EQ(base, 1);
}

TEST(Handle, LetsGoOfItsObjectOnAssignment) {
  int first_destroyed = 0;
  int second_destroyed = 0;
  Handle<Watched> first(new Watched(&first_destroyed));
  const Handle<Watched> second(new Watched(&second_destroyed));
  first = second;
  EXPECT_EQ(first_destroyed, 1);
  EXPECT_EQ(second_destroyed, 0);
  EXPECT_EQ(first.get(), second.get());
  EXPECT_EQ(second.count(), 2U);
}

TEST(Handle, KeepsItsObjectOnSelfAssignment) {
  int destroyed = 0;
  Handle<Watched> handle(new Watched(&destroyed));
  const Handle<Watched>& alias = handle;
  handle = alias;
  EXPECT_EQ(destroyed, 0);
  EXPECT_EQ(handle.count(), 1U);
  EXPECT_TRUE(handle);
}

TEST(Handle, KeepsTheCountWhenAssignedACopyOfItself) {
  int destroyed = 0;
  Handle<Watched> handle(new Watched(&destroyed));
  const Handle<Watched> copy(handle);
  handle = copy;
  EXPECT_EQ(destroyed, 0);
  EXPECT_EQ(handle.count(), 2U);
}

TEST(Handle, MayBeEmptyInEveryRole) {
  int destroyed = 0;
  Handle<Watched> empty(nullptr);
  const Handle<Watched> copy(empty);
  EXPECT_EQ(copy.count(), 2U);
  Handle<Watched> full(new Watched(&destroyed));
  full = empty;
  EXPECT_EQ(destroyed, 1);
  EXPECT_FALSE(full);
  EXPECT_EQ(copy.count(), 3U);
  empty = Handle<Watched>(new Watched(&destroyed));
  EXPECT_TRUE(empty);
  EXPECT_EQ(copy.count(), 2U);
}
