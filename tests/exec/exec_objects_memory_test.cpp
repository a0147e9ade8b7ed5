#include <gtest/gtest.h>
#include <unistd.h>

#include <limits>

#include "exec/commands.h"
#include "exec/texec.h"
#include "support/allocations.h"

using frask::Handle;
using frask::sys::TEArgs;
using frask::sys::TExec;
using frask::sys::TRedirect;
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

TEST(ExecuteWithoutMemory, StartsTheProgramOrThrows) {
  const TExec redirecting = testexec::shell("exit 7") & TRedirect(5, 2);
  for (const bool forks : {false, true}) {
    const TExec plain = forks ? testexec::forked(redirecting) : redirecting;
    int borne = 0;
    for (unsigned skipped = 0;; ++skipped) {
      SCOPED_TRACE(skipped);
      const testsupport::Outcome outcome = testexec::alone([&] {
        TExec redirected = plain;
        fail_allocations(skipped);
        const int result = redirected.execute().result;
        const bool failed = stop_failing_allocations();
        if (result == testexec::kFailedInChild) _exit(result);
        _exit(result == 7 ? 40 + static_cast<int>(failed) : 42);
      });
      if (outcome.exit_code() == 40) break;
      borne += static_cast<int>(outcome.exit_code() == 41);
      if (outcome.exit_code() != 41) {
        EXPECT_EQ(outcome.err, "std::bad_alloc") << outcome;
      }
      ASSERT_LT(skipped, 1000U);
    }
    EXPECT_GT(borne, 0) << "a start without a fork falls back on the fork";
  }
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

TEST(ReadFromStrWithoutMemory, FeedsTheTextAllTheSame) {
  /// In the child, before the text's process is forked.
  class Exhausting : public TExec::TPrepare {
    void aft_fork4d(TExec&) override { fail_allocations(0, std::numeric_limits<unsigned>::max()); }
  };
  /// Behind it, for what exec needs.
  class Relieving : public TExec::TPrepare {
    void aft_fork4d(TExec&) override { stop_failing_allocations(); }
  };
  const testsupport::Outcome outcome = testexec::alone([] {
    TExec fed = command({"cat"}) * Handle<TExec::TPrepare>(new Exhausting)
                << std::string(200000, 'x');
    fed += Handle<TExec::TPrepare>(new Relieving);
    _exit(fed.execute().result);
  });
  EXPECT_EQ(outcome.exit_code(), 0);
  EXPECT_TRUE(outcome.out == std::string(200000, 'x')) << outcome.out.size() << " bytes";
}
