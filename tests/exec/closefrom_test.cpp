#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "exec/exec_support.h"
#include "exec/forkexec.h"
#include "support/private_mounts.h"
#include "support/scratch.h"

using exectest::limit;
using testsupport::in_child;
using testsupport::open_descriptors;
using testsupport::Outcome;

static_assert(noexcept(closefrom(3)), "the type is that of the C library's closefrom()");

namespace {

void print(const char* name, int value) {
  printf("%s %d\n", name, value);
}

bool is_open(int fd) {
  return fcntl(fd, F_GETFD) >= 0;
}

/// Leaves exactly the descriptors 0 to `count` - 1 open.
void hold_descriptors(int count) {
  exectest::close_others();
  for (int fd = 3; fd < count; ++fd)
    if (dup2(0, fd) < 0) _exit(97);
}

/// Raises the limit to a million, or as far as the surroundings allow. The table's size.
int make_the_table_huge() {
  const rlimit huge = {1000000, 1000000};
  rlimit limits = {};
  if (getrlimit(RLIMIT_NOFILE, &limits) != 0) _exit(97);
  limits.rlim_cur = limits.rlim_max;
  if (setrlimit(RLIMIT_NOFILE, &huge) != 0 && setrlimit(RLIMIT_NOFILE, &limits) != 0) _exit(97);
  return getdtablesize();
}

/// Puts a directory with the given entries where the kernel's listing was.
void fake_listing(const std::vector<std::string>& entries) {
  testsupport::enter_private_mounts();
  if (mount("tmpfs", "/proc", "tmpfs", 0, nullptr) != 0) _exit(97);
  std::filesystem::create_directories("/proc/self/fd");
  for (const std::string& entry : entries) testsupport::write_file("/proc/self/fd/" + entry, "");
}

}  // namespace

TEST(Closefrom, ClosesEveryDescriptorFromTheGivenOneOn) {
  const Outcome outcome = in_child([] {
    hold_descriptors(12);
    closefrom(7);
    for (const int fd : open_descriptors()) print("open", fd);
  });
  EXPECT_EQ(outcome.out, "open 0\nopen 1\nopen 2\nopen 3\nopen 4\nopen 5\nopen 6\n");
}

TEST(Closefrom, ClosesTheRestWhenTheListingIsTooLong) {
  const Outcome outcome = in_child([] {
    limit(RLIMIT_NOFILE, 999);
    hold_descriptors(300);
    closefrom(3);
    print("count", static_cast<int>(open_descriptors().size()));
  });
  EXPECT_EQ(outcome.out, "count 3\n");
}

TEST(Closefrom, ClosesEveryPossibleNumberWithoutTheListing) {
  const Outcome outcome = in_child([] {
    hold_descriptors(20);
    testsupport::enter_private_mounts();
    if (mount("tmpfs", "/proc", "tmpfs", 0, nullptr) != 0) _exit(97);
    print("through proc", closefrom_through_proc(5));
    print("19 is open", is_open(19) ? 1 : 0);
    closefrom(5);
    for (int fd = 0; fd < 20; ++fd)
      if (is_open(fd)) print("open", fd);
  });
  EXPECT_EQ(outcome.out, "through proc -1\n19 is open 1\nopen 0\nopen 1\nopen 2\nopen 3\nopen 4\n");
}

TEST(ClosefromThroughProc, SucceedsAndKeepsNothingOfItsOwn) {
  const Outcome outcome = in_child([] {
    hold_descriptors(10);
    print("result", closefrom_through_proc(5));
    for (const int fd : open_descriptors()) print("open", fd);
  });
  EXPECT_EQ(outcome.out, "result 0\nopen 0\nopen 1\nopen 2\nopen 3\nopen 4\n");
}

TEST(ClosefromThroughProc, SucceedsWhenItsOwnDescriptorIsBelowTheGivenOne) {
  const Outcome outcome = in_child([] {
    hold_descriptors(10);
    close(4);
    print("result", closefrom_through_proc(8));
    for (const int fd : open_descriptors()) print("open", fd);
  });
  EXPECT_EQ(outcome.out, "result 0\nopen 0\nopen 1\nopen 2\nopen 3\nopen 5\nopen 6\nopen 7\n");
}

