#include "fs/unique_fd.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <type_traits>
#include <utility>

namespace {

using frask::UniqueFd;

int open_something() {
  return open("/dev/null", O_RDONLY | O_CLOEXEC);
}
bool is_open(int fd) {
  return fcntl(fd, F_GETFD) >= 0;
}

static_assert(!std::is_copy_constructible_v<UniqueFd> && !std::is_copy_assignable_v<UniqueFd>,
              "a descriptor has one owner");

TEST(UniqueFd, HoldsNothingAtFirst) {
  const UniqueFd none;
  EXPECT_EQ(none.get(), -1);
  EXPECT_FALSE(none);
}

TEST(UniqueFd, TakesDescriptorZeroForADescriptor) {
  UniqueFd zero(0);
  EXPECT_TRUE(zero);
  EXPECT_EQ(zero.release(), 0);
}

TEST(UniqueFd, ClosesAtTheEndAndLeavesErrnoAlone) {
  int fd = -1;
  {
    const UniqueFd owner(open_something());
    fd = owner.get();
    ASSERT_TRUE(is_open(fd));
    errno = E2BIG;
  }
  EXPECT_EQ(errno, E2BIG);
  EXPECT_FALSE(is_open(fd));
}

TEST(UniqueFd, LeavesErrnoAloneWhenClosingFails) {
  errno = E2BIG;
  { const UniqueFd owner(1 << 20); }
  EXPECT_EQ(errno, E2BIG);
}

TEST(UniqueFd, HandsItsDescriptorOn) {
  UniqueFd first(open_something());
  const int fd = first.get();
  UniqueFd second(std::move(first));
  EXPECT_EQ(second.get(), fd);
  UniqueFd third(open_something());
  const int replaced = third.get();
  third = std::move(second);
  EXPECT_EQ(third.get(), fd);
  EXPECT_TRUE(is_open(fd));
  EXPECT_FALSE(is_open(replaced)) << "what was owned before is closed";
}

TEST(UniqueFd, ClosesWhatItIsResetFrom) {
  UniqueFd owner(open_something());
  const int first = owner.get();
  owner.reset(open_something());
  EXPECT_FALSE(is_open(first));
  EXPECT_TRUE(is_open(owner.get()));
}

TEST(UniqueFd, TellsTheResultOfClosing) {
  UniqueFd owner(open_something());
  EXPECT_EQ(owner.close(), 0);
  EXPECT_FALSE(owner);
  EXPECT_EQ(owner.close(), -1);
  EXPECT_EQ(errno, EBADF);
}

}  // namespace
