#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "support/child.h"
#include "support/scratch.h"
#include "support/tree_listing.h"
#include "vhost/base_directory.private.h"

namespace {

using frask::BaseDirectory;
using frask::Place;
using testsupport::ScratchDir;
using testsupport::tree_listing;
using testsupport::write_file;
using Lines = std::vector<std::string>;
namespace fs = std::filesystem;

/// Its inode, or minus the error that stands in the way.
long long inode(BaseDirectory& directory) {
  struct stat st = {};
  const int fd = directory.fd();
  if (fd < 0 || fstat(fd, &st) != 0) return -errno;
  return static_cast<long long>(st.st_ino);
}

long long inode(const std::string& path) {
  struct stat st = {};
  return stat(path.c_str(), &st) == 0 ? static_cast<long long>(st.st_ino) : -errno;
}

/// Creates the directory: 0, or the error.
int create(BaseDirectory& directory) {
  Place place = {};
  if (!directory.locateWithParents(place)) return errno;
  return mkdirat(place.dir_fd, place.name, 0700) == 0 ? 0 : errno;
}

TEST(BaseDirectory, IsWhatItsPathMeans) {
  const ScratchDir scratch;
  fs::create_directories(scratch / "a/b");
  fs::create_directory_symlink("a/b", scratch / "link");
  fs::create_symlink("loop", scratch / "loop");
  write_file(scratch / "file", "");
  for (const char* end : {"", "/", "//", "/.", "/./", "/.."})
    for (const char* name :
         {"a", "a/b", "a/./b", "a//b", "link", "missing", "loop", "a/b/..", "."}) {
      const std::string path = scratch / name + end;
      BaseDirectory directory(path);
      EXPECT_EQ(directory.path(), path);
      EXPECT_EQ(inode(directory), inode(path)) << path;
    }
  for (const char* path : {"/", "//", "/.", "/..", ".", "..", "./", "./."}) {
    BaseDirectory directory(path);
    EXPECT_EQ(inode(directory), inode(path)) << path;
  }
  BaseDirectory file(scratch / "file");
  EXPECT_EQ(inode(file), -ENOTDIR);
  BaseDirectory none("");
  EXPECT_EQ(inode(none), -ENOENT);
}

TEST(BaseDirectory, StaysWhatItWas) {
  const ScratchDir scratch;
  fs::create_directories(scratch / "a/b");
  BaseDirectory directory(scratch / "a/b");
  const long long before = inode(directory);
  ASSERT_GT(before, 0);
  fs::rename(scratch / "a", scratch / "moved");
  fs::create_directories(scratch / "a/b");
  EXPECT_EQ(inode(directory), before);
}

// The names that the standard library creates for the same path.
TEST(BaseDirectory, IsCreatedWithItsParents) {
  for (const char* path : {"new", "new/", "new/.", "new/./", "a/new", "new/b/c/d", "new//b/./c/.",
                           "./new", "missing/../new", "link/new/b", "a/../new/b/"}) {
    SCOPED_TRACE(path);
    const ScratchDir ours;
    const ScratchDir theirs;
    for (const ScratchDir* scratch : {&ours, &theirs}) {
      fs::create_directory(*scratch / "a");
      fs::create_directory_symlink("a", *scratch / "link");
    }
    BaseDirectory directory(ours / path);
    ASSERT_EQ(create(directory), 0);
    fs::create_directories(theirs / path);
    EXPECT_EQ(testsupport::mode_of(fs::canonical(ours / path)), 0700U);
    ASSERT_EQ(chmod((ours / path).c_str(), 0755), 0);
    EXPECT_EQ(tree_listing(ours.path()), tree_listing(theirs.path()));
    EXPECT_EQ(inode(directory), inode(ours / path));
  }
}

TEST(BaseDirectory, SaysWhyItCannotBeCreated) {
  const ScratchDir scratch;
  write_file(scratch / "file", "");
  fs::create_symlink("nowhere", scratch / "dangling");
  struct Row {
    const char* path;
    int error;
  };
  for (const Row& row : {Row{"file/new", ENOTDIR},
                         {"file/new/b", ENOTDIR},
                         {"dangling/new", EEXIST},
                         {"dangling", EEXIST},
                         {".", EEXIST},
                         {"missing/..", EEXIST}}) {
    BaseDirectory directory(scratch / row.path);
    EXPECT_EQ(create(directory), row.error) << row.path;
  }
  BaseDirectory none("");
  EXPECT_EQ(create(none), EINVAL);
  Place place = {};
  EXPECT_FALSE(none.locate(place));
  EXPECT_EQ(errno, ENOENT);
  BaseDirectory orphan(scratch / "absent/new");
  EXPECT_FALSE(orphan.locate(place));
  EXPECT_EQ(errno, ENOENT) << "its parent is not created";
}

TEST(BaseDirectory, PassesNoLinkInThePlaceOfWhatItIsToCreate) {
  const ScratchDir scratch;
  fs::create_directories(scratch / "real");
  for (const char* end : {"", "/", "/."}) {
    BaseDirectory directory(scratch / "new" + end);
    Place place = {};
    ASSERT_TRUE(directory.locate(place));
    fs::create_directory_symlink("real", scratch / "new");
    EXPECT_EQ(inode(directory), -ELOOP);
    fs::remove(scratch / "new");
  }
}

}  // namespace