// The listing shows what is held and the walk's own descriptor.
TEST(ClosefromThroughProc, GivesUpBehindTheFirstEntryAboveItsBudget) {
  struct Row {
    rlim_t table;
    int held;
    int result;
    int left;
  };
  const Row rows[] = {
      {200, 98, 0, 0},   {200, 99, 0, 0},    {200, 100, -1, 0}, {200, 101, -1, 0},
      {200, 102, -1, 1}, {999, 99, 0, 0},    {999, 100, -1, 0}, {999, 105, -1, 4},
      {1000, 99, 0, 0},  {1000, 105, -1, 4}, {1010, 100, 0, 0}, {1010, 105, -1, 3},
      {1500, 149, 0, 0}, {1500, 152, -1, 1},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << "a table of " << row.table << ", " << row.held << " held");
    const Outcome outcome = in_child([&row] {
      exectest::allow_descriptors(row.table);
      limit(RLIMIT_NOFILE, row.table);
      hold_descriptors(row.held);
      print("result", closefrom_through_proc(3));
      int left = 0;
      for (int fd = 3; fd < row.held; ++fd) left += is_open(fd) ? 1 : 0;
      print("left", left);
    });
    EXPECT_EQ(outcome.out,
              "result " + std::to_string(row.result) + "\nleft " + std::to_string(row.left) + "\n")
        << outcome.err;
  }
}

TEST(ClosefromThroughProc, GivesUpAtANumberBeyondTheTable) {
  const Outcome outcome = in_child([] {
    hold_descriptors(3);
    dup2(0, 10);
    dup2(0, 60);
    limit(RLIMIT_NOFILE, 60);
    print("result", closefrom_through_proc(3));
    print("10 is open", is_open(10) ? 1 : 0);
    print("60 is open", is_open(60) ? 1 : 0);
  });
  EXPECT_EQ(outcome.out, "result -1\n10 is open 0\n60 is open 1\n");
}

TEST(ClosefromThroughProc, AcceptsTheHighestNumberOfTheTable) {
  const Outcome outcome = in_child([] {
    hold_descriptors(3);
    dup2(0, 60);
    limit(RLIMIT_NOFILE, 61);
    print("result", closefrom_through_proc(3));
    print("60 is open", is_open(60) ? 1 : 0);
  });
  EXPECT_EQ(outcome.out, "result 0\n60 is open 0\n");
}

TEST(ClosefromThroughProc, FailsWhenTheListingCannotBeRead) {
  const Outcome outcome = in_child([] {
    hold_descriptors(6);
    exectest::answer_syscall(SYS_getdents64, EIO);
    print("result", closefrom_through_proc(3));
    print("5 is open", is_open(5) ? 1 : 0);
  });
  EXPECT_EQ(outcome.out, "result -1\n5 is open 1\n");
}

TEST(ClosefromThroughProc, FailsWhenItsOwnDescriptorIsNotListed) {
  const Outcome outcome = in_child([] {
    hold_descriptors(8);
    fake_listing({"6"});
    print("result", closefrom_through_proc(3));
    print("5 is open", is_open(5) ? 1 : 0);
    print("6 is open", is_open(6) ? 1 : 0);
  });
  EXPECT_EQ(outcome.out, "result -1\n5 is open 1\n6 is open 0\n") << outcome;
}

TEST(ClosefromThroughProc, FailsAtANameThatIsNoNumber) {
  for (const std::string name : {"x", "05", "9999999999"}) {
    SCOPED_TRACE(name);
    const Outcome outcome = in_child([&name] {
      hold_descriptors(8);
      fake_listing({name, "8"});  // 8 is the walk's own descriptor
      print("result", closefrom_through_proc(3));
    });
    EXPECT_EQ(outcome.out, "result -1\n") << outcome;
  }
  const Outcome outcome = in_child([] {
    hold_descriptors(8);
    fake_listing({"8", "7"});
    print("result", closefrom_through_proc(3));
  });
  EXPECT_EQ(outcome.out, "result 0\n") << "the listing's own descriptor is another one";
}

