#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

#include "fs/tree.h"
#include "support/scratch.h"
#include "support/stopped_child.h"
#include "support/tree_listing.h"
#include "tree_support.h"

// Other processes change a tree while it is walked.
namespace {

using fstest::Change;
using fstest::changes;
using fstest::ended;
using fstest::report;
using testsupport::Call;
using testsupport::in_child_stopped_at;
using testsupport::ScratchDir;
using testsupport::tree_listing;
using testsupport::write_file;
using Lines = std::vector<std::string>;

constexpr int kReturned = 40;

/// "file" and "pipe" in "sub" in "top".
void make_tree(const ScratchDir& scratch) {
  write_file(scratch / "top/sub/file", "");
  ASSERT_EQ(mkfifo((scratch / "top/sub/pipe").c_str(), 0644), 0);
}

TEST(EitherChange, PassesOverWhatVanishesMeanwhile) {
  for (const Change& change : changes()) {
    struct Row {
      Call before;
      const char* vanishing;
    };
    for (const Row& row : {Row{{change.call, "file"}, "top/sub/file"},
                           {{SYS_newfstatat, "pipe"}, "top/sub/pipe"},
                           {{SYS_newfstatat, "sub"}, "top/sub"},
                           {{SYS_openat, "sub"}, "top/sub"},
                           {{SYS_getdents64, "", 2}, "top/sub"},
                           {{change.call, "sub"}, "top/sub"},
                           {{SYS_openat, "top"}, "top"},
                           {{change.call, "top"}, "top"}}) {
      SCOPED_TRACE(change.name + ": " + row.before.name + " of " + row.vanishing);
      const ScratchDir scratch;
      ASSERT_NO_FATAL_FAILURE(make_tree(scratch));
      const auto outcome = in_child_stopped_at(
          row.before, [&] { std::filesystem::remove_all(scratch / row.vanishing); },
          [&] {
            if (chdir(scratch.path().c_str()) != 0) _exit(97);
            change.run("top", 1);
            _exit(kReturned);
          });
      EXPECT_EQ(outcome, ended(kReturned, ""));
    }
  }
}

TEST(EitherChange, PassesOverAFileGivenAsThePathThatVanishes) {
  for (const Change& change : changes()) {
    SCOPED_TRACE(change.name);
    const ScratchDir scratch;
    write_file(scratch / "file", "");
    const std::string path = scratch / "file";
    EXPECT_EQ(in_child_stopped_at(
                  {change.call, path}, [&] { unlink(path.c_str()); }, [&] { change.run(path, 1); }),
              ended(0, ""));
  }
}

TEST(RmTree, PassesOverWhatVanishesMeanwhile) {
  struct Row {
    Call before;
    const char* vanishing;
  };
  for (const Row& row : {Row{{SYS_unlinkat, "file"}, "top/sub/file"},
                         {{SYS_unlinkat, "pipe"}, "top/sub/pipe"},
                         {{SYS_newfstatat, "sub"}, "top/sub"},
                         {{SYS_openat, "sub"}, "top/sub"},
                         {{SYS_getdents64, "", 2}, "top/sub"},
                         {{SYS_unlinkat, "sub"}, "top/sub"},
                         {{SYS_openat, "top"}, "top"},
                         {{SYS_unlinkat, "top"}, "top"}}) {
    SCOPED_TRACE(row.before.name + " of " + row.vanishing);
    const ScratchDir scratch;
    ASSERT_NO_FATAL_FAILURE(make_tree(scratch));
    const auto outcome = in_child_stopped_at(
        row.before, [&] { std::filesystem::remove_all(scratch / row.vanishing); },
        [&] {
          if (chdir(scratch.path().c_str()) != 0) _exit(97);
          rm_tree("top", 1);
          _exit(kReturned);
        });
    EXPECT_EQ(outcome, ended(kReturned, ""));
    EXPECT_EQ(tree_listing(scratch.path()), Lines{});
  }
}

TEST(RmTree, PassesOverAFileGivenAsThePathThatVanishes) {
  const ScratchDir scratch;
  write_file(scratch / "file", "");
  const std::string path = scratch / "file";
  EXPECT_EQ(
      in_child_stopped_at(
          {SYS_unlinkat, path}, [&] { unlink(path.c_str()); }, [&] { rm_tree(path.c_str(), 1); }),
      ended(0, ""));
}

TEST(RmTree, RemovesAnEntryThatBecomesADirectoryMeanwhile) {
  const ScratchDir scratch;
  write_file(scratch / "top/entry", "");
  const std::string entry = scratch / "top/entry";
  const auto outcome = in_child_stopped_at(
      {SYS_unlinkat, "entry"},
      [&] {
        unlink(entry.c_str());
        write_file(entry + "/sub/file", "");
      },
      [&] { rm_tree((scratch / "top").c_str(), 1); });
  EXPECT_EQ(outcome, ended(0, ""));
  EXPECT_EQ(tree_listing(scratch.path()), Lines{});
}

/// Puts a link to "outside" in the place of an entry of the tree.
void put_link_at(const std::string& entry) {
  std::filesystem::rename(entry, entry + ".moved");
  std::filesystem::create_symlink("../../outside", entry);
}

TEST(EitherChange, LeavesAnEntryAloneThatBecomesALinkOrAPipe) {
  const Change& change = changes()[1];
  const ScratchDir scratch;
  write_file(scratch / "outside/kept", "");
  write_file(scratch / "top/sub/file", "");
  const std::string file = scratch / "top/sub/file";
  EXPECT_EQ(in_child_stopped_at(
                {change.call, "file"}, [&] { put_link_at(file); },
                [&] { change.run(scratch / "top", 1); }),
            ended(0, ""));
  EXPECT_EQ(tree_listing(scratch / "outside"), Lines{"f 0644 0:0 kept "});
  EXPECT_EQ(testsupport::mode_of(scratch / "outside"), 0755U);
}

TEST(EitherChange, EndsAtADirectoryThatBecomesALink) {
  for (const Change& change : changes()) {
    SCOPED_TRACE(change.name);
    const ScratchDir scratch;
    write_file(scratch / "outside/kept", "");
    write_file(scratch / "top/sub/dir/file", "");
    const Lines outside = tree_listing(scratch / "outside");
    EXPECT_EQ(in_child_stopped_at(
                  {SYS_openat, "dir"}, [&] { put_link_at(scratch / "top/sub/dir"); },
                  [&] { change.run(scratch / "top", 1); }),
              ended(1, report("Unable to open dir ", "dir", ENOTDIR)));
    EXPECT_EQ(tree_listing(scratch / "outside"), outside);
  }
}

TEST(EitherChange, ChangesTheLinkAndNotItsTargetWhereADirectoryBecomesOneAtTheEnd) {
  const ScratchDir scratch;
  write_file(scratch / "outside/kept", "");
  write_file(scratch / "top/sub/dir/file", "");
  EXPECT_EQ(in_child_stopped_at(
                {SYS_fchownat, "dir"}, [&] { put_link_at(scratch / "top/sub/dir"); },
                [&] { chown_tree((scratch / "top").c_str(), 7, 8, 1); }),
            ended(0, ""));
  EXPECT_EQ(tree_listing(scratch.path())[0], "d 0755 0:0 outside");
  EXPECT_EQ(tree_listing(scratch.path())[1], "f 0644 0:0 outside/kept ");
}

TEST(RmTree, NeverFollowsADirectoryThatBecomesALink) {
  for (const long number : {SYS_newfstatat, SYS_openat, SYS_unlinkat}) {
    SCOPED_TRACE(number);
    const ScratchDir scratch;
    write_file(scratch / "outside/kept", "");
    write_file(scratch / "top/sub/dir/file", "");
    const Lines outside = tree_listing(scratch / "outside");
    const auto outcome = in_child_stopped_at(
        {number, "dir"}, [&] { put_link_at(scratch / "top/sub/dir"); },
        [&] { _exit(rm_tree_aux((scratch / "top").c_str(), 1, 0)); });
    EXPECT_EQ(outcome.out, outcome.err);
    EXPECT_EQ(tree_listing(scratch / "outside"), outside);
  }
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

TEST(RmTree, MayBeRunTwiceOnOneTreeAtATime) {
  for (int round = 0; round < 20; ++round) {
    const ScratchDir scratch(testsupport::memory_directory());
    for (int i = 0; i < 200; ++i)
      write_file(scratch / ("top/" + std::to_string(i % 20) + "/" + std::to_string(i)), "");
    const std::string top = scratch / "top";
    const auto outcome = testsupport::in_child([&] {
      const pid_t other = fork();
      rm_tree(top.c_str(), 1);
      int status = 0;
      if (other > 0 && (waitpid(other, &status, 0) != other || status != 0)) _exit(2);
    });
    EXPECT_EQ(outcome, ended(0, ""));
    EXPECT_EQ(tree_listing(scratch.path()), Lines{});
  }
}

TEST(TreeSetPerms, MayBeRunOnATreeThatIsBeingRemoved) {
  for (int round = 0; round < 20; ++round) {
    const ScratchDir scratch(testsupport::memory_directory());
    for (int i = 0; i < 200; ++i)
      write_file(scratch / ("top/" + std::to_string(i % 20) + "/" + std::to_string(i)), "");
    const std::string top = scratch / "top";
    const auto outcome = testsupport::in_child([&] {
      const pid_t other = fork();
      if (other == 0) _exit(rm_tree_aux(top.c_str(), 1, 0));
      chown_tree(top.c_str(), 7, 8, 1);
      int status = 0;
      if (waitpid(other, &status, 0) != other || status != 0) _exit(2);
    });
    EXPECT_EQ(outcome.exit_code(), 0) << outcome;
  }
}

}  // namespace
