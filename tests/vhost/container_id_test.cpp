#include <errno.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <iostream>
#include <string>

#include "error/SystemError.h"
#include "support/child.h"
#include "support/private_mounts.h"
#include "support/scratch.h"
#include "vhost/misc.h"

namespace {

using frask::getCtID;
using testsupport::in_child;
using testsupport::Outcome;

TEST(GetCtID, IsEmptyOutsideOfAnyContainer) {
  ASSERT_EQ(testsupport::read_file("/proc/self/status").find("envID:"), std::string::npos)
      << "this system has such containers";
  EXPECT_EQ(getCtID(), "");
}

/// What getCtID() gives where the kernel tells `status` of the process.
std::string id_from(const std::string& status) {
  const Outcome outcome = in_child([&] {
    testsupport::enter_private_mounts();
    testsupport::write_file("/mnt/status", status);
    if (mount("/mnt/status", "/proc/self/status", nullptr, MS_BIND, nullptr) != 0) _exit(1);
    std::cout << "<" << getCtID() << ">";
  });
  EXPECT_EQ(outcome.exit_code(), 0) << outcome;
  return outcome.out;
}

TEST(GetCtID, FindsTheLineWhereverItStands) {
  const std::string before = "Name:\tpanel\nState:\tR (running)\nPid:\t4711\n";
  const std::string behind = "Threads:\t1\nSigQ:\t0/63457\n";
  const struct {
    std::string status;
    const char* expected;
  } rows[] = {
      {before + "envID:\t101\n" + behind, "<101>"},
      {"envID:\t101\n" + behind, "<101>"},
      {before + "envID:\t101\n", "<101>"},
      {before + "envID:\t101", "<101>"},
      {before + "envID:101\n", "<101>"},
      {before + "envID: \t  101\n", "<101>"},
      {before + "envID:\t0\n", "<0>"},
      {before + "envID:\t00123456789012345678901234567890\n", "<00123456789012345678901234567890>"},
      {before + "envID:\t1\nenvID:\t2\n", "<1>"},
      {before + "envID:\tx\nenvID:\t2\n", "<2>"},
      // Blanks of the pattern include line ends.
      {before + "envID:\n\n101\n" + behind, "<101>"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.status);
    EXPECT_EQ(id_from(row.status), row.expected);
  }
}

TEST(GetCtID, IsEmptyWhereNoLineHasExactlyThatForm) {
  for (const char* status : {"", "\n", "envID:\t\n", "envID:\t-1\n", "envID:\t101 \n",
                             "envID:\t101a\n", "envID:\t0x65\n", " envID:\t101\n", "xenvID:\t101\n",
                             "ENVID:\t101\n", "envID\t101\n", "101\n"}) {
    SCOPED_TRACE(status);
    EXPECT_EQ(id_from(status), "<>");
  }
}

TEST(GetCtID, ThrowsWhereThereIsNoStatus) {
  const Outcome outcome = in_child([] {
    testsupport::enter_private_mounts();
    if (mount("tmpfs", "/proc", "tmpfs", 0, nullptr) != 0) _exit(1);
    try {
      getCtID();
    } catch (const frask::ExSystemError<ENOENT>& error) {
      std::cout << error.what();
    }
    // Leaks are looked for in "/proc": it is there again at the end.
    std::cout.flush();
    if (umount("/proc") != 0) _exit(2);
  });
  EXPECT_EQ(outcome.exit_code(), 0) << outcome;
  EXPECT_EQ(outcome.out, "/proc/self/status: open failed: No such file or directory");
}

}  // namespace
