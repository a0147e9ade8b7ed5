#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <functional>

#include "support/scratch.h"
#include "support/traced.h"
#include "support/tree_listing.h"
#include "tree_support.h"

// What the walks cost in system calls: it does not depend on the machine or its load.
namespace {

using testsupport::ScratchDir;
using testsupport::write_file;

/// The calls (`which` of them, for strace) of one routine on a tree of `dirs` directories with
/// `files` files each.
long calls_for(const std::string& which, const std::string& routine, int dirs, int files) {
  const ScratchDir scratch(testsupport::memory_directory());
  for (int dir = 0; dir < dirs; ++dir) {
    const std::string path = scratch / ("top/" + std::to_string(dir));
    std::filesystem::create_directories(path);
    for (int file = 0; file < files; ++file) write_file(path + "/" + std::to_string(file), "");
  }
  const auto outcome = fstest::run_traced({"-o", scratch / "log", "-e", "trace=" + which}, routine,
                                          scratch / "top", scratch.path());
  EXPECT_EQ(outcome, fstest::ended(0, ""));
  return testsupport::counted_calls(scratch / "log");
}

/// What more directories, and then files in each of them, add to that.
struct Cost {
  long per_dirs;
  long per_files;
};

constexpr int kDirs = 50;
constexpr int kFiles = 40;

Cost cost_of(const std::string& routine, const std::string& which = "!%memory") {
  const long least = calls_for(which, routine, 1, 0);
  const long with_dirs = calls_for(which, routine, 1 + kDirs, 0);
  const long with_files = calls_for(which, routine, 1 + kDirs, kFiles);
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

// The allocator asks for more now and then; how often depends on what else the program carries.
TEST(TreeWalks, AskForNoMemoryForEachEntry) {
  for (const char* routine : {"remove", "perms"}) {
    SCOPED_TRACE(routine);
    const Cost all = cost_of(routine, "all");
    const Cost counted = cost_of(routine);
    EXPECT_LT(all.per_dirs - counted.per_dirs, kDirs / 2);
    EXPECT_LT(all.per_files - counted.per_files, kFiles);
  }
}

TEST(TreeSetPerms, MakesFourCallsForAFileAndSixteenForADirectory) {
  if (!fstest::has_fchmodat2()) GTEST_SKIP() << "the kernel has no fchmodat2()";
  const Cost cost = cost_of("perms");
  EXPECT_EQ(cost.per_files, 4L * kFiles * (1 + kDirs));
  EXPECT_EQ(cost.per_dirs, 16L * kDirs);
}

/// In a child for which the call that changes modes without following links is refused.
void where_refused_with(int error, const std::function<void()>& expectations) {
  EXPECT_EQ(testsupport::in_child([&] {
              fstest::refuse_fchmodat2(error);
              expectations();
              exit(testing::Test::HasFailure() ? 1 : 0);
            }),
            fstest::ended(0, ""));
}

// Without the call that does it in one, an entry must be opened to be changed safely.
TEST(TreeSetPerms, MakesSixCallsForAFileAndEighteenForADirectoryOnOldSystems) {
  for (const int error : {ENOSYS, EPERM}) {
    SCOPED_TRACE(error);
    where_refused_with(error, [] {
      const Cost cost = cost_of("perms");
      EXPECT_EQ(cost.per_files, 6L * kFiles * (1 + kDirs));
      EXPECT_EQ(cost.per_dirs, 18L * kDirs);
    });
  }
}

/// How often the call that changes modes without following links was made.
long calls_of_fchmodat2(const std::string& log) {
  long calls = 0;
  for (const char* name : {"syscall_0x1c4(", "fchmodat2("})  // strace may not know the name
    for (size_t at = log.find(name); at != std::string::npos; at = log.find(name, at + 1)) ++calls;
  return calls;
}

TEST(ChmodTree, TriesTheCallOfItsOwnNoMoreOnceItIsRefused) {
  for (const auto& [error, most] : {std::pair(ENOSYS, 1), {EPERM, 2}}) {
    SCOPED_TRACE(error);
    const ScratchDir scratch(testsupport::memory_directory());
    for (int i = 0; i < 20; ++i) write_file(scratch / ("top/" + std::to_string(i)), "");
    const std::string log = scratch / "log";
    where_refused_with(error, [&] {
      EXPECT_EQ(fstest::run_traced({"-o", log}, "chmod", scratch / "top"), fstest::ended(0, ""));
    });
    EXPECT_EQ(testsupport::mode_of(scratch / "top/0"), 0640U);
    EXPECT_EQ(calls_of_fchmodat2(testsupport::read_file(log)), most);
  }
}

TEST(ChmodTree, DoesNotTakeARefusalOfOneEntryForOneOfTheCall) {
  if (!fstest::has_fchmodat2()) GTEST_SKIP() << "the kernel has no fchmodat2()";
  const ScratchDir scratch;
  write_file(scratch / "top/file", "");
  ASSERT_TRUE(testsupport::set_immutable(scratch / "top/file", true));
  const auto outcome = fstest::run_traced({"-o", scratch / "log"}, "chmod", scratch / "top");
  EXPECT_EQ(outcome,
            fstest::ended(1, fstest::report("Unable to chmod directory entry ", "file", EPERM)));
  EXPECT_EQ(testsupport::read_file(scratch / "log").find("O_PATH"), std::string::npos);
}

}  // namespace
