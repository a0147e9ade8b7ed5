#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <functional>

#include "fs/tree.h"
#include "support/scratch.h"
#include "support/stopped_child.h"
#include "support/swapping.h"
#include "support/tree_listing.h"
#include "tree_support.h"

// Entries are swapped for links to what lies outside while a tree is walked: nothing outside is
// touched, whichever step the walk stands before.
namespace {

using fstest::changes;
using fstest::ended;
using fstest::kReturned;
using fstest::report;
using testsupport::Call;
using testsupport::Outcome;
using testsupport::ScratchDir;
using testsupport::tree_listing;
using testsupport::write_file;
using Lines = std::vector<std::string>;

/// "file" in "dir" in "top", beside "outside", which holds the same. While `walk` stands before a
/// call, `entry` is moved aside and a link to its like in "outside" put in its place.
Outcome with_link_put_at(const std::string& entry, const Call& before,
                         const std::function<void()>& walk) {
  const ScratchDir scratch;
  write_file(scratch / "top/dir/file", "");
  write_file(scratch / "outside/dir/file", "kept");
  const std::string outside = scratch / ("outside" + entry.substr(std::string("top").size()));
  const auto state_outside = [&] {
    Lines lines = tree_listing(scratch / "outside");
    lines.push_back(std::to_string(testsupport::mode_of(scratch / "outside")));
    return lines;
  };
  const Lines before_walk = state_outside();
  Outcome outcome = testsupport::in_child_stopped_at(
      before,
      [&] {
        std::filesystem::rename(scratch / entry, scratch / "aside");
        std::filesystem::create_symlink(outside, scratch / entry);
      },
      [&] {
        if (chdir(scratch.path().c_str()) != 0) _exit(97);
        walk();
      });
  EXPECT_EQ(state_outside(), before_walk);
  return outcome;
}

struct Swap {
  const char* entry;
  long call;         ///< that the walk stands before,
  const char* name;  ///< of that name,
  int exit_code;     ///< and how it ends
  std::string reports;
  int occurrence = 1;
};

void expect(const std::vector<Swap>& swaps, const std::function<void()>& walk) {
  for (const Swap& swap : swaps) {
    SCOPED_TRACE(std::string(swap.entry) + " before " + std::to_string(swap.call) + " of " +
                 swap.name);
    EXPECT_EQ(with_link_put_at(swap.entry, {swap.call, swap.name, swap.occurrence}, walk),
              ended(swap.exit_code, swap.reports));
  }
}

std::string unopened(const char* name) {
  return report("Unable to open dir ", name, ENOTDIR);
}

TEST(ChownTree, ChangesNothingThroughALinkPutIntoItsWay) {
  expect({{"top", SYS_newfstatat, "top", 0, ""},
          {"top", SYS_openat, "top", 1, unopened("top")},
          {"top", SYS_fchownat, "top", 0, ""},  // the link itself gets the owner
          {"top/dir", SYS_newfstatat, "dir", 0, ""},
          {"top/dir", SYS_openat, "dir", 1, unopened("dir")},
          {"top/dir", SYS_fchownat, "dir", 0, ""},
          {"top/dir/file", SYS_newfstatat, "file", 0, ""},
          {"top/dir/file", SYS_fchownat, "file", 0, ""}},
         [] { changes()[0].run("top", 1); });
}

TEST(ChownTree, ChangesNothingThroughALinkPutInThePlaceOfAFile) {
  expect({{"top/dir/file", SYS_fchownat, "top/dir/file", 0, ""}},
         [] { changes()[0].run("top/dir/file", 1); });
}

TEST(ChmodTree, ChangesNothingThroughALinkPutIntoItsWay) {
  if (!fstest::has_fchmodat2()) GTEST_SKIP() << "the kernel has no fchmodat2()";
  const long set_mode = changes()[1].call;
  expect({{"top", SYS_newfstatat, "top", 0, ""},
          {"top", SYS_openat, "top", 1, unopened("top")},
          {"top", set_mode, "top", 1, report("Unable to chmod dir ", "top", EOPNOTSUPP)},
          {"top/dir", SYS_newfstatat, "dir", 0, ""},
          {"top/dir", SYS_openat, "dir", 1, unopened("dir")},
          {"top/dir", set_mode, "dir", 1, report("Unable to chmod dir ", "dir", EOPNOTSUPP)},
          {"top/dir/file", SYS_newfstatat, "file", 0, ""},
          {"top/dir/file", set_mode, "file", 1,
           report("Unable to chmod directory entry ", "file", EOPNOTSUPP)}},
         [] { changes()[1].run("top", 1); });
}

TEST(ChmodTree, ChangesNothingThroughALinkPutInThePlaceOfAFile) {
  expect({{"top/dir/file", changes()[1].call, "top/dir/file", 1,
           report("Unable to chmod entry ", "top/dir/file", EOPNOTSUPP)}},
         [] { changes()[1].run("top/dir/file", 1); });
}

TEST(ChmodTree, ChangesNothingThroughALinkWhereTheCallOfItsOwnIsRefused) {
  // A directory is opened to be read before it is opened to be changed.
  expect({{"top", SYS_openat, "top", 1, report("Unable to chmod dir ", "top", EOPNOTSUPP), 2},
          {"top/dir", SYS_openat, "dir", 1, report("Unable to chmod dir ", "dir", EOPNOTSUPP), 2},
          {"top/dir/file", SYS_openat, "file", 1,
           report("Unable to chmod directory entry ", "file", EOPNOTSUPP)},
#ifdef SYS_chmod  // by the descriptor, which stays with what was opened
          {"top/dir/file", SYS_chmod, "", 0, "", 1},
          {"top/dir", SYS_chmod, "", 0, "", 2},
          {"top", SYS_chmod, "", 0, "", 3}
#endif
         },
         [] {
           fstest::refuse_fchmodat2(ENOSYS);
           changes()[1].run("top", 1);
         });
}

TEST(RmTreeAux, RemovesNothingThroughALinkPutIntoItsWay) {
  const std::string not_empty = report("Unable to remove dir ", "top", ENOTEMPTY);
  const int failed = kReturned + 1;
  expect({{"top", SYS_newfstatat, "top", kReturned, ""},
          {"top", SYS_openat, "top", failed, unopened("top")},
          {"top", SYS_unlinkat, "top", failed, report("Unable to remove dir ", "top", ENOTDIR)},
          {"top/dir", SYS_newfstatat, "dir", kReturned, ""},
          {"top/dir", SYS_openat, "dir", failed, unopened("dir") + not_empty},
          {"top/dir", SYS_unlinkat, "dir", failed,
           report("Unable to remove dir ", "dir", ENOTDIR) + not_empty},
          {"top/dir/file", SYS_unlinkat, "file", kReturned, ""}},
         [] { _exit(kReturned + rm_tree_aux("top", 1, 0)); });
}

TEST(RmTreeAux, RemovesTheLinkPutInThePlaceOfAFile) {
  expect({{"top/dir/file", SYS_unlinkat, "top/dir/file", kReturned, ""}},
         [] { _exit(kReturned + rm_tree_aux("top/dir/file", 1, 0)); });
}

/// Four directories of the shape of "outside", an entry of each of which is swapped for a link to
/// its like there.
class SwappedTree {
 public:
  SwappedTree() { write_files("outside"); }

