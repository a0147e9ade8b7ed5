#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <iostream>

#include "support/lease_holder.h"
#include "support/private_mounts.h"
#include "support/scratch.h"
#include "support/stopped_child.h"
#include "vhost/read_file.private.h"

// How a file is opened that another user may have put there.
namespace {

using frask::openUnread;
using frask::UniqueFd;
using testsupport::Call;
using testsupport::in_child;
using testsupport::LeaseHolder;
using testsupport::Outcome;
using testsupport::ScratchDir;
using testsupport::write_file;
namespace fs = std::filesystem;

/// Writes what is read of a file, or how its opening fails.
void tell(const std::string& path) {
  alarm(30);  // under which a wait for a pipe fails the test
  const UniqueFd fd = openUnread(AT_FDCWD, path.c_str(), O_NOFOLLOW);
  if (!fd) {
    std::cout << strerrorname_np(errno);
    return;
  }
  char text[16];
  const ssize_t got = read(fd.get(), text, sizeof text);
  std::cout << (got < 0 ? strerrorname_np(errno) : std::string(text, static_cast<size_t>(got)));
  if ((fcntl(fd.get(), F_GETFD) & FD_CLOEXEC) == 0) std::cout << ", to be inherited";
}

class OpenUnread : public ::testing::Test {
 protected:
  OpenUnread() { write_file(path_, "text"); }

  /// What is told of the file, for whose lease is waited, when `change` comes before the wait's
  /// `occurrence`-th opening.
  std::string told_when(int occurrence, const std::function<void()>& change) const {
    const LeaseHolder holder(path_);
    const Outcome outcome = testsupport::in_child_stopped_at({SYS_openat, "", occurrence}, change,
                                                             [&] { tell(path_); });
    EXPECT_EQ(outcome.exit_code(), 0);
    EXPECT_TRUE(holder.was_asked());
    return outcome.out;
  }

  void replace_by_pipe() const {
    fs::rename(path_, dir_ / "moved");
    ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
  }

  ScratchDir dir_;
  std::string path_ = dir_ / "file";
};

constexpr int kOpeningOfThePlace = 2;
constexpr int kOpeningOfTheFile = 3;

TEST_F(OpenUnread, WaitsForTheEndOfALease) {
  EXPECT_EQ(in_child([&] { tell(path_); }), (Outcome{"text", "", 0}));
  EXPECT_EQ(told_when(kOpeningOfThePlace, [] {}), "text");
}

TEST_F(OpenUnread, WaitsWhateverSignalsCome) {
  const LeaseHolder holder(path_, [](int) { usleep(200000); });
  const Outcome outcome = in_child([&] {
    struct sigaction interrupting = {};
    interrupting.sa_handler = [](int) {};
    sigevent event = {};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = SIGUSR1;
    timer_t timer = {};
    const itimerspec often = {{0, 10000000}, {0, 10000000}};
    if (sigaction(SIGUSR1, &interrupting, nullptr) != 0 ||
        timer_create(CLOCK_MONOTONIC, &event, &timer) != 0 ||
        timer_settime(timer, 0, &often, nullptr) != 0)
      _exit(1);
    tell(path_);
    timer_delete(timer);
  });
  EXPECT_EQ(outcome, (Outcome{"text", "", 0}));
}

TEST_F(OpenUnread, OpensTheFileThatItHasWaitedForWhateverHasItsNameByNow) {
  EXPECT_EQ(told_when(kOpeningOfTheFile, [&] { replace_by_pipe(); }), "text");
}

TEST_F(OpenUnread, DoesNotWaitForAPipeThatHasComeMeanwhile) {
  EXPECT_EQ(told_when(kOpeningOfThePlace, [&] { replace_by_pipe(); }), "EAGAIN");
}

TEST_F(OpenUnread, TellsThatTheFileHasGoneMeanwhile) {
  EXPECT_EQ(told_when(kOpeningOfThePlace, [&] { fs::remove(path_); }), "ENOENT");
}

TEST_F(OpenUnread, FollowsNoLinkThatHasComeMeanwhile) {
  EXPECT_EQ(told_when(kOpeningOfThePlace,
                      [&] {
                        fs::rename(path_, dir_ / "moved");
                        fs::create_symlink("moved", path_);
                      }),
            "EAGAIN");
}

TEST_F(OpenUnread, CannotWaitWithoutProc) {
  const LeaseHolder holder(path_);
  const Outcome outcome = in_child([&] {
    testsupport::enter_private_mounts();
    testsupport::leave_no_proc();
    tell(path_);
    std::cout.flush();
    _exit(0);  // a search for leaks reads /proc
  });
  EXPECT_EQ(outcome, (Outcome{"EAGAIN", "", 0}));
}

}  // namespace
