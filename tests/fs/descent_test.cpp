#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <utility>

#include "fs/descent.private.h"
#include "support/few_descriptors.h"
#include "support/scratch.h"
#include "tree_support.h"

namespace {

using frask::Descent;
using frask::UniqueFd;
using testsupport::ScratchDir;

constexpr int kGood = 40;

/// Runs `body` where "a/b/c/d" is below the working directory, and expects it to be good.
void expect_good(const std::function<bool(Descent&)>& body) {
  const ScratchDir scratch;
  std::filesystem::create_directories(scratch / "a/b/c/d");
  EXPECT_EQ(testsupport::in_child([&] {
              if (chdir(scratch.path().c_str()) != 0) _exit(97);
              Descent descent(UniqueFd(open(".", O_PATH | O_CLOEXEC)), "a");
              _exit(body(descent) ? kGood : 1);
            }),
            fstest::ended(kGood, ""));
}

/// Enters the directory in hand and takes its first entry in hand.
bool go_down(Descent& descent) {
  std::unique_ptr<Descent::Level> opened = descent.open();
  if (!opened || !descent.enter(std::move(opened))) return false;
  descent.present()->dir.next();
  return true;
}

/// Leaves the present directory for the one above it.
bool go_up(Descent& descent) {
  descent.leave();
  return descent.return_to_present();
}

std::string here() {
  return std::filesystem::current_path().filename();
}

TEST(Descent, StandsInTheDirectoryThatHoldsTheEntryInHand) {
  expect_good([](Descent& descent) {
    const std::string start = here();
    bool good = descent.present() == nullptr && descent.name() == std::string("a");
    good = good && go_down(descent) && here() == "a" && descent.name() == std::string("b");
    good = good && go_down(descent) && here() == "b" && descent.name() == std::string("c");
    good = good && go_up(descent) && here() == "a" && descent.name() == std::string("b");
    return good && go_up(descent) && here() == start && descent.name() == std::string("a");
  });
}

TEST(Descent, SparesDescriptorsFromTheBottomUp) {
  expect_good([](Descent& descent) {
    for (int level = 0; level < 3; ++level)
      if (!go_down(descent)) return false;
    const Descent::Level* c = descent.present();
    const Descent::Level* b = c->above.get();
    const Descent::Level* a = b->above.get();
    testsupport::allow_descriptors(0);
    errno = E2BIG;
    bool good = descent.reserve(1) && errno == E2BIG;
    good = good && c->detached() && !b->detached() && !a->detached();
    good = good && descent.reserve(2) && b->detached() && !a->detached();
    good = good && descent.reserve(2) && !a->detached();
    return good && here() == "c" && descent.dir_fd() == AT_FDCWD &&
           descent.name() == std::string("d");
  });
}

TEST(Descent, FindsItsWayBackThroughDirectoriesWithoutDescriptors) {
  expect_good([](Descent& descent) {
    const std::string start = here();
    for (int level = 0; level < 3; ++level)
      if (!go_down(descent)) return false;
    testsupport::allow_descriptors(0);
    if (!descent.reserve(3)) return false;
    for (const std::string& above : {std::string("b"), std::string("a"), start})
      if (!go_up(descent) || here() != above) return false;
    return true;
  });
}

TEST(Descent, ReservesNoMoreThanThereIs) {
  expect_good([](Descent& descent) {
    if (!go_down(descent)) return false;
    testsupport::allow_descriptors(0);
    const bool reserved = descent.reserve(2);
    return !reserved && errno == EMFILE && descent.reserve(1);
  });
}

TEST(Descent, GivesUpNothingWhileEnoughIsFree) {
  expect_good([](Descent& descent) {
    return go_down(descent) && descent.reserve(2) && !descent.present()->detached();
  });
}

TEST(Descent, NeverWorksInAnotherDirectoryThanThePresentOne) {
  expect_good([](Descent& descent) {
    for (int level = 0; level < 2; ++level)
      if (!go_down(descent)) return false;
    if (chdir("/") != 0) return false;  // as after a way back that failed
    testsupport::allow_descriptors(0);
    return descent.reserve(1) && here() == "b";
  });
}

}  // namespace
