#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <functional>
#include <iostream>
#include <string>

#include "error/SystemError.h"
#include "fs/unique_fd.h"
#include "log/utility_log.h"
#include "support/child.h"
#include "support/lease_holder.h"
#include "support/private_mounts.h"
#include "support/scratch.h"
#include "support/stopped_child.h"
#include "support/traced.h"
#include "support/tree_listing.h"
#include "vhost/backup_numbers.h"
#include "vhost/entry_points.h"
#include "vhost/protected_copy.private.h"

namespace {

namespace fs = std::filesystem;
using testsupport::in_child;
using testsupport::mode_of;
using testsupport::Outcome;
using testsupport::read_file;
using testsupport::ScratchDir;
using testsupport::tree_listing;
using testsupport::write_file;
using Lines = std::vector<std::string>;

/// Protects `path` in a child, after `before`.
Outcome protect(
    const std::string& path, const std::function<void()>& before = [] {}) {
  return in_child([&] {
    umask(022);
    before();
    copy_if_no_dontedit(path.c_str());
  });
}

/// A log line as it is seen where nothing was set up: on both streams.
void expect_logged(const Outcome& outcome, const std::string& text) {
  EXPECT_EQ(outcome, (Outcome{text + "\n", text + "\n", 0}));
}

/// What the standard library says when it copies over the reserved file.
std::string standard_failure(const std::string& path, const std::string& name) {
  try {
    fs::copy_file(path, name, fs::copy_options::overwrite_existing);
  } catch (const fs::filesystem_error& error) {
    return error.what();
  }
  return "no failure";
}

TEST(CopyIfNoDontedit, LogsThatADirectoryCannotBeCopiedAndLeavesTheReservedFile) {
  const ScratchDir dir;
  fs::create_directory(dir / "d");
  const std::string text = "filesystem error: cannot copy file: Invalid argument [" + (dir / "d") +
                           "] [" + (dir / "d.saved_by_oxa") + "]";
  expect_logged(protect(dir / "d"), "Failed to back up file '" + (dir / "d") + "': " + text);
  EXPECT_EQ(tree_listing(dir.path()), (Lines{"d 0755 0:0 d", "f 0600 0:0 d.saved_by_oxa "}));
  EXPECT_EQ(standard_failure(dir / "d", dir / "d.saved_by_oxa"), text);
}

TEST(CopyIfNoDontedit, ReservesWithMode0620) {
  const ScratchDir dir;
  fs::create_directory(dir / "d");
  protect(dir / "d", [] { umask(0); });
  EXPECT_EQ(mode_of(dir / "d.saved_by_oxa"), 0620U);
}

TEST(CopyIfNoDontedit, LogsThatPipesAndDevicesCannotBeCopiedAndNeitherReadsThemNorWaits) {
  const ScratchDir dir;
  fs::create_symlink("/dev/null", dir / "null");
  fs::create_symlink("/dev/zero", dir / "endless");
  ASSERT_EQ(mkfifo((dir / "pipe").c_str(), 0600), 0);
  ASSERT_EQ(mkfifo((dir / "full").c_str(), 0600), 0);
  const frask::UniqueFd full(open((dir / "full").c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_EQ(write(full.get(), get_dontedit_tag(), 53), 53);
  for (const char* name : {"null", "endless", "pipe", "full"}) {
    SCOPED_TRACE(name);
    const std::string backup = (dir / name) + ".saved_by_oxa";
    const std::string text = "filesystem error: cannot copy file: Invalid argument [" +
                             (dir / name) + "] [" + backup + "]";
    expect_logged(protect(dir / name), "Failed to back up file '" + (dir / name) + "': " + text);
    EXPECT_EQ(read_file(backup), "");
    EXPECT_EQ(standard_failure(dir / name, backup), text);
  }
  int unread = 0;
  EXPECT_EQ(ioctl(full.get(), FIONREAD, &unread), 0);
  EXPECT_EQ(unread, 53);
}

TEST(CopyIfNoDontedit, WaitsForTheEndOfALease) {
  const ScratchDir dir;
  write_file(dir / "f", "text");
  const testsupport::LeaseHolder holder(dir / "f");
  EXPECT_EQ(protect(dir / "f"), (Outcome{"", "", 0}));
  EXPECT_EQ(read_file(dir / "f.saved_by_oxa"), "text");
  EXPECT_TRUE(holder.was_asked());
}

TEST(CopyIfNoDontedit, ThrowsForALeaseThatItCannotWaitFor) {
  const ScratchDir dir;
  write_file(dir / "f", "text");
  const testsupport::LeaseHolder holder(dir / "f");
  const Outcome outcome = in_child([&] {
    testsupport::enter_private_mounts();
    testsupport::leave_no_proc();
    try {
      copy_if_no_dontedit((dir / "f").c_str());
    } catch (const frask::SystemError& error) {
      std::cout << error.what() << std::flush;
    }
    _exit(0);  // a search for leaks reads /proc
  });
  EXPECT_EQ(outcome,
            (Outcome{(dir / "f") + ": open failed: Resource temporarily unavailable", "", 0}));
  EXPECT_FALSE(fs::exists(dir / "f.saved_by_oxa"));
}

TEST(CopyIfNoDontedit, KeepsNoCopyOfWhatIsGoneOnceItHasBeenRead) {
  const ScratchDir dir;
  write_file(dir / "f", "text");
  const Outcome outcome = testsupport::in_child_stopped_at(
      {SYS_newfstatat, "f", 2}, [&] { fs::remove(dir / "f"); },
      [&] { copy_if_no_dontedit((dir / "f").c_str()); });
  EXPECT_EQ(outcome, (Outcome{"", "", 0}));
  EXPECT_EQ(tree_listing(dir.path()), Lines{});
}

TEST(CopyIfNoDontedit, LeavesAnEmptyFileWhereTheFileSystemIsFull) {
  const Outcome outcome = in_child([] {
    testsupport::enter_private_mounts();
    if (mount("tmpfs", "/mnt", "tmpfs", 0, "size=64k") != 0) _exit(1);
    write_file("/mnt/f", std::string(40000, 'x'), 0640);
    copy_if_no_dontedit("/mnt/f");
    if (tree_listing("/mnt")[1] != "f 0640 0:0 f.saved_by_oxa ") _exit(2);
    if (read_file("/mnt/f").size() != 40000) _exit(3);
    // Nothing is left in the way of the next one.
    fs::resize_file("/mnt/f", 20000);
    copy_if_no_dontedit("/mnt/f");
    if (read_file("/mnt/f.saved_by_oxa.1").size() != 20000) _exit(4);
  });
  expect_logged(outcome,
                "Failed to back up file '/mnt/f': filesystem error: cannot copy file: "
                "No space left on device [/mnt/f] [/mnt/f.saved_by_oxa]");
}

TEST(CopyIfNoDontedit, LogsWhyNoNameCouldBeReserved) {
  const ScratchDir dir;
  write_file(dir / "f", "text");
  const std::string head =
      "Failed to back up file '" + (dir / "f") + "': Cannot write: " + (dir / "f.saved_by_oxa");
  ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
  expect_logged(protect(dir / "f", [] { ASSERT_EQ(setuid(65534), 0); }),
                head + ": Permission denied");
  EXPECT_EQ(tree_listing(dir.path()).size(), 1U);
  write_file(dir / "f.saved_by_oxa", "old");
  expect_logged(protect(dir / "f", [] { ASSERT_EQ(setuid(65534), 0); }),
                head + ".1: Permission denied");
}

TEST(CopyIfNoDontedit, LogsThatTheFileSystemIsReadOnly) {
  const Outcome outcome = in_child([] {
    testsupport::enter_private_mounts();
    write_file("/mnt/f", "text");
    if (mount("none", "/mnt", nullptr, MS_REMOUNT | MS_RDONLY, nullptr) != 0) _exit(1);
    copy_if_no_dontedit("/mnt/f");
  });
  expect_logged(outcome,
                "Failed to back up file '/mnt/f': Cannot write: /mnt/f.saved_by_oxa: "
                "Read-only file system");
}

TEST(CopyIfNoDontedit, LogsThatTheNameIsTooLong) {
  const ScratchDir dir;
  const std::string path = dir / std::string(250, 'n');
  write_file(path, "text");
  expect_logged(protect(path), "Failed to back up file '" + path + "': Cannot write: " + path +
                                   ".saved_by_oxa: File name too long");
}

TEST(CopyIfNoDontedit, TakesDescriptor0ForAFailure) {
  const ScratchDir dir;
  write_file(dir / "f", "text");
  const std::string head =
      "Failed to back up file '" + (dir / "f") + "': Cannot write: " + (dir / "f.saved_by_oxa");
  const auto close_input = [] {
    const rlimit seconds = {2, 2};  // for a search that would go on through all names
    if (setrlimit(RLIMIT_CPU, &seconds) != 0) _exit(1);
    close(0);
  };
  expect_logged(protect(dir / "f", close_input), head + ": Success");
  EXPECT_EQ(tree_listing(dir.path()), (Lines{"f 0644 0:0 f text", "f 0600 0:0 f.saved_by_oxa "}))
      << "it stays, empty";
  expect_logged(protect(dir / "f", close_input), head + ".1: Success");
  EXPECT_EQ(tree_listing(dir.path()).size(), 3U) << "not taken for a name that exists";
}

TEST(CopyIfNoDontedit, LeavesNoDescriptorOpenAfterAFailure) {
  const ScratchDir dir;
  write_file(dir / "f", "text");
  fs::create_directory(dir / "d");
  const Outcome outcome = in_child([&] {
    close(0);
    const std::vector<int> before = testsupport::open_descriptors();
    copy_if_no_dontedit((dir / "f").c_str());
    if (testsupport::open_descriptors() != before) _exit(1);
    if (open("/dev/null", O_RDONLY) != 0) _exit(2);
    copy_if_no_dontedit((dir / "f").c_str());
    copy_if_no_dontedit((dir / "d").c_str());
    close(0);
    if (testsupport::open_descriptors() != before) _exit(3);
  });
  EXPECT_EQ(outcome.exit_code(), 0) << outcome;
}

TEST(CopyIfNoDontedit, ThrowsWhenTheFileCannotBeRead) {
  const ScratchDir dir;
  write_file(dir / "f", "secret", 0600);
  ASSERT_EQ(chmod(dir.path().c_str(), 0777), 0);
  const Outcome outcome = in_child([&] {
    if (setuid(65534) != 0) _exit(1);
    try {
      copy_if_no_dontedit((dir / "f").c_str());
    } catch (const frask::SystemError& error) {
      printf("%d %s", error.code(), error.what());
    }
  });
  EXPECT_EQ(outcome, (Outcome{"13 " + (dir / "f") + ": open failed: Permission denied", "", 0}));
  EXPECT_EQ(tree_listing(dir.path()).size(), 1U);
}

TEST(CopyIfNoDontedit, ThrowsForAPathThroughAFile) {
  const ScratchDir dir;
  write_file(dir / "f", "text");
  EXPECT_THROW(copy_if_no_dontedit((dir / "f/below").c_str()), frask::SystemError);
}

TEST(CopyIfNoDontedit, LogsWithPriority3) {
  const ScratchDir dir;
  fs::create_directory(dir / "d");
  EXPECT_EQ(protect(dir / "d", [] { LogLevel = 2; }), (Outcome{"", "", 0}));
  EXPECT_NE(protect(dir / "d", [] { LogLevel = 3; }).err, "");
}

TEST(BackUp, LogsThatNoNameIsFree) {
  const ScratchDir dir;
  write_file(dir / "f", "new");
  write_file(dir / "f.saved_by_oxa.2147483646", "old");
  const auto back_up_from = [&](int number) {
    return in_child([&, number] {
      frask::BackupFileGenerator names(dir / "f");
      vhosttest::jump_to(names, number);
      const frask::HoldingDirectory directory((dir / "f").c_str());
      frask::Original original(directory.fd(), "f", dir / "f");
      frask::backUp((dir / "f").c_str(), original, names, directory);
    });
  };
  const std::string text = "Free filename for backup file '" + (dir / "f") + "' not found";
  expect_logged(back_up_from(INT_MAX - 1), text);
  expect_logged(back_up_from(INT_MAX), text);
  EXPECT_EQ(read_file(dir / "f.saved_by_oxa.2147483646"), "old");
  EXPECT_EQ(tree_listing(dir.path()).size(), 2U);
  EXPECT_EQ(back_up_from(INT_MAX - 2), (Outcome{"", "", 0}));
  EXPECT_EQ(read_file(dir / "f.saved_by_oxa.2147483645"), "new");
}

/// The guard of a C program with system calls that fail on one file alone.
Outcome protect_with(const ScratchDir& dir, const std::string& injection,
                     const std::string& file = "f.saved_by_oxa") {
  testsupport::RunOptions options;
  options.directory = dir.path().string();
  return testsupport::run_traced({"-o", "/dev/null", "-P", dir / file, "-e", "inject=" + injection},
                                 {PROTECT_FILE, "f"}, options);
}

std::string cannot_copy(const std::string& reason) {
  return "Failed to back up file 'f': filesystem error: cannot copy file: " + reason +
         " [f] [f.saved_by_oxa]";
}

TEST(CopyIfNoDontedit, ReportsEveryCallThatFailsOnTheCopy) {
  const struct {
    const char* injection;
    const char* reason;
    const char* left;
  } rows[] = {
      {"fchmod:error=EPERM", "Operation not permitted", "f 0600 0:0 f.saved_by_oxa "},
      {"write:error=EDQUOT", "Disk quota exceeded", "f 0640 0:0 f.saved_by_oxa "},
      {"close:error=EIO", "Input/output error", "f 0640 0:0 f.saved_by_oxa text"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.injection);
    const ScratchDir dir;
    write_file(dir / "f", "text", 0640);
    expect_logged(protect_with(dir, row.injection), cannot_copy(row.reason));
    EXPECT_EQ(tree_listing(dir.path())[1], row.left);
  }
}

TEST(CopyIfNoDontedit, RepeatsAnInterruptedReadOrWrite) {
  const ScratchDir dir;
  write_file(dir / "f", "text", 0640);
  EXPECT_EQ(protect_with(dir, "write:error=EINTR:when=1..2"), (Outcome{"", "", 0}));
  EXPECT_EQ(read_file(dir / "f.saved_by_oxa"), "text");
  EXPECT_EQ(protect_with(dir, "read:error=EINTR:when=1..2", "f"), (Outcome{"", "", 0}));
  EXPECT_EQ(read_file(dir / "f.saved_by_oxa.1"), "text");
}

}  // namespace
