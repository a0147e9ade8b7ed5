#include "support/lease_holder.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <stdexcept>

namespace testsupport {
namespace {

/// For whoever does not wait to have gone on meanwhile.
constexpr useconds_t kWhile = 100000;

[[noreturn]] void hold(const std::string& path, int ready,
                       const std::function<void(int fd)>& before_the_end) {
  sigset_t broken;
  sigemptyset(&broken);
  sigaddset(&broken, SIGIO);
  sigprocmask(SIG_BLOCK, &broken, nullptr);
  const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (fcntl(fd, F_SETLEASE, F_WRLCK) != 0 || write(ready, "", 1) != 1) _exit(1);
  const timespec most = {60, 0};
  if (sigtimedwait(&broken, nullptr, &most) != SIGIO) _exit(1);
  before_the_end(fd);
  usleep(kWhile);
  _exit(0);  // which ends the lease
}

}  // namespace

LeaseHolder::LeaseHolder(const std::string& path,
                         const std::function<void(int fd)>& before_the_end) {
  int ready[2];
  if (pipe2(ready, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
  pid_ = fork();
  if (pid_ == 0) hold(path, ready[1], before_the_end);
  close(ready[1]);
  char byte = 0;
  const ssize_t got = read(ready[0], &byte, 1);
  close(ready[0]);
  if (got != 1) throw std::runtime_error("no lease on " + path);
}

LeaseHolder::~LeaseHolder() {
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
}

bool LeaseHolder::was_asked() const {
  siginfo_t ended = {};
  return waitid(P_PID, static_cast<id_t>(pid_), &ended, WEXITED | WNOWAIT) == 0 &&
         ended.si_code == CLD_EXITED && ended.si_status == 0;
}

}  // namespace testsupport
