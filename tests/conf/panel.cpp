#include "panel.h"

#include <gtest/gtest.h>
#include <net/if.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <exception>
#include <stdexcept>

#include "support/private_mounts.h"
#include "support/traced.h"

using testsupport::in_child;
using testsupport::Outcome;

namespace {

/// A forked child has its parent's failures too; its own are those that come on top.
int failures_so_far() {
  return testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count();
}

}  // namespace

Outcome in_panel(const std::function<void()>& body) {
  Outcome outcome = in_child([&body] {
    const int before = failures_so_far();
    try {
      testsupport::enter_private_mounts();
      // The client library takes its defaults from these.
      unsetenv("MYSQL_TCP_PORT");
      unsetenv("MYSQL_UNIX_PORT");
      body();
    } catch (const std::exception& failure) {
      ADD_FAILURE() << failure.what();
    }
    exit(failures_so_far() > before ? 1 : 0);
  });
  EXPECT_EQ(outcome.exit_code(), 0) << outcome;
  return outcome;
}

Outcome run_injected(const std::string& path, const std::string& injection,
                     const std::vector<std::string>& program) {
  return testsupport::run_traced({"-o", "/mnt/trace", "-P", path, "-e", "inject=" + injection},
                                 program);
}

void enter_private_network() {
  if (unshare(CLONE_NEWNET) != 0) throw std::runtime_error("unsharing the network failed");
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ifreq request = {};
  snprintf(request.ifr_name, sizeof request.ifr_name, "lo");
  request.ifr_flags = IFF_UP;
  const int result = ioctl(fd, SIOCSIFFLAGS, &request);
  close(fd);
  if (result != 0) throw std::runtime_error("bringing up the loopback failed");
}
