#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <functional>

#include "fs/mode_setter.private.h"
#include "fs/unique_fd.h"
#include "support/private_mounts.h"
#include "support/scratch.h"
#include "tree_support.h"

namespace {

using frask::ModeSetter;
using testsupport::mode_of;
using testsupport::ScratchDir;
using testsupport::write_file;

/// Runs expectations where the system call is there, missing, and refused by a filter.
void on_each_system(const std::function<void()>& expectations) {
  for (const int refusal : {0, ENOSYS, EPERM}) {
    SCOPED_TRACE(refusal);
    EXPECT_EQ(testsupport::in_child([&] {
                if (refusal != 0) fstest::refuse_fchmodat2(refusal);
                expectations();
                exit(testing::Test::HasFailure() ? 1 : 0);
              }),
              fstest::ended(0, ""));
  }
}

TEST(ModeSetter, SetsTheModesOfFilesAndDirectoriesAndKeepsErrno) {
  const ScratchDir scratch;
  write_file(scratch / "dir/file", "");
  on_each_system([&] {
    const frask::UniqueFd dir(open(scratch.path().c_str(), O_PATH | O_CLOEXEC));
    ModeSetter setter;
    for (const mode_t mode : {04711U, 0600U, 02755U}) {
      errno = E2BIG;
      EXPECT_TRUE(setter.set(dir.get(), "dir", mode));
      EXPECT_TRUE(setter.set(AT_FDCWD, (scratch / "dir/file").c_str(), mode));
      EXPECT_EQ(errno, E2BIG);
      EXPECT_EQ(mode_of(scratch / "dir"), mode);
      EXPECT_EQ(mode_of(scratch / "dir/file"), mode);
    }
  });
}

TEST(ModeSetter, FollowsNoLink) {
  const ScratchDir scratch;
  write_file(scratch / "file", "");
  std::filesystem::create_symlink("file", scratch / "link");
  on_each_system([&] {
    ModeSetter setter;
    for (int again = 0; again < 2; ++again) {
      EXPECT_FALSE(setter.set(AT_FDCWD, (scratch / "link").c_str(), 0600));
      EXPECT_EQ(errno, EOPNOTSUPP);
      EXPECT_EQ(mode_of(scratch / "file"), 0644U);
    }
  });
}

TEST(ModeSetter, TellsWhyAChangeIsImpossible) {
  const ScratchDir scratch;
  write_file(scratch / "file", "");
  ASSERT_TRUE(testsupport::set_immutable(scratch / "file", true));
  on_each_system([&] {
    ModeSetter setter;
    for (int again = 0; again < 2; ++again) {
      EXPECT_FALSE(setter.set(AT_FDCWD, (scratch / "file").c_str(), 0600));
      EXPECT_EQ(errno, EPERM);
      EXPECT_FALSE(setter.set(AT_FDCWD, (scratch / "missing").c_str(), 0600));
      EXPECT_EQ(errno, ENOENT);
    }
  });
}

TEST(ModeSetter, NeverTakesAMissingProcForAMissingEntry) {
  const ScratchDir scratch;
  write_file(scratch / "file", "");
  EXPECT_EQ(testsupport::in_child([&] {
              testsupport::enter_private_mounts();
              if (mount("none", "/proc", "tmpfs", 0, nullptr) != 0) _exit(97);
              fstest::refuse_fchmodat2(ENOSYS);
              ModeSetter setter;
              if (setter.set(AT_FDCWD, (scratch / "file").c_str(), 0600)) _exit(1);
              _exit(errno == EOPNOTSUPP ? 40 : 2);
            }),
            fstest::ended(40, ""));
}

TEST(ModeSetter, LeavesNoDescriptorBehind) {
  const ScratchDir scratch;
  write_file(scratch / "file", "");
  on_each_system([&] {
    const std::vector<int> before = testsupport::open_descriptors();
    ModeSetter setter;
    EXPECT_TRUE(setter.set(AT_FDCWD, (scratch / "file").c_str(), 0600));
    EXPECT_FALSE(setter.set(AT_FDCWD, (scratch / "missing").c_str(), 0600));
    EXPECT_EQ(testsupport::open_descriptors(), before);
  });
}

}  // namespace