  void expect_outside_unharmed_by(const std::function<void(const char*)>& walk) const {
    testsupport::SwapPlan plan;
    plan.directory = scratch_.path();
    plan.victim = scratch_ / "outside";
    for (const auto& [entry, like] : kSwapped) plan.pairs.push_back({entry, decoy(entry)});
    plan.rebuild = [this] { rebuild(); };
    plan.routine = [&] { walk((scratch_ / "tree").c_str()); };
    const testsupport::SwapCounts counts =
        testsupport::run_under_swapping(plan, testsupport::kLeastSwaps, testsupport::kLeastRuns);
    EXPECT_GE(counts.swaps, testsupport::kLeastSwaps);
    EXPECT_GE(counts.runs, testsupport::kLeastRuns);
  }

 private:
  struct Swapped {
    const char* entry;
    const char* like;
  };
  static constexpr Swapped kSwapped[] = {{"tree/a", "outside"},
                                         {"tree/b/sub", "outside/sub"},
                                         {"tree/c/file", "outside/file"},
                                         {"tree/d/sub/sub", "outside/sub/sub"}};

  static std::string decoy(std::string entry) {
    std::replace(entry.begin(), entry.end(), '/', '-');
    return "decoys/" + entry;
  }

  void write_files(const std::string& top) const {
    for (const char* file : {"/file", "/sub/file", "/sub/sub/file"})
      write_file(scratch_ / (top + file), "kept");
  }

  void rebuild() const {
    std::filesystem::remove_all(scratch_ / "tree");
    std::filesystem::remove_all(scratch_ / "decoys");
    std::filesystem::create_directory(scratch_ / "decoys");
    for (const char* top : {"tree/a", "tree/b", "tree/c", "tree/d"}) write_files(top);
    for (const auto& [entry, like] : kSwapped)
      std::filesystem::create_symlink(scratch_ / like, scratch_ / decoy(entry));
  }

  ScratchDir scratch_{testsupport::memory_directory()};
};

TEST(RmTreeAux, HarmsNothingOutsideUnderConstantSwapping) {
  const SwappedTree tree;
  tree.expect_outside_unharmed_by([](const char* path) { rm_tree_aux(path, 1, 0); });
}

TEST(ChownTree, HarmsNothingOutsideUnderConstantSwapping) {
  const SwappedTree tree;
  tree.expect_outside_unharmed_by([](const char* path) { chown_tree(path, 7, 8, 1); });
}

TEST(ChmodTree, HarmsNothingOutsideUnderConstantSwapping) {
  const SwappedTree tree;
  tree.expect_outside_unharmed_by([](const char* path) { chmod_tree(path, 0600, 0700, 1); });
}

TEST(ChmodTree, HarmsNothingOutsideUnderConstantSwappingWhereTheCallOfItsOwnIsRefused) {
  const SwappedTree tree;
  tree.expect_outside_unharmed_by([](const char* path) {
    fstest::refuse_fchmodat2(ENOSYS);
    chmod_tree(path, 0600, 0700, 1);
  });
}

}  // namespace
