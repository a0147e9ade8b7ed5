#include <dirent.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <random>

#include "content_support.h"
#include "support/limits.h"
#include "support/odd_trees.h"
#include "vhost/FileList.h"
#include "vhost/listing.private.h"

namespace {

using frask::TreeListing;
using testsupport::ScratchDir;
using testsupport::write_file;
using vhosttest::Lines;

/// The paths in one of the orders; a directory with "/" behind it.
Lines visited(const TreeListing& listing,
              void (TreeListing::*order)(const TreeListing::Visitor&) const) {
  Lines paths;
  (listing.*order)([&paths](const std::string& path, bool isDirectory) {
    paths.push_back(isDirectory ? path + "/" : path);
  });
  return paths;
}

/// The same without the sign.
std::vector<std::filesystem::path> paths_of(const TreeListing& listing,
                                            void (TreeListing::*order)(const TreeListing::Visitor&)
                                                const) {
  std::vector<std::filesystem::path> paths;
  (listing.*
   order)([&paths](const std::string& path, bool /*isDirectory*/) { paths.emplace_back(path); });
  return paths;
}

TEST(TreeListing, GoesThroughItInEitherOrderOfPaths) {
  const ScratchDir scratch;
  for (const char* name : {"a/b", "a!/b", "a.b", "ab", "a/b.c/d", "a/b-c", "B/x", "z"})
    write_file(scratch / ("top/" + std::string(name)), "");
  TreeListing listing;
  listing.add(scratch / "top", "");
  const Lines ascending{"/",       "B/",  "B/x",  "a/",  "a/b", "a/b-c", "a/b.c/",
                        "a/b.c/d", "a!/", "a!/b", "a.b", "ab",  "z"};
  EXPECT_EQ(visited(listing, &TreeListing::ascending), ascending);
  EXPECT_EQ(visited(listing, &TreeListing::descending),
            Lines(ascending.rbegin(), ascending.rend()));
  EXPECT_EQ(listing.size(), ascending.size());
}

TEST(TreeListing, SortsAsThePathsOfARandomTreeSort) {
  std::minstd_rand random(7);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same tree in every run
  const std::vector<std::string> letters{"a", "b", ".", "-", "!", "\x01", "\xff", "A", "0", " "};
  const ScratchDir scratch(testsupport::memory_directory());
  for (int file = 0; file < 400; ++file) {
    std::string path = "top";
    for (auto depth = 1 + random() % 4; depth > 0; --depth) {
      path += "/x";
      for (auto left = random() % 3; left > 0; --left) path += letters[random() % letters.size()];
    }
    std::error_code taken;  // where a file of the name is there already
    std::filesystem::create_directories(scratch / path, taken);
  }
  TreeListing listing;
  listing.add(scratch / "top", "section");
  auto expected = paths_of(listing, &TreeListing::inReadingOrder);
  ASSERT_GT(expected.size(), 400U);
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(paths_of(listing, &TreeListing::ascending), expected);
  std::reverse(expected.begin(), expected.end());
  EXPECT_EQ(paths_of(listing, &TreeListing::descending), expected);
}

TEST(TreeListing, HoldsSeveralTreesEachUnderItsName) {
  const ScratchDir scratch;
  write_file(scratch / "one/file", "");
  write_file(scratch / "two/file", "");
  TreeListing listing;
  listing.add(scratch / "one", "b");
  listing.add(scratch / "missing", "c");
  listing.add(scratch / "two", "a");
  EXPECT_EQ(visited(listing, &TreeListing::inReadingOrder),
            (Lines{"b/", "b/file", "c", "a/", "a/file"}));
  EXPECT_EQ(visited(listing, &TreeListing::descending),
            (Lines{"c", "b/file", "b/", "a/file", "a/"}));
}

TEST(TreeListing, GivesTheDirectoryThatItListed) {
  const ScratchDir scratch;
  write_file(scratch / "top/file", "");
  std::filesystem::create_symlink("top", scratch / "link");
  TreeListing listing;
  const frask::UniqueFd fd = listing.add(scratch / "top", "a");
  struct stat here = {};
  struct stat there = {};
  ASSERT_EQ(fstat(fd.get(), &here), 0);
  ASSERT_EQ(stat((scratch / "top").c_str(), &there), 0);
  EXPECT_EQ(here.st_ino, there.st_ino);
  for (const char* name : {"link", "missing", "top/file"})
    EXPECT_FALSE(listing.add(scratch / name, "a")) << name;
}

TEST(TreeListing, TellsDirectoriesFromAllElse) {
  const ScratchDir scratch;
  testsupport::make_each_type(scratch / "top");
  TreeListing listing;
  listing.add(scratch / "top", "");
  EXPECT_EQ(visited(listing, &TreeListing::ascending),
            (Lines{"/", "dangling", "device", "dir/", "dir/file", "dirlink", "file", "link", "pipe",
                   "socket"}));
}

TEST(TreeListing, StandsATreeOfFiveThousandLevels) {
  constexpr int kDepth = 5000;
  const ScratchDir scratch(testsupport::memory_directory());
  testsupport::make_chain(scratch.path(), kDepth, "d");
  const auto outcome = testsupport::in_child([&] {
    testsupport::limit_descriptors(40);
    TreeListing listing;
    listing.add(scratch.path(), "");
    if (listing.size() != kDepth + 1) _exit(95);
    size_t longest = 0;
    listing.descending([&](const std::string& path, bool /*isDirectory*/) {
      longest = std::max(longest, path.size());
    });
    if (longest != 2 * kDepth - 1) _exit(94);
    exit(vhosttest::kReturned);
  });
  EXPECT_EQ(outcome, vhosttest::reported(""));
}

TEST(TreeListing, FindsTheWayBackOutOfADeepDirectory) {
  const ScratchDir scratch(testsupport::memory_directory());
  std::string path = "top";
  for (int depth = 0; depth < 60; ++depth) {
    for (const char* side : {"/a/x", "/z/x"}) write_file(scratch / (path + side), "");
    path += "/m";
  }
  write_file(scratch / (path + "/x"), "");
  TreeListing listing;
  listing.add(scratch / "top", "");
  EXPECT_EQ(listing.size(), 1U + 60 * 5 + 1);
}

/// A directory's records as a file system gives them that does not know the types.
std::string records_without_types(const Lines& names) {
  std::string records;
  for (const std::string& name : names) {
    char record[32] = {};
    const uint64_t inode = 1;
    const uint16_t length = 24;
    memcpy(record, &inode, sizeof inode);
    memcpy(record + 8, &inode, sizeof inode);
    memcpy(record + 16, &length, sizeof length);
    record[18] = DT_UNKNOWN;
    name.copy(record + 19, 4);
    records.append(record, length);
  }
  std::string hex;
  for (const char byte : records) {
    char digits[3];
    snprintf(digits, sizeof digits, "%02x",
             static_cast<unsigned>(static_cast<unsigned char>(byte)));
    hex += digits;
  }
  return hex;
}

TEST(TreeListing, LooksAtEntriesOfUnknownType) {
  const ScratchDir scratch(testsupport::memory_directory());
  write_file(scratch / "top/dir/in", "");
  write_file(scratch / "top/file", "");
  std::filesystem::create_symlink("dir", scratch / "top/link");
  const std::string records = records_without_types({".", "..", "link", "dir", "file"});
  const auto outcome =
      vhosttest::run_traced({"-o", "/dev/null", "-P", scratch / "top", "-e",
                             "inject=getdents64:poke_exit=@arg2=" + records + ":when=1"},
                            {"tree", scratch / "top"});
  const std::string expected("/\0dir/\0dir/in\0file\0link\0", 24);
  EXPECT_EQ(outcome, (testsupport::Outcome{expected, "", 0}));
}

}  // namespace
