#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <stdexcept>

#include "fs/tree.h"
#include "support/scratch.h"
#include "support/stopped_child.h"
#include "support/tree_listing.h"
#include "tree_support.h"

// Entries are swapped for links to what lies outside while a tree is walked: nothing outside is
// touched, whichever step the walk stands before.
namespace {

using fstest::changes;
using fstest::ended;
using fstest::report;
using testsupport::Call;
using testsupport::Outcome;
using testsupport::ScratchDir;
using testsupport::tree_listing;
using testsupport::write_file;
using Lines = std::vector<std::string>;

constexpr int kReturned = 40;  ///< and a result that was returned: how a child ends

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
  const Outcome outcome = testsupport::in_child_stopped_at(
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

/// Swaps "tree/sub" and "decoy", a link to "outside", whenever it runs, and then without a pause.
class Swapper {
 public:
  explicit Swapper(const std::filesystem::path& directory) : pid_(fork()) {
    if (pid_ == 0) swap_for_ever(directory);
    stop();
  }
  ~Swapper() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  Swapper(const Swapper&) = delete;
  Swapper& operator=(const Swapper&) = delete;

  void run() const { kill(pid_, SIGCONT); }
  void stop() const {
    int status = 0;
    kill(pid_, SIGSTOP);
    if (waitpid(pid_, &status, WUNTRACED) != pid_ || !WIFSTOPPED(status))
      throw std::runtime_error("the swapping process does not stop");
  }

 private:
  [[noreturn]] static void swap_for_ever(const std::filesystem::path& directory) {
    if (chdir(directory.c_str()) != 0) _exit(97);
    while (true) renameat2(AT_FDCWD, "tree/sub", AT_FDCWD, "decoy", RENAME_EXCHANGE);
  }

  pid_t pid_;
};

/// A tree that is swapped under a walk, and what lies outside of it.
class SwappedTree {
 public:
  SwappedTree() {
    write_file(scratch_ / "outside/file", "kept");
    write_file(scratch_ / "outside/sub/file", "kept");
    outside_ = tree_listing(scratch_ / "outside");
  }

  /// Runs `walk` on the tree again and again while a process swaps. The walk's own result does not
  /// matter: it may well meet a link where a directory was.
  void expect_outside_unharmed_by(const std::function<void(const char*)>& walk) const {
    constexpr int kRounds = 100;
    const Swapper swapper(scratch_.path());
    for (int round = 0; round < kRounds; ++round) {
      rebuild();
      swapper.run();
      testsupport::in_child([&] { walk((scratch_ / "tree").c_str()); });
      swapper.stop();
      ASSERT_EQ(tree_listing(scratch_ / "outside"), outside_) << "round " << round;
      ASSERT_EQ(testsupport::mode_of(scratch_ / "outside"), 0755U) << "round " << round;
    }
  }

 private:
  void rebuild() const {
    std::filesystem::remove_all(scratch_ / "decoy");
    std::filesystem::remove_all(scratch_ / "tree");
    for (const char* name : {"tree/sub/file", "tree/sub/sub/file", "tree/other/file"})
      write_file(scratch_ / name, "");
    std::filesystem::create_symlink("outside", scratch_ / "decoy");
  }

  ScratchDir scratch_{testsupport::memory_directory()};
  Lines outside_;
};

TEST(RmTreeAux, HarmsNothingOutsideUnderConstantSwapping) {
  const SwappedTree tree;
  tree.expect_outside_unharmed_by([](const char* path) { rm_tree_aux(path, 1, 0); });
}

TEST(TreeSetPerms, HarmsNothingOutsideUnderConstantSwapping) {
  const SwappedTree tree;
  tree.expect_outside_unharmed_by(
      [](const char* path) { tree_set_perms(path, 7, 8, 0600, 0700, 1); });
}

}  // namespace
