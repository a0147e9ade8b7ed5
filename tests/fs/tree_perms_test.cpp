#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fs/tree.h"
#include "support/scratch.h"
#include "support/tree_listing.h"
#include "tree_support.h"

namespace {

using fstest::changes;
using fstest::ended;
using fstest::report;
using testsupport::in_child;
using testsupport::mode_of;
using testsupport::ScratchDir;
using testsupport::tree_listing;
using testsupport::write_file;
using Lines = std::vector<std::string>;

TEST(ChownTree, ChangesFilesAndDirectoriesAndNothingElse) {
  const ScratchDir scratch;
  fstest::make_each_type(scratch.path());
  chown_tree(scratch.path().c_str(), 7, 8, 0);
  EXPECT_EQ(tree_listing(scratch.path()), (Lines{
                                              "l - 0:0 dangling nowhere",
                                              "c 0604 0:0 device",
                                              "d 0705 7:8 dir",
                                              "f 0604 7:8 dir/file inner",
                                              "l - 0:0 dirlink dir",
                                              "f 0604 7:8 file outer",
                                              "l - 0:0 link file",
                                              "p 0604 0:0 pipe",
                                              "s 0604 0:0 socket",
                                          }));
}

TEST(ChownTree, LeavesAnOwnerOrGroupOfMinusOneAsItIs) {
  const ScratchDir scratch;
  write_file(scratch / "file", "");
  chown_tree(scratch.path().c_str(), 5, 6, 1);
  chown_tree(scratch.path().c_str(), static_cast<uid_t>(-1), 9, 1);
  EXPECT_EQ(tree_listing(scratch.path()), Lines{"f 0644 5:9 file "});
  chown_tree(scratch.path().c_str(), 3, static_cast<gid_t>(-1), 1);
  EXPECT_EQ(tree_listing(scratch.path()), Lines{"f 0644 3:9 file "});
}

TEST(ChmodTree, GivesOneModeToFilesAndAnotherToDirectories) {
  const ScratchDir scratch;
  fstest::make_each_type(scratch.path());
  chmod_tree(scratch.path().c_str(), 0640, 0750, 0);
  EXPECT_EQ(tree_listing(scratch.path()), (Lines{
                                              "l - 0:0 dangling nowhere",
                                              "c 0604 0:0 device",
                                              "d 0750 0:0 dir",
                                              "f 0640 0:0 dir/file inner",
                                              "l - 0:0 dirlink dir",
                                              "f 0640 0:0 file outer",
                                              "l - 0:0 link file",
                                              "p 0604 0:0 pipe",
                                              "s 0604 0:0 socket",
                                          }));
}

TEST(ChmodTree, SetsTheSpecialBitsToo) {
  const ScratchDir scratch;
  write_file(scratch / "dir/file", "");
  chmod_tree((scratch / "dir").c_str(), 04755, 03771, 1);
  EXPECT_EQ(mode_of(scratch / "dir/file"), 04755U);
  EXPECT_EQ(mode_of(scratch / "dir"), 03771U);
}

TEST(ChmodTree, WorksOnContentsBeforeADirectoryIsClosedToIt) {
  const ScratchDir scratch;
  write_file(scratch / "top/sub/file", "");
  chown_tree((scratch / "top").c_str(), 65534, 65534, 1);
  chmod(scratch.path().c_str(), 0755);
  const auto outcome = in_child([&] {
    fstest::become_nobody_in(scratch.path());
    chmod_tree("top", 0, 0, 1);
  });
  EXPECT_EQ(outcome, ended(0, ""));
  EXPECT_EQ(mode_of(scratch / "top"), 0U);
  EXPECT_EQ(tree_listing(scratch / "top"),
            (Lines{"d 0000 65534:65534 sub", "f 0000 65534:65534 sub/file "}));
}

TEST(ChmodTree, WorksWhereTheCallOfItsOwnIsRefused) {
  for (const int error : {ENOSYS, EPERM}) {
    SCOPED_TRACE(strerror(error));
    const ScratchDir scratch;
    fstest::make_each_type(scratch.path());
    const auto outcome = in_child([&] {
      fstest::refuse_fchmodat2(error);
      errno = E2BIG;
      chmod_tree(scratch.path().c_str(), 0640, 0750, 1);
      if (errno != E2BIG) _exit(1);
      chmod_tree((scratch / "dangling").c_str(), 0640, 0750, 1);
      chmod_tree((scratch / "file").c_str(), 0600, 0750, 1);
    });
    EXPECT_EQ(outcome, ended(0, ""));
    EXPECT_EQ(mode_of(scratch.path()), 0750U);
    EXPECT_EQ(mode_of(scratch / "dir"), 0750U);
    EXPECT_EQ(mode_of(scratch / "dir/file"), 0640U);
    EXPECT_EQ(mode_of(scratch / "file"), 0600U);
    EXPECT_EQ(mode_of(scratch / "pipe"), 0604U);
  }
}

TEST(ChmodTree, ReportsAFailureWhereTheCallOfItsOwnIsRefused) {
  for (const int error : {ENOSYS, EPERM}) {
    SCOPED_TRACE(strerror(error));
    const ScratchDir scratch;
    write_file(scratch / "file", "");
    ASSERT_TRUE(testsupport::set_immutable(scratch / "file", true));
    const auto outcome = in_child([&] {
      fstest::refuse_fchmodat2(error);
      chmod_tree(scratch.path().c_str(), 0640, 0750, 1);
    });
    EXPECT_EQ(outcome, ended(1, report("Unable to chmod directory entry ", "file", EPERM)));
  }
}

TEST(EitherChange, TakesTheTopDirectoryOnlyWhenAsked) {
  for (const fstest::Change& change : changes()) {
    SCOPED_TRACE(change.name);
    const ScratchDir scratch;
    write_file(scratch / "top/sub/file", "");
    change.run(scratch / "top", 0);
    EXPECT_EQ(tree_listing(scratch.path())[0], "d 0755 0:0 top");
    EXPECT_NE(tree_listing(scratch.path())[1], "d 0755 0:0 top/sub") << "what is below is changed";
    change.run(scratch / "top", 1);
    EXPECT_NE(tree_listing(scratch.path())[0], "d 0755 0:0 top");
  }
}

TEST(EitherChange, TakesAFileGivenAsThePathInAnyCase) {
  for (const fstest::Change& change : changes()) {
    SCOPED_TRACE(change.name);
    for (const int include_top : {0, 1}) {
      const ScratchDir scratch;
      write_file(scratch / "file", "");
      change.run(scratch / "file", include_top);
      EXPECT_NE(tree_listing(scratch.path()), Lines{"f 0644 0:0 file "});
    }
  }
}

TEST(EitherChange, ChangesTheDirectoryBehindALinkThatASlashFollows) {
  for (const int refusal : {0, ENOSYS}) {
    SCOPED_TRACE(refusal);
    const ScratchDir scratch;
    write_file(scratch / "dir/file", "");
    std::filesystem::create_symlink("dir", scratch / "link");
    std::filesystem::create_symlink("dir/file", scratch / "filelink");
    const auto outcome = in_child([&] {
      if (refusal != 0) fstest::refuse_fchmodat2(refusal);
      for (const fstest::Change& change : changes()) change.run(scratch / "link/", 1);
    });
    EXPECT_EQ(outcome, ended(0, ""));
    EXPECT_EQ(tree_listing(scratch.path()),
              (Lines{"d 0750 7:8 dir", "f 0640 7:8 dir/file ", "l - 0:0 filelink dir/file",
                     "l - 0:0 link dir"}));
    for (const fstest::Change& change : changes())
      EXPECT_EQ(in_child([&] { change.run(scratch / "filelink/", 1); }),
                ended(1, report("Unable to get entry ", scratch / "filelink/", ENOTDIR)));
  }
}

TEST(EitherChange, LeavesALinkGivenAsThePathAndItsTargetAlone) {
  for (const fstest::Change& change : changes()) {
    SCOPED_TRACE(change.name);
    const ScratchDir scratch;
    fstest::make_each_type(scratch.path());
    const Lines before = tree_listing(scratch.path());
    const auto outcome = in_child([&] {
      for (const char* link : {"link", "dirlink", "dangling"}) change.run(scratch / link, 1);
    });
    EXPECT_EQ(outcome, ended(0, ""));
    EXPECT_EQ(tree_listing(scratch.path()), before);
  }
}

TEST(EitherChange, ReportsAMissingPathAndReturns) {
  for (const fstest::Change& change : changes()) {
    SCOPED_TRACE(change.name);
    const auto outcome = in_child([&] {
      change.run("/nonexistent/top", 1);
      _exit(errno == ENOENT ? 23 : 1);
    });
    EXPECT_EQ(outcome, ended(23,
                             "Directory entry /nonexistent/top doesn't exist: No such file or "
                             "directory\n\nSystem error 2: No such file or directory\n"));
  }
}

TEST(EitherChange, TakesARelativePathAndRestoresTheWorkingDirectory) {
  for (const fstest::Change& change : changes()) {
    SCOPED_TRACE(change.name);
    const ScratchDir scratch;
    write_file(scratch / "top/sub/file", "");
    const auto outcome = in_child([&] {
      if (chdir(scratch.path().c_str()) != 0) _exit(97);
      const std::vector<int> open = testsupport::open_descriptors();
      change.run("top", 1);
      if (fstest::working_directory() != scratch.path()) _exit(1);
      if (testsupport::open_descriptors() != open) _exit(2);
    });
    EXPECT_EQ(outcome, ended(0, ""));
    EXPECT_EQ(tree_listing(scratch.path()).size(), 3U);
    for (const std::string& line : tree_listing(scratch.path())) {
      EXPECT_EQ(line.find("0755 0:0"), std::string::npos) << line;
      EXPECT_EQ(line.find("0644 0:0"), std::string::npos) << line;
    }
  }
}

TEST(EitherChange, LeavesErrnoAsItWas) {
  for (const fstest::Change& change : changes()) {
    SCOPED_TRACE(change.name);
    const ScratchDir scratch;
    fstest::make_each_type(scratch.path());
    errno = E2BIG;
    change.run(scratch.path(), 1);
    EXPECT_EQ(errno, E2BIG);
  }
}

TEST(TreeSetPerms, SetsOwnersAndModesAndReturnsZero) {
  const ScratchDir scratch;
  fstest::make_each_type(scratch / "top");
  EXPECT_EQ(tree_set_perms((scratch / "top").c_str(), 7, 8, 0640, 0750, 1), 0);
  EXPECT_EQ(tree_listing(scratch.path()), (Lines{
                                              "d 0750 7:8 top",
                                              "l - 0:0 top/dangling nowhere",
                                              "c 0604 0:0 top/device",
                                              "d 0750 7:8 top/dir",
                                              "f 0640 7:8 top/dir/file inner",
                                              "l - 0:0 top/dirlink dir",
                                              "f 0640 7:8 top/file outer",
                                              "l - 0:0 top/link file",
                                              "p 0604 0:0 top/pipe",
                                              "s 0604 0:0 top/socket",
                                          }));
}

TEST(TreeSetPerms, LeavesTheTopDirectoryAloneUnlessAsked) {
  const ScratchDir scratch;
  write_file(scratch / "top/file", "");
  EXPECT_EQ(tree_set_perms((scratch / "top").c_str(), 7, 8, 0640, 0750, 0), 0);
  EXPECT_EQ(tree_listing(scratch.path()), (Lines{"d 0755 0:0 top", "f 0640 7:8 top/file "}));
}

TEST(TreeSetPerms, SetsModesAfterOwnersSoThatSetIdBitsStay) {
  const ScratchDir scratch;
  write_file(scratch / "file", "");
  EXPECT_EQ(tree_set_perms((scratch / "file").c_str(), 7, 8, 06755, 0755, 0), 0);
  EXPECT_EQ(tree_listing(scratch.path()), Lines{"f 6755 7:8 file "});
}

TEST(TreeSetPerms, ReportsAMissingPathTwiceAndReturnsZero) {
  const auto outcome =
      in_child([] { _exit(tree_set_perms("/nonexistent", 0, 0, 0644, 0755, 1) == 0 ? 23 : 1); });
  const std::string once = report("Directory entry /nonexistent doesn't exist", "", ENOENT);
  EXPECT_EQ(outcome, ended(23, once + once));
}

}  // namespace
