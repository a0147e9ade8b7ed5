#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

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
using fstest::kReturned;
using testsupport::Call;
using testsupport::in_child_stopped_at;
using testsupport::ScratchDir;
using testsupport::tree_listing;
using testsupport::write_file;
using Lines = std::vector<std::string>;

/// "file" and "pipe" in "sub" in "top".
void make_tree(const ScratchDir& scratch) {
  write_file(scratch / "top/sub/file", "");
  ASSERT_EQ(mkfifo((scratch / "top/sub/pipe").c_str(), 0644), 0);
}

TEST(EitherChange, PassesOverWhatVanishesMeanwhile) {
  for (const Change& change : changes()) {
    if (change.name == "chmod_tree" && !fstest::has_fchmodat2())
      GTEST_SKIP() << "the kernel has no fchmodat2()";
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
    if (change.name == "chmod_tree" && !fstest::has_fchmodat2())
      GTEST_SKIP() << "the kernel has no fchmodat2()";
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

TEST(EitherChange, LeavesAnEntryAloneThatBecomesAPipeBehindTheListing) {
  for (const Change& change : changes()) {
    SCOPED_TRACE(change.name);
    const ScratchDir scratch;
    write_file(scratch / "top/file", "");
    const std::string file = scratch / "top/file";
    const auto outcome = in_child_stopped_at(
        {SYS_newfstatat, "file"},
        [&] {
          unlink(file.c_str());
          mkfifo(file.c_str(), 0604);
          chmod(file.c_str(), 0604);
        },
        [&] { change.run(scratch / "top", 1); });
    EXPECT_EQ(outcome, ended(0, ""));
    EXPECT_EQ(tree_listing(scratch / "top"), Lines{"p 0604 0:0 file"});
  }
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
