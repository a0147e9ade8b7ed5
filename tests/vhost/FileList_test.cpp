#include "vhost/FileList.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <iostream>

#include "content_support.h"
#include "library_listing.h"
#include "support/limits.h"
#include "support/odd_trees.h"
#include "support/stopped_child.h"
#include "support/tree_listing.h"

namespace {

using frask::readDirContent;
using testsupport::in_child;
using testsupport::Outcome;
using testsupport::ScratchDir;
using testsupport::write_file;
using vhosttest::Lines;
using vhosttest::reported;
using vhosttest::texts;

/// What a child prints: the entries, one a line, and the result.
void print_and_exit(const std::string& dir, unsigned skip, bool by_library) {
  std::vector<std::filesystem::path> entries;
  int result = 0;
  if (by_library)
    vhosttest::LibraryListing(entries, skip).list(dir);
  else
    result = readDirContent(&entries, dir, skip);
  for (const std::filesystem::path& entry : entries) std::cout << entry.native() << '\n';
  std::cout.flush();
  exit(vhosttest::kReturned + result);
}

/// Both listings in children that stand in `directory`, without rights.
void expect_equal_for_nobody(const std::filesystem::path& directory, const std::string& dir) {
  const auto listed = [&](bool by_library) {
    return in_child([&] {
      testsupport::become_nobody_in(directory);
      print_and_exit(dir, 1, by_library);
    });
  };
  const Outcome by_library = listed(true);
  EXPECT_NE(by_library.err, "") << "nothing failed";
  EXPECT_EQ(listed(false), by_library);
}

TEST(ReadDirContent, ListsWhatTheLibrarysOwnWalkLists) {
  const ScratchDir scratch;
  testsupport::make_each_type(scratch / "top");
  testsupport::make_each_type(scratch / "top/dir/deeper/still");
  write_file(scratch / "top/. ./a\nb/\xff\xfe", "");
  for (const char* end : {"", "/", "//", "/.", "/./", "/dir", "//dir//deeper", "/dir/../dir",
                          "/link", "/dirlink", "/dirlink/", "/dangling", "/missing", "/pipe"}) {
    const std::string dir = scratch / "top" + end;
    const auto depth = static_cast<unsigned>(frask::pathLength(dir));
    for (const unsigned skip : {0U, 1U, depth - 1, depth, depth + 1, depth + 9}) {
      SCOPED_TRACE(dir + " without " + std::to_string(skip));
      std::vector<std::filesystem::path> expected;
      std::vector<std::filesystem::path> listed;
      vhosttest::LibraryListing(expected, skip).list(dir);
      EXPECT_EQ(readDirContent(&listed, dir, skip), 0);
      EXPECT_EQ(texts(listed), texts(expected));
    }
    EXPECT_EQ(texts(readDirContent(dir)), [&] {
      std::vector<std::filesystem::path> expected;
      vhosttest::LibraryListing(expected, depth).list(dir);
      return texts(expected);
    }());
  }
}

TEST(ReadDirContent, ListsARelativeDirectoryAndTheEmptyPath) {
  const ScratchDir scratch;
  write_file(scratch / "a/b/c", "");
  for (const char* dir : {"a", "./a", "a/b", ".", "a/..", ""}) {
    SCOPED_TRACE(dir);
    const auto listed = [&](bool by_library) {
      return in_child([&] {
        if (chdir(scratch.path().c_str()) != 0) _exit(97);
        print_and_exit(dir, 1, by_library);
      });
    };
    EXPECT_EQ(listed(false), listed(true));
    EXPECT_EQ(listed(false).err, "");
  }
}

TEST(ReadDirContent, PutsADirectoryRightBeforeWhatItHolds) {
  const ScratchDir scratch;
  write_file(scratch / "a/b/c", "");
  EXPECT_EQ(texts(readDirContent(scratch / "a")), (Lines{"", "b", "b/c"}));
}

TEST(ReadDirContent, AppendsToWhatIsThere) {
  const ScratchDir scratch;
  write_file(scratch / "a/b", "");
  std::vector<std::filesystem::path> entries{"before"};
  readDirContent(&entries, scratch / "a", 1);
  readDirContent(&entries, scratch / "a/b", 0);
  EXPECT_EQ(entries.size(), 4U);
  EXPECT_EQ(entries[0], "before");
  EXPECT_EQ(entries[3], scratch / "a/b");
}

TEST(ReadDirContent, GivesJustItsOwnEntryForWhatIsMissingOrNoDirectory) {
  const ScratchDir scratch;
  write_file(scratch / "file", "");
  std::filesystem::create_directories(scratch / "real/inner");
  std::filesystem::create_symlink("real", scratch / "link");
  const auto skip = static_cast<unsigned>(frask::pathLength(scratch.path()));
  for (const char* name : {"missing", "missing/too", "file", "link"}) {
    std::vector<std::filesystem::path> entries;
    const auto outcome = in_child([&] { readDirContent(&entries, scratch / name, skip); });
    EXPECT_EQ(outcome, (Outcome{"", "", 0})) << name;
    EXPECT_EQ(readDirContent(&entries, scratch / name, skip), 0);
    EXPECT_EQ(texts(entries), Lines{name});
  }
}

TEST(ReadDirContent, FollowsLinksOnTheWayToTheDirectory) {
  const ScratchDir scratch;
  write_file(scratch / "real/dir/file", "");
  std::filesystem::create_symlink("real", scratch / "link");
  EXPECT_EQ(texts(readDirContent(scratch / "link/dir")), (Lines{"", "file"}));
}

TEST(ReadDirContent, CountsASeparatorBehindTheDirectoryAsAnElement) {
  const ScratchDir scratch;
  write_file(scratch / "a/b/c", "");
  EXPECT_EQ(texts(readDirContent(scratch / "a/")), (Lines{"", "", "c"}));
}

TEST(ReadDirContent, ReportsWhatMayNotBeReadAsTheLibraryDoes) {
  for (const mode_t mode : {0000U, 0111U, 0444U, 0644U, 0311U}) {
    SCOPED_TRACE(mode);
    const ScratchDir scratch;
    write_file(scratch / "top/before/file", "");
    testsupport::make_each_type(scratch / "top/closed");
    write_file(scratch / "top/later/file", "");
    ASSERT_EQ(chmod(scratch.path().c_str(), 0755), 0);
    ASSERT_EQ(chmod((scratch / "top/closed").c_str(), mode), 0);
    expect_equal_for_nobody(scratch.path(), "top");
    expect_equal_for_nobody(scratch.path(), "top/closed");
  }
}

TEST(ReadDirContent, ReportsADirectoryThatCannotBeReached) {
  const ScratchDir scratch;
  write_file(scratch / "closed/top/file", "");
  write_file(scratch / "file", "");
  ASSERT_EQ(chmod(scratch.path().c_str(), 0755), 0);
  ASSERT_EQ(chmod((scratch / "closed").c_str(), 0700), 0);
  for (const char* dir : {"closed/top", "file/below"})
    ASSERT_NO_FATAL_FAILURE(expect_equal_for_nobody(scratch.path(), dir));
  const auto outcome = in_child([&] { print_and_exit(scratch / "file/below", 0, false); });
  EXPECT_EQ(outcome.err, scratch / "file/below" + ": " + strerror(ENOTDIR) + "\n");
}

TEST(ReadDirContent, WritesItsReportsByteForByte) {
  const ScratchDir scratch;
  write_file(scratch / "top/closed/file", "");
  ASSERT_EQ(chmod(scratch.path().c_str(), 0755), 0);
  ASSERT_EQ(chmod((scratch / "top/closed").c_str(), 0), 0);
  const auto outcome = in_child([&] {
    testsupport::become_nobody_in(scratch.path());
    readDirContent("top");
  });
  EXPECT_EQ(outcome.err,
            "filesystem error: directory iterator cannot open directory: Permission denied "
            "[top/closed]\n");
}

TEST(ReadDirContent, ReportsADirectoryThatCannotBeReadOnAsTheLibraryDoes) {
  const ScratchDir scratch(testsupport::memory_directory());
  write_file(scratch / "top/other/file", "");
  for (int i = 0; i < 3000; ++i) write_file(scratch / ("top/sub/" + std::to_string(i)), "");
  for (const char* when : {"1", "2", "3", "1+"})
    for (const char* error : {"EIO", "ENOENT"}) {
      SCOPED_TRACE(std::string(error) + " at call " + when);
      const Lines strace{"-o", "/dev/null",
                         "-P", scratch / "top/sub",
                         "-e", std::string("inject=getdents64:error=") + error + ":when=" + when};
      const Outcome expected = vhosttest::run_traced(strace, {"library", scratch / "top"});
      EXPECT_EQ(vhosttest::run_traced(strace, {"list", scratch / "top"}), expected);
      EXPECT_EQ(expected.err.empty(), error == std::string("ENOENT"));
      EXPECT_EQ(expected.exit_code(), 0);
    }
}

TEST(ReadDirContent, PassesOverWhatVanishesMeanwhile) {
  const ScratchDir scratch;
  write_file(scratch / "top/sub/file", "");
  for (const long call : {SYS_openat, SYS_newfstatat}) {
    write_file(scratch / "top/sub/file", "");
    const auto outcome = testsupport::in_child_stopped_at(
        {call, "sub"}, [&] { std::filesystem::remove_all(scratch / "top/sub"); },
        [&] { print_and_exit(scratch / "top", static_cast<unsigned>(-1), false); });
    EXPECT_EQ(outcome, (Outcome{"\n\n", "", vhosttest::kReturned << 8}));
  }
}

TEST(ReadDirContent, NeverEntersADirectoryThatBecomesALink) {
  const ScratchDir scratch;
  write_file(scratch / "outside/secret", "");
  write_file(scratch / "top/sub/file", "");
  const auto outcome = testsupport::in_child_stopped_at(
      {SYS_openat, "sub"},
      [&] {
        std::filesystem::rename(scratch / "top/sub", scratch / "moved");
        std::filesystem::create_symlink("../outside", scratch / "top/sub");
      },
      [&] {
        print_and_exit(scratch / "top", static_cast<unsigned>(frask::pathLength(scratch / "top")),
                       false);
      });
  EXPECT_EQ(outcome, (Outcome{"\nsub\n", "", vhosttest::kReturned << 8}));
}

TEST(ReadDirContent, NeedsFewDescriptorsForADeepTree) {
  const ScratchDir scratch;
  testsupport::make_chain(scratch.path(), 600, "directory");
  const auto outcome = in_child([&] {
    testsupport::limit_descriptors(40);
    const std::vector<int> before = testsupport::open_descriptors();
    const auto entries = readDirContent(scratch.path());
    if (testsupport::open_descriptors() != before) _exit(95);
    if (std::distance(entries.back().begin(), entries.back().end()) != 600) _exit(94);
    exit(vhosttest::kReturned);
  });
  EXPECT_EQ(outcome, reported(""));
}

TEST(CleanDirContent, SortsTheEntriesInPlaceAndInDescendingOrder) {
  std::vector<std::filesystem::path> entries{"a", "c", "a/b", "a!", "", "a/b/c", "/a", "a/", "b"};
  auto expected = entries;
  std::sort(expected.begin(), expected.end(), std::greater<>());
  const ScratchDir scratch;
  frask::cleanDirContent(&entries, scratch / "missing", {});
  EXPECT_EQ(texts(entries), texts(expected));
}

TEST(CleanDirContent, RemovesWhatWasListedAndTheBaseItself) {
  const ScratchDir scratch;
  testsupport::make_each_type(scratch / "base");
  auto entries = readDirContent(scratch / "base");
  const auto outcome = in_child([&] { frask::cleanDirContent(&entries, scratch / "base", {}); });
  EXPECT_EQ(outcome, (Outcome{"", "", 0}));
  EXPECT_EQ(testsupport::tree_listing(scratch.path()), Lines{});
}

TEST(CleanDirContent, LeavesWhatWasNotListed) {
  const ScratchDir scratch;
  write_file(scratch / "base/listed/file", "");
  write_file(scratch / "base/other", "");
  std::vector<std::filesystem::path> entries{"listed", "listed/file", "missing"};
  const auto outcome = in_child([&] { frask::cleanDirContent(&entries, scratch / "base", {}); });
  EXPECT_EQ(outcome, (Outcome{"", "", 0}));
  EXPECT_EQ(testsupport::tree_listing(scratch / "base"), Lines{"f 0644 0:0 other "});
}

TEST(CleanDirContent, TakesTheSectionsFromWhereTheyLie) {
  const ScratchDir scratch;
  for (const char* name : {"docs/a", "cgi/b", "base/error_docs/c", "base/httpsdocs/d",
                           "base/httpdocs/a", "base/cgi-bin/b"})
    write_file(scratch / name, "");
  frask::ExtractParams params;
  params.docrootDir = scratch / "docs//";
  params.cgiBinDir = scratch / "cgi/";
  std::vector<std::filesystem::path> entries{"httpdocs/a", "cgi-bin/b",    "error_docs",
                                             "httpdocs",   "error_docs/c", "httpsdocs/d",
                                             "httpsdocs",  "cgi-bin",      "private"};
  const auto outcome =
      in_child([&] { frask::cleanDirContent(&entries, scratch / "base/", params); });
  EXPECT_EQ(outcome, (Outcome{"", "", 0}));
  EXPECT_EQ(testsupport::tree_listing(scratch.path()),
            (Lines{"d 0755 0:0 base", "d 0755 0:0 base/cgi-bin", "f 0644 0:0 base/cgi-bin/b ",
                   "d 0755 0:0 base/httpdocs", "f 0644 0:0 base/httpdocs/a ",
                   "d 0755 0:0 base/httpsdocs", "d 0755 0:0 cgi", "d 0755 0:0 docs"}));
}

TEST(CleanDirContent, LeavesTheSectionsAloneThatAreKept) {
  const ScratchDir scratch;
  for (const char* name : {"cgi/a", "base/error_docs/a", "base/error_docs2/a"})
    write_file(scratch / name, "");
  const Lines before = testsupport::tree_listing(scratch.path());
  frask::ExtractParams params;
  params.cgiBinDir = scratch / "cgi";
  params.keepCgiBin = true;
  params.keepErrorDocs = true;
  std::vector<std::filesystem::path> entries{"cgi-bin/a", "error_docs/a", "error_docs"};
  const auto clean = [&] {
    return in_child([&] { frask::cleanDirContent(&entries, scratch / "base", params); });
  };
  EXPECT_EQ(clean(), (Outcome{"", "", 0}));
  EXPECT_EQ(testsupport::tree_listing(scratch.path()), before);
  params.keepCgiBin = false;
  params.keepErrorDocs = false;
  EXPECT_EQ(clean(), (Outcome{"", "", 0}));
  EXPECT_EQ(testsupport::tree_listing(scratch.path()),
            (Lines{"d 0755 0:0 base", "d 0755 0:0 base/error_docs2",
                   "f 0644 0:0 base/error_docs2/a ", "d 0755 0:0 cgi"}));
}

TEST(CleanDirContent, RemovesNoBaseThatIsALink) {
  const ScratchDir scratch;
  std::filesystem::create_directories(scratch / "real");
  std::filesystem::create_symlink("real", scratch / "base");
  write_file(scratch / "real/file", "");
  std::vector<std::filesystem::path> entries{"", "file"};
  const auto outcome = in_child([&] { frask::cleanDirContent(&entries, scratch / "base", {}); });
  EXPECT_EQ(outcome, (Outcome{"", vhosttest::failed("rmdir", scratch / "base/", ENOTDIR), 0}));
  EXPECT_EQ(testsupport::tree_listing(scratch.path()),
            (Lines{"l - 0:0 base real", "d 0755 0:0 real"}));
}

TEST(CleanDirContent, ReportsAnEntryByItsPath) {
  const ScratchDir scratch;
  write_file(scratch / "base/file", "");
  write_file(scratch / "docs/file", "");
  frask::ExtractParams params;
  params.docrootDir = scratch / "docs/";
  std::vector<std::filesystem::path> entries{"httpdocs//file//x", "file/./x",
                                             scratch / "docs/file/x"};
  const auto outcome =
      in_child([&] { frask::cleanDirContent(&entries, scratch / "base/", params); });
  EXPECT_EQ(outcome, (Outcome{"",
                              vhosttest::failed("lstat", scratch / "docs/file/x", ENOTDIR) +
                                  vhosttest::failed("lstat", scratch / "docs/file/x", ENOTDIR) +
                                  vhosttest::failed("lstat", scratch / "base/file/./x", ENOTDIR),
                              0}));
}

}  // namespace
