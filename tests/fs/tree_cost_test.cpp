#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>

#include "support/scratch.h"
#include "support/tree_listing.h"
#include "tree_support.h"

// What the walks cost in system calls: it does not depend on the machine or its load.
namespace {

using testsupport::ScratchDir;
using testsupport::write_file;

/// The calls in all of one routine on a tree of `dirs` directories with `files` files each.
long calls_for(const std::string& routine, int dirs, int files) {
  const ScratchDir scratch(testsupport::memory_directory());
  for (int dir = 0; dir < dirs; ++dir) {
    const std::string path = scratch / ("top/" + std::to_string(dir));
    std::filesystem::create_directories(path);
    for (int file = 0; file < files; ++file) write_file(path + "/" + std::to_string(file), "");
  }
  const auto outcome =
      fstest::run_traced({"-o", scratch / "log"}, routine, scratch / "top", scratch.path());
  EXPECT_EQ(outcome, fstest::ended(0, ""));
  const std::string log = testsupport::read_file(scratch / "log");
  return std::count(log.begin(), log.end(), '\n');
}

/// What more directories, and then files in each of them, add to that.
struct Cost {
  long per_dirs;
  long per_files;
};

constexpr int kDirs = 50;
constexpr int kFiles = 40;

Cost cost_of(const std::string& routine) {
  const long least = calls_for(routine, 1, 0);
  const long with_dirs = calls_for(routine, 1 + kDirs, 0);
  const long with_files = calls_for(routine, 1 + kDirs, kFiles);
  EXPECT_GT(least, 0);
  EXPECT_GT(with_dirs, least);
  EXPECT_GT(with_files, with_dirs);
  return {with_dirs - least, with_files - with_dirs};
}

TEST(RmTreeAux, MakesOneCallForAFileAndEightForADirectory) {
  const Cost cost = cost_of("remove");
  EXPECT_EQ(cost.per_files, 1L * kFiles * (1 + kDirs));
  EXPECT_EQ(cost.per_dirs, 8L * kDirs);
}

TEST(TreeSetPerms, MakesFourCallsForAFileAndSixteenForADirectory) {
  const Cost cost = cost_of("perms");
  EXPECT_EQ(cost.per_files, 4L * kFiles * (1 + kDirs));
  EXPECT_EQ(cost.per_dirs, 16L * kDirs);
}

TEST(ChmodTree, AsksOnceWhetherTheKernelHasTheCallOfItsOwn) {
  const ScratchDir scratch(testsupport::memory_directory());
  for (int i = 0; i < 20; ++i) write_file(scratch / ("top/" + std::to_string(i)), "");
  const auto outcome = testsupport::in_child([&] {
    fstest::forget_fchmodat2();
    const auto traced = fstest::run_traced({"-o", scratch / "log"}, "chmod", scratch / "top");
    if (!(traced == fstest::ended(0, ""))) _exit(1);
  });
  EXPECT_EQ(outcome, fstest::ended(0, ""));
  EXPECT_EQ(testsupport::mode_of(scratch / "top/0"), 0640U);
  const std::string log = testsupport::read_file(scratch / "log");
  EXPECT_NE(log.find("ENOSYS"), std::string::npos);
  EXPECT_EQ(log.find("ENOSYS"), log.rfind("ENOSYS")) << log;
}

}  // namespace