TEST(ClosefromMax, ClosesFromTheTableSizeDownBothEndsIncluded) {
  for (const int error : {0, ENOSYS, EPERM}) {
    SCOPED_TRACE(error);
    const Outcome outcome = in_child([error] {
      hold_descriptors(6);
      dup2(0, 50);
      dup2(0, 51);
      limit(RLIMIT_NOFILE, 50);
      if (error != 0) exectest::answer_syscall(SYS_close_range, error);
      errno = EPERM;
      closefrom_max(4);
      print("errno", errno);
      for (int fd = 0; fd < 60; ++fd)
        if (is_open(fd)) print("open", fd);
    });
    EXPECT_EQ(outcome.out, "errno 1\nopen 0\nopen 1\nopen 2\nopen 3\nopen 51\n");
  }
}

TEST(ClosefromMax, ClosesNothingWhenNoNumberIsInRange) {
  const Outcome outcome = in_child([] {
    hold_descriptors(6);
    limit(RLIMIT_NOFILE, 50);
    errno = EPERM;
    closefrom_max(51);
    closefrom_max(1000);
    print("errno", errno);
    print("open", static_cast<int>(open_descriptors().size()));
  });
  EXPECT_EQ(outcome.out, "errno 1\nopen 6\n");
}

TEST(ClosefromMax, ClosesEveryDescriptorFromANegativeNumberOn) {
  const Outcome outcome = in_child([] {
    hold_descriptors(6);
    limit(RLIMIT_NOFILE, 50);
    closefrom_max(-7);
    int open = 0;
    for (int fd = 0; fd <= 50; ++fd) open += is_open(fd) ? 1 : 0;
    _exit(open);
  });
  EXPECT_EQ(outcome.exit_code(), 0);
}

// Where a table has room for a million, closing number by number takes a million system calls.
TEST(ClosefromMax, ClosesAHugeTableInOneCall) {
  const auto close_without = [](long refused) {
    const int last = make_the_table_huge() - 1;
    hold_descriptors(200);
    if (dup2(0, last) < 0) _exit(97);
    exectest::answer_syscall(refused, ENOSYS);
    closefrom_max(3);
    int open = 0;
    for (int fd = 3; fd <= last; ++fd) open += is_open(fd) ? 1 : 0;
    print("open", open);
  };
  const Outcome at_once = in_child([&] { close_without(SYS_close); });
  EXPECT_EQ(at_once.out, "open 0\n") << "no single one had to be closed";
  const Outcome one_by_one = in_child([&] { close_without(SYS_close_range); });
  EXPECT_EQ(one_by_one.out, "open 0\n");
}

TEST(ProcPidFdStrToInt, AcceptsPlainDecimalNumbersOnly) {
  struct Row {
    const char* text;
    int number;
  };
  const Row rows[] = {
      {nullptr, -1},
      {"", -1},
      {"0", 0},
      {"7", 7},
      {"10", 10},
      {"1023", 1023},
      {"2147483647", 2147483647},
      {"2147483648", -1},
      {"4294967296", -1},
      {"9223372036854775807", -1},
      {"9223372036854775808", -1},
      {"99999999999999999999", -1},
      {"00", -1},
      {"01", -1},
      {"-1", -1},
      {"+1", -1},
      {" 1", -1},
      {"1 ", -1},
      {"1x", -1},
      {"x1", -1},
      {"0x10", -1},
      {".", -1},
      {"..", -1},
      {"/", -1},
      {":", -1},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text != nullptr ? row.text : "NULL");
    errno = EPERM;
    EXPECT_EQ(proc_pid_fd_str_to_int(row.text), row.number);
    EXPECT_EQ(errno, EPERM) << "errno is restored";
  }
}
