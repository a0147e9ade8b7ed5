#include <errno.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fs/tree.h"
#include "support/scratch.h"
#include "support/tree_listing.h"
#include "tree_support.h"

namespace {

using fstest::ended;
using testsupport::in_child;
using testsupport::ScratchDir;
using testsupport::tree_listing;
using testsupport::write_file;
using Lines = std::vector<std::string>;

TEST(RmTree, RemovesEntriesOfEveryType) {
  const ScratchDir scratch;
  fstest::make_each_type(scratch / "top");
  fstest::make_each_type(scratch / "top/further/down");
  std::filesystem::create_directories(scratch / "top/empty");
  write_file(scratch / "top/.hidden", "");
  EXPECT_EQ(in_child([&] { rm_tree((scratch / "top").c_str(), 1); }), ended(0, ""));
  EXPECT_EQ(tree_listing(scratch.path()), Lines{});
}

TEST(RmTree, OnlyEmptiesADirectoryThatIsToStay) {
  const ScratchDir scratch;
  fstest::make_each_type(scratch / "top");
  fstest::make_each_type(scratch / "top/further/down");
  rm_tree((scratch / "top").c_str(), 0);
  EXPECT_EQ(tree_listing(scratch.path()), Lines{"d 0755 0:0 top"});
}

TEST(RmTree, RemovesAFileOrALinkGivenAsThePathInAnyCase) {
  for (const char* name : {"file", "link", "dirlink", "dangling"}) {
    for (const int remove_top : {0, 1}) {
      SCOPED_TRACE(name);
      const ScratchDir scratch;
      fstest::make_each_type(scratch.path());
      Lines rest;
      for (const std::string& line : tree_listing(scratch.path()))
        if (line.find(std::string(":0 ") + name + " ") == std::string::npos) rest.push_back(line);
      rm_tree((scratch / name).c_str(), remove_top);
      EXPECT_EQ(tree_listing(scratch.path()), rest);
      EXPECT_EQ(rest.size(), 8U);
    }
  }
}

TEST(RmTree, RemovesTheLinkNotItsTarget) {
  const ScratchDir scratch;
  write_file(scratch / "target/file", "kept");
  std::filesystem::create_directories(scratch / "top/sub");
  std::filesystem::create_symlink("../../target", scratch / "top/sub/relative");
  std::filesystem::create_symlink(scratch / "target", scratch / "top/absolute");
  rm_tree((scratch / "top").c_str(), 1);
  EXPECT_EQ(tree_listing(scratch.path()),
            (Lines{"d 0755 0:0 target", "f 0644 0:0 target/file kept"}));
}

TEST(RmTreeAux, EmptiesTheDirectoryBehindALinkThatASlashFollows) {
  for (const int remove_top : {0, 1}) {
    SCOPED_TRACE(remove_top);
    const ScratchDir scratch;
    write_file(scratch / "target/sub/file", "");
    std::filesystem::create_symlink("target", scratch / "top");
    const std::string path = scratch / "top/";
    const auto outcome = in_child([&] { _exit(rm_tree_aux(path.c_str(), remove_top, 1)); });
    const std::string unremoved = fstest::report("Unable to remove dir ", path, ENOTDIR);
    EXPECT_EQ(outcome, remove_top == 0 ? ended(0, "") : ended(1, unremoved));
    EXPECT_EQ(tree_listing(scratch.path()), (Lines{"d 0755 0:0 target", "l - 0:0 top target"}));
  }
}

TEST(RmTreeAux, RemovesADirectoryThatASlashFollows) {
  const ScratchDir scratch;
  write_file(scratch / "top/file", "");
  EXPECT_EQ(rm_tree_aux((scratch / "top/").c_str(), 1, 1), 0);
  EXPECT_EQ(tree_listing(scratch.path()), Lines{});
}

TEST(RmTree, DoesNothingAboutAMissingPath) {
  const auto outcome = in_child([] {
    rm_tree("/nonexistent/top", 1);
    _exit(errno == ENOENT ? 23 : 1);
  });
  EXPECT_EQ(outcome, ended(23, ""));
}

TEST(RmTree, TakesANameInTheWorkingDirectoryAndComesBackToIt) {
  const ScratchDir scratch;
  write_file(scratch / "here/top/sub/file", "");
  write_file(scratch / "here/kept", "");
  const auto outcome = in_child([&] {
    if (chdir((scratch / "here").c_str()) != 0) _exit(97);
    const std::vector<int> open = testsupport::open_descriptors();
    rm_tree("top", 1);
    if (fstest::working_directory() != scratch / "here") _exit(1);
    if (testsupport::open_descriptors() != open) _exit(2);
  });
  EXPECT_EQ(outcome, ended(0, ""));
  EXPECT_EQ(tree_listing(scratch.path()), (Lines{"d 0755 0:0 here", "f 0644 0:0 here/kept "}));
}

TEST(RmTree, LeavesErrnoAsItWas) {
  const ScratchDir scratch;
  fstest::make_each_type(scratch / "top");
  errno = E2BIG;
  rm_tree((scratch / "top").c_str(), 1);
  EXPECT_EQ(errno, E2BIG);
}

TEST(RmTree, RemovesADirectoryOfManyEntries) {
  const ScratchDir scratch(testsupport::memory_directory());
  std::filesystem::create_directory(scratch / "top");
  for (int i = 0; i < 5000; ++i) {
    const std::string name = scratch / ("top/entry " + std::to_string(i));
    ASSERT_EQ(i % 5 == 0 ? mkdir(name.c_str(), 0755) : symlink("nowhere", name.c_str()), 0);
  }
  rm_tree((scratch / "top").c_str(), 1);
  EXPECT_EQ(tree_listing(scratch.path()), Lines{});
}

TEST(RmTreeAux, ReturnsZeroWhereAllIsGone) {
  const ScratchDir scratch;
  fstest::make_each_type(scratch.path());
  for (const int stop_on_error : {0, 1}) {
    EXPECT_EQ(rm_tree_aux((scratch / "missing").c_str(), 1, stop_on_error), 0);
    EXPECT_EQ(rm_tree_aux((scratch / "file").c_str(), 1, stop_on_error), 0);
    EXPECT_EQ(rm_tree_aux(scratch.path().c_str(), 0, stop_on_error), 0);
  }
  EXPECT_EQ(tree_listing(scratch.path()), Lines{});
}

}  // namespace
