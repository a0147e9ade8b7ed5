#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "exec/exec_support.h"
#include "exec/forkexec.h"
#include "log/c_string.private.h"

using exectest::pattern;
using exectest::reported;
using frask::CString;
using testsupport::in_child;
using testsupport::Outcome;

TEST(ReadToBuf, GrowsWhenTwoThousandAndFortyEightBytesAreLeft) {
  struct Row {
    int size;
    int len;
    int grown;
  };
  const Row rows[] = {
      {0, 0, 4096},        {4096, 2047, 4096},     {4096, 2048, 8192}, {4096, 4095, 8192},
      {4000, 1952, 8096},  {4097, 2048, 4097},     {4097, 2049, 8194}, {8192, 6143, 8192},
      {8192, 6144, 16384}, {65536, 65000, 131072},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << row.size << " bytes, " << row.len << " in use");
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const std::string text = pattern(60000);
    ASSERT_EQ(write(ends[1], text.data(), text.size()), 60000);
    close(ends[1]);
    char* buf =
        row.size == 0 ? nullptr : static_cast<char*>(calloc(1, static_cast<size_t>(row.size)));
    int size = row.size;
    int len = row.len;
    int fd = ends[0];
    read_to_buf(&fd, &buf, &size, &len);
    const CString owner(buf);
    EXPECT_EQ(size, row.grown);
    EXPECT_EQ(fd, ends[0]);
    const int taken = std::min(60000, row.grown - row.len - 1);
    EXPECT_EQ(len, row.len + taken) << "one byte is kept for the terminator";
    EXPECT_TRUE(memcmp(buf + row.len, text.data(), static_cast<size_t>(taken)) == 0);
    close(ends[0]);
  }
}

TEST(ReadToBuf, LeavesTheDescriptorWhenThereIsNothingYet) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
  char* buf = nullptr;
  int size = 0;
  int len = 0;
  int fd = ends[0];
  read_to_buf(&fd, &buf, &size, &len);
  EXPECT_EQ(errno, EAGAIN);
  const CString owner(buf);
  EXPECT_EQ(fd, ends[0]);
  EXPECT_EQ(size, 4096);
  EXPECT_EQ(len, 0);
  close(ends[0]);
  close(ends[1]);
}

TEST(ReadToBuf, ClosesTheDescriptorAtTheEnd) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  close(ends[1]);
  char* buf = nullptr;
  int size = 0;
  int len = 0;
  int fd = ends[0];
  read_to_buf(&fd, &buf, &size, &len);
  const CString owner(buf);
  EXPECT_EQ(fd, -1);
  EXPECT_EQ(fcntl(ends[0], F_GETFD), -1) << "it is closed";
  EXPECT_NE(buf, nullptr);
  EXPECT_EQ(len, 0);
}

TEST(ReadToBuf, ReportsAFailingReadAndClosesTheDescriptor) {
  const Outcome outcome = in_child([] {
    const int directory = open("/", O_RDONLY | O_DIRECTORY);
    char* buf = nullptr;
    int size = 0;
    int len = 0;
    int fd = directory;
    read_to_buf(&fd, &buf, &size, &len);
    const int error = errno;
    free(buf);
    printf("errno %d, fd %d, open %d, len %d\n", error, fd, fcntl(directory, F_GETFD), len);
  });
  EXPECT_EQ(outcome.out, "errno 0, fd -1, open -1, len 0\n");
  EXPECT_EQ(outcome.err, "fork_exec*: read(pipe) failed: Is a directory\n");
}

TEST(ReadToBuf, ReportsAnInterruptedRead) {
  const Outcome outcome = in_child([] {
    char* buf = nullptr;
    int size = 0;
    int len = 0;
    int fd = dup(0);
    exectest::answer_syscall(SYS_read, EINTR);
    read_to_buf(&fd, &buf, &size, &len);
    dprintf(STDOUT_FILENO, "errno %d, fd %d, len %d\n", errno, fd, len);
    _exit(0);  // gcov and the search for leaks read at exit()
  });
  EXPECT_EQ(outcome.out, "errno 0, fd -1, len 0\n");
  EXPECT_EQ(outcome.err, "fork_exec*: read(pipe) failed: Interrupted system call\n");
}

// Sizes are int: twice 1 GiB is none.
TEST(ReadToBuf, GrowsToTheLargestSizeAtMost) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  ASSERT_EQ(write(ends[1], "text", 4), 4);
  int size = 1 << 30;
  int len = size - 100;
  char* buf = nullptr;  // none yet, which spares the test a block of 1 GiB to be moved
  int fd = ends[0];
  read_to_buf(&fd, &buf, &size, &len);
  const CString owner(buf);
  EXPECT_EQ(size, INT_MAX);
  EXPECT_EQ(len, (1 << 30) - 96);
  EXPECT_EQ(memcmp(buf + len - 4, "text", 4), 0);
  len = INT_MAX - 3;
  ASSERT_EQ(write(ends[1], "long", 4), 4);
  read_to_buf(&fd, &buf, &size, &len);
  EXPECT_EQ(size, INT_MAX);
  EXPECT_EQ(len, INT_MAX - 1) << "used up to the terminator's byte";
  close(ends[0]);
  close(ends[1]);
}

TEST(ReadToBuf, IsFatalWhenTheLargestSizeIsFull) {
  const Outcome outcome = in_child([] {
    char* buf = nullptr;
    int size = INT_MAX;
    int len = INT_MAX - 1;
    int fd = 0;
    errno = 0;
    read_to_buf(&fd, &buf, &size, &len);
    printf("not reached");
  });
  EXPECT_TRUE(reported(outcome, 1,
                       "Cannot allocate memory\n"
                       "System error 12: Cannot allocate memory\n"));
}
