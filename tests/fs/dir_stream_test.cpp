#include "fs/dir_stream.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>
#include <string>

#include "support/child.h"
#include "support/scratch.h"

namespace {

using frask::DirStream;
using testsupport::ScratchDir;
using testsupport::write_file;
using Names = std::multiset<std::string>;

Names rest_of(DirStream& stream) {
  Names names;
  while (const DirStream::Entry* entry = stream.next()) {
    EXPECT_EQ(entry, stream.current());
    names.insert(entry->d_name);
  }
  return names;
}

/// More entries than are read at a time.
Names make_many_files(const ScratchDir& scratch) {
  Names names;
  for (int i = 0; i < 3000; ++i) {
    const std::string name = "a file with quite a long name " + std::to_string(i);
    close(open((scratch / name).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    names.insert(name);
  }
  return names;
}

TEST(DirStream, GivesEachEntryButThoseOfEachDirectory) {
  const ScratchDir scratch;
  for (const char* name : {"file", ".hidden", "...", "..data", "dir/inner"})
    write_file(scratch / name, "");
  DirStream stream;
  ASSERT_TRUE(stream.open(AT_FDCWD, scratch.path().c_str()));
  EXPECT_EQ(rest_of(stream), (Names{"file", ".hidden", "...", "..data", "dir"}));
  EXPECT_FALSE(stream.failed());
  EXPECT_EQ(stream.close(), 0);
}

TEST(DirStream, GivesNothingOfAnEmptyDirectoryAndKeepsErrno) {
  const ScratchDir scratch;
  DirStream stream;
  ASSERT_TRUE(stream.open(AT_FDCWD, scratch.path().c_str()));
  errno = E2BIG;
  EXPECT_EQ(stream.next(), nullptr);
  EXPECT_EQ(errno, E2BIG);
}

TEST(DirStream, GivesTheTypeOfAnEntry) {
  const ScratchDir scratch;
  std::filesystem::create_symlink("nowhere", scratch / "link");
  DirStream stream;
  ASSERT_TRUE(stream.open(AT_FDCWD, scratch.path().c_str()));
  ASSERT_NE(stream.next(), nullptr);
  EXPECT_EQ(stream.current()->d_type, DT_LNK);
}

TEST(DirStream, GivesManyEntriesOnceEach) {
  const ScratchDir scratch(testsupport::memory_directory());
  const Names names = make_many_files(scratch);
  DirStream stream;
  ASSERT_TRUE(stream.open(AT_FDCWD, scratch.path().c_str()));
  EXPECT_EQ(rest_of(stream), names);
}

TEST(DirStream, OpensRelativeToADirectory) {
  const ScratchDir scratch;
  write_file(scratch / "outer/inner/file", "");
  DirStream outer;
  ASSERT_TRUE(outer.open(AT_FDCWD, (scratch / "outer").c_str()));
  DirStream inner;
  ASSERT_TRUE(inner.open(outer.fd(), "inner"));
  EXPECT_EQ(rest_of(inner), Names{"file"});
}

TEST(DirStream, OpensNothingButDirectoriesAndFollowsNoLink) {
  const ScratchDir scratch;
  write_file(scratch / "dir/file", "");
  std::filesystem::create_symlink("dir", scratch / "link");
  ASSERT_EQ(mkfifo((scratch / "pipe").c_str(), 0600), 0);
  struct Row {
    const char* name;
    int error;
  };
  for (const Row& row :
       {Row{"dir/file", ENOTDIR}, {"link", ENOTDIR}, {"pipe", ENOTDIR}, {"missing", ENOENT}}) {
    SCOPED_TRACE(row.name);
    DirStream stream;
    errno = 0;
    EXPECT_FALSE(stream.open(AT_FDCWD, (scratch / row.name).c_str()));
    EXPECT_EQ(errno, row.error);
    EXPECT_EQ(stream.fd(), -1);
  }
}

TEST(DirStream, IsNotInheritedByOtherPrograms) {
  const ScratchDir scratch;
  DirStream stream;
  ASSERT_TRUE(stream.open(AT_FDCWD, scratch.path().c_str()));
  EXPECT_EQ(fcntl(stream.fd(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST(DirStream, ClosesAtTheEnd) {
  const ScratchDir scratch;
  const std::vector<int> before = testsupport::open_descriptors();
  {
    DirStream stream;
    ASSERT_TRUE(stream.open(AT_FDCWD, scratch.path().c_str()));
  }
  EXPECT_EQ(testsupport::open_descriptors(), before);
}

TEST(DirStream, TellsWhenADirectoryCannotBeRead) {
  const ScratchDir scratch;
  std::filesystem::create_directory(scratch / "removed");
  DirStream stream;
  ASSERT_TRUE(stream.open(AT_FDCWD, (scratch / "removed").c_str()));
  ASSERT_EQ(rmdir((scratch / "removed").c_str()), 0);
  EXPECT_EQ(stream.next(), nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_TRUE(stream.failed());
}

TEST(DirStream, GivesTheSameEntriesWhenDetachedOnTheWay) {
  const ScratchDir scratch(testsupport::memory_directory());
  const Names names = make_many_files(scratch);
  DirStream stream;
  ASSERT_TRUE(stream.open(AT_FDCWD, scratch.path().c_str()));
  Names found;
  for (int i = 0; i < 100; ++i) {
    ASSERT_NE(stream.next(), nullptr);
    found.insert(stream.current()->d_name);
  }
  const std::string last = stream.current()->d_name;
  const int fd = stream.fd();
  ASSERT_TRUE(stream.detach());
  EXPECT_EQ(stream.fd(), -1);
  EXPECT_EQ(fcntl(fd, F_GETFD), -1) << "the descriptor is free";
  EXPECT_EQ(stream.current()->d_name, last);
  found.merge(rest_of(stream));
  EXPECT_EQ(found, names);
  EXPECT_FALSE(stream.failed());
  EXPECT_EQ(stream.close(), 0);
}

TEST(DirStream, IsStillGoodAfterAFailureToDetach) {
  const ScratchDir scratch;
  write_file(scratch / "dir/file1", "");
  write_file(scratch / "dir/file2", "");
  DirStream stream;
  ASSERT_TRUE(stream.open(AT_FDCWD, (scratch / "dir").c_str()));
  ASSERT_NE(stream.next(), nullptr);
  const std::string first = stream.current()->d_name;
  std::filesystem::remove_all(scratch / "dir");
  EXPECT_FALSE(stream.detach());
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(stream.current()->d_name, first);
  EXPECT_NE(stream.next(), nullptr) << "an entry that was read is given";
  EXPECT_EQ(stream.next(), nullptr);
  EXPECT_TRUE(stream.failed());
}

}  // namespace
