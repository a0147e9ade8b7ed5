#include <gtest/gtest.h>

#include "exec/commands.h"
#include "exec/texec.h"
#include "support/allocations.h"

using frask::Handle;
using frask::sys::TEArgs;
using frask::sys::TExec;
using testexec::command;
using testsupport::fail_allocations;
using testsupport::stop_failing_allocations;

namespace {

class Watched {
 public:
  explicit Watched(int* destroyed) : destroyed_(destroyed) {}
  Watched(const Watched&) = delete;
  Watched& operator=(const Watched&) = delete;
  ~Watched() { ++*destroyed_; }

 private:
  int* destroyed_;
};

}  // namespace

TEST(HandleWithoutMemory, DeletesTheObjectThatItWasGiven) {
  int destroyed = 0;
  auto* const object = new Watched(&destroyed);
  fail_allocations(0);
  EXPECT_THROW(Handle<Watched>{object}, std::bad_alloc);
  ASSERT_TRUE(stop_failing_allocations());
  EXPECT_EQ(destroyed, 1);
}

TEST(TEArgsWithoutMemory, StayAsTheyWere) {
  const TEArgs three = testexec::arguments({"a", "b", std::string(100, 'c')});
  for (unsigned skipped = 0;; ++skipped) {
    SCOPED_TRACE(skipped);
    TEArgs args = three;
    fail_allocations(skipped);
    bool thrown = false;
    try {
      args.push_back(three);
    } catch (const std::bad_alloc&) {
      thrown = true;
    }
    const bool failed = stop_failing_allocations();
    EXPECT_EQ(thrown, failed);
    EXPECT_EQ(args.size(), failed ? 3U : 6U);
    EXPECT_EQ(three.size(), 3U);
    if (!failed) break;
  }
}

TEST(ExecuteWithoutMemory, ThrowsAndStartsNothing) {
  TExec plain = command({"true"});
  fail_allocations(0);
  EXPECT_THROW(plain.execute(), std::bad_alloc);
  EXPECT_TRUE(stop_failing_allocations());
  EXPECT_TRUE(testexec::childless());
}

TEST(ExecuteWithoutMemory, ThrowsTheHooksErrorAlthoughTheChildCannotBeNoted) {
  class Throwing : public TExec::TPrepare {
    void aft_fork4p(TExec&) override {
      fail_allocations(1);  // the one that is skipped is the exception's own
      throw 20;
    }
  };
  TExec plain = command({"true"}) * Handle<TExec::TPrepare>(new Throwing);
  EXPECT_THROW(plain.execute(), int);
  EXPECT_TRUE(stop_failing_allocations()) << "the note of the child";
  EXPECT_FALSE(testexec::childless()) << "which is therefore not collected";
  testexec::await_end_of_a_child();
  command({"true"}).execute();
  EXPECT_FALSE(testexec::childless());
}
