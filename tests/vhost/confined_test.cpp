#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <random>

#include "support/child.h"
#include "support/limits.h"
#include "support/odd_trees.h"
#include "support/scratch.h"
#include "vhost/confined.private.h"

namespace {

using frask::ConfinedDirectory;
using frask::Place;
using testsupport::ScratchDir;
using testsupport::write_file;

/// What lies at an entry: its inode, or minus the error that stands in the way.
long long found(ConfinedDirectory& directory, const std::string& entry) {
  Place place = {};
  struct stat st = {};
  if (!directory.locate(entry.c_str(), place)) return -errno;
  if (fstatat(place.dir_fd, place.name, &st, AT_SYMLINK_NOFOLLOW) != 0) return -errno;
  return static_cast<long long>(st.st_ino);
}

/// The same by the whole path.
long long there(const std::string& path) {
  struct stat st = {};
  return lstat(path.c_str(), &st) == 0 ? static_cast<long long>(st.st_ino) : -errno;
}

TEST(ConfinedDirectory, FindsWhatThePathMeans) {
  const ScratchDir scratch;
  write_file(scratch / "base/a/b/c", "");
  write_file(scratch / "base/a/d/c", "");
  write_file(scratch / "base/file", "");
  write_file(scratch / "beside/file", "");
  ConfinedDirectory directory(scratch / "base");
  for (const char* entry : {"a",
                            "a/b/c",
                            "a/b/c",
                            "a//b///c",
                            "./a/./b/c",
                            "a/d/c",
                            "file",
                            "a/",
                            "a//",
                            "a/.",
                            "a/..",
                            "a/b/../d/c",
                            "a/b/./../d/c",
                            "a/../a/./b/c",
                            "a/b/../../file",
                            "..",
                            "../",
                            "../beside",
                            "../beside/file",
                            "../base/a/d/c",
                            "a/../../beside/file",
                            "../../../../../../../..",
                            "a/b/c",
                            "missing",
                            "missing/x",
                            "a/x/y",
                            "missing/../file",
                            "file/x",
                            "file/",
                            "file/.",
                            "file/..",
                            "a/b/c/x",
                            ""}) {
    const std::string by_path = scratch / "base/" + entry;
    EXPECT_EQ(found(directory, entry), there(by_path)) << entry;
  }
}

TEST(ConfinedDirectory, PassesNoLinkBelowItsBase) {
  const ScratchDir scratch;
  write_file(scratch / "base/real/file", "");
  for (const char* target : {"real", "/etc", "nowhere", "link"})
    for (const char* entry : {"link/file", "link/passwd", "link/", "link/.", "link/../real/file",
                              "real/../link/file", "link/x/y"}) {
      std::filesystem::remove(scratch / "base/link");
      std::filesystem::create_symlink(target, scratch / "base/link");
      ConfinedDirectory directory(scratch / "base");
      EXPECT_EQ(found(directory, entry), -ELOOP) << entry << " and a link to " << target;
      EXPECT_EQ(found(directory, "link"), there(scratch / "base/link")) << "the link itself";
      EXPECT_EQ(found(directory, "real/file"), there(scratch / "base/real/file")) << "afterwards";
    }
}

TEST(ConfinedDirectory, MayBeReachedThroughLinks) {
  const ScratchDir scratch;
  write_file(scratch / "real/base/file", "");
  std::filesystem::create_symlink("real", scratch / "link");
  std::filesystem::create_symlink("real/base", scratch / "base");
  for (const char* base : {"link/base", "base"}) {
    ConfinedDirectory directory(scratch / base);
    EXPECT_EQ(found(directory, "file"), there(scratch / "real/base/file")) << base;
  }
}

TEST(ConfinedDirectory, SaysWhyItsBaseCannotBeOpened) {
  const ScratchDir scratch;
  write_file(scratch / "file", "");
  std::filesystem::create_symlink("loop", scratch / "loop");
  for (const char* base : {"missing", "file", "loop", "file/x"}) {
    ConfinedDirectory directory(scratch / base);
    EXPECT_EQ(found(directory, "entry"), there(scratch / base + "/entry")) << base;
  }
  ConfinedDirectory none("");
  EXPECT_EQ(found(none, "etc"), -ENOENT);
  EXPECT_EQ(found(none, ""), -ENOENT);
}

TEST(ConfinedDirectory, SaysWhyItCannotGoAboveItsBase) {
  const ScratchDir scratch;
  write_file(scratch / "beside", "");
  std::filesystem::create_directory(scratch / "base");
  ASSERT_EQ(chmod((scratch / "base").c_str(), 0700), 0);
  const auto outcome = testsupport::in_child([&] {
    ConfinedDirectory directory(scratch / "base");
    const bool before = found(directory, "../beside") > 0;
    testsupport::become_nobody_in("/");  // who may not search the base, which is held
    printf("%d %lld", static_cast<int>(before), found(directory, "../beside"));
  });
  EXPECT_EQ(outcome, (testsupport::Outcome{"1 -13", "", 0}));
}

TEST(ConfinedDirectory, KeepsADirectoryThatItHolds) {
  const ScratchDir scratch;
  write_file(scratch / "base/file", "");
  ConfinedDirectory directory(scratch / "base");
  directory.hold(frask::UniqueFd(open((scratch / "base").c_str(), O_RDONLY | O_CLOEXEC)));
  std::filesystem::rename(scratch / "base", scratch / "moved");
  write_file(scratch / "base/file", "");
  EXPECT_EQ(found(directory, "file"), there(scratch / "moved/file"));
}

TEST(ConfinedDirectory, GoesFromEntryToEntryOfADeepTreeWithFewDescriptors) {
  const ScratchDir scratch(testsupport::memory_directory());
  std::vector<std::string> entries;
  std::string path;
  for (int depth = 0; depth < 50; ++depth) {
    path += "m/";
    for (const char* name : {"a/x", "z"}) {
      entries.push_back(path + name);
      write_file(scratch / entries.back(), "");
    }
  }
  const auto outcome = testsupport::in_child([&] {
    testsupport::limit_descriptors(40);
    std::minstd_rand random(3);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same in every run
    ConfinedDirectory directory(scratch.path());
    for (int turn = 0; turn < 3; ++turn) {
      for (const std::string& entry : entries)
        if (found(directory, entry) != there(scratch / entry)) _exit(95);
      if (turn == 0) std::reverse(entries.begin(), entries.end());
      if (turn == 1) std::shuffle(entries.begin(), entries.end(), random);
    }
  });
  EXPECT_EQ(outcome, (testsupport::Outcome{"", "", 0}));
}

TEST(ConfinedDirectory, IsNotLedAstrayWhenADeepDirectoryIsMoved) {
  const ScratchDir scratch(testsupport::memory_directory());
  std::string way;
  for (int depth = 0; depth < 40; ++depth) way += "m/";
  write_file(scratch / ("base/" + way + "file"), "");
  write_file(scratch / "base/m/m/m/file", "");
  write_file(scratch / "outside/file", "");
  ConfinedDirectory directory(scratch / "base");
  ASSERT_GT(found(directory, way + "file"), 0);
  // Its ".." leads elsewhere now, all the way up.
  std::filesystem::rename(scratch / "base/m/m/m/m", scratch / "outside/m");
  EXPECT_EQ(found(directory, "m/m/m/file"), there(scratch / "base/m/m/m/file"));
  EXPECT_EQ(found(directory, "m/m/m/m/m/file"), -ENOENT);
}

TEST(ConfinedDirectory, ReachesWhatLiesDeeperThanAnyPath) {
  constexpr int kDepth = 1000;
  const ScratchDir scratch(testsupport::memory_directory());
  testsupport::make_chain(scratch.path(), kDepth, "directory");
  std::string entry = "directory";
  for (int depth = 1; depth < kDepth; ++depth) entry += "/directory";
  ConfinedDirectory directory(scratch.path());
  EXPECT_GT(found(directory, entry), 0);
  EXPECT_EQ(found(directory, entry + "/missing"), -ENOENT);
}

}  // namespace
