#include "exec/forkexec.h"

#include <errno.h>
#include <fcntl.h>
#include <spawn.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include "fs/unique_fd.h"
#include "log/messlog.h"
#include "log/utility_log.h"

namespace {

constexpr int kDevNull = -1;
constexpr int kExecFailed = 255;

/// What a child is to have as its descriptors 0, 1 and 2: a descriptor of the caller, the target's
/// own number for the caller's one unchanged, or kDevNull.
struct Wiring {
  int given[STDERR_FILENO + 1];

  bool asks_for(int fd) const { return given[0] == fd || given[1] == fd || given[2] == fd; }
};

class SpawnActions {
 public:
  SpawnActions() noexcept { posix_spawn_file_actions_init(&actions_); }
  ~SpawnActions() { posix_spawn_file_actions_destroy(&actions_); }
  SpawnActions(const SpawnActions&) = delete;
  SpawnActions& operator=(const SpawnActions&) = delete;

  bool move(int fd, int target) noexcept {
    return posix_spawn_file_actions_adddup2(&actions_, fd, target) == 0 &&
           posix_spawn_file_actions_addclose(&actions_, fd) == 0;
  }
  bool copy(int fd, int target) noexcept {
    return posix_spawn_file_actions_adddup2(&actions_, fd, target) == 0;
  }
  bool close_above_standard() noexcept {
    return posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1) == 0;
  }
  const posix_spawn_file_actions_t* get() const noexcept { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_ = {};
};

/// False for a wiring that must be made by the literal steps: descriptors that are themselves among
/// the targets, where order and closing show.
bool add_wiring(SpawnActions& actions, const Wiring& wiring, int null) {
  for (int target = 0; target <= STDERR_FILENO; ++target) {
    const int fd = wiring.given[target];
    if (fd == target) continue;
    if (fd == kDevNull) {
      if (!actions.copy(null, target)) return false;
    } else if (fd <= STDERR_FILENO || !actions.move(fd, target)) {
      return false;
    }
  }
  return actions.close_above_standard();
}

/// Starts a child that shares the caller's memory until it executes the program: a fork copies the
/// page tables, which from a process of 512 MiB costs more than forty times as much. posix_spawn()
/// cannot say which step failed nor give the child a message, so any failure, including one of the
/// child's, gives -1 and leaves nothing behind; start_by_fork() then shows it, or succeeds.
pid_t start_by_spawn(const Wiring& wiring, const char* path, char* const argv[]) {
  frask::UniqueFd null;
  if (wiring.asks_for(kDevNull)) {
    // Opened here: the child would have the target's number closed first and so find room where
    // there is none.
    null.reset(open("/dev/null", O_RDWR | O_CLOEXEC));
    if (null.get() <= STDERR_FILENO || wiring.asks_for(null.get())) return -1;
  }
  SpawnActions actions;
  if (!add_wiring(actions, wiring, null.get())) return -1;
  pid_t pid = -1;
  return posix_spawn(&pid, path, actions.get(), nullptr, argv, environ) == 0 ? pid : -1;
}

void fail_wiring() {
  dprintf(STDERR_FILENO, "fork_execv: dup() failed: %s\n", strerror(errno));
  // Not exit(): the caller's pending output and exit handlers are not the child's.
  _exit(kExecFailed);
}

/// In the child.
void wire(int fd, int target) {
  if (fd == target) return;
  if (fd == kDevNull) {
    fd = open("/dev/null", O_RDWR);
    if (fd < 0) fail_wiring();
    if (fd == target) return;
  }
  const int wired = dup2(fd, target);
  // Deliberate: closed before the check, and closed although it may serve a second target: a
  // descriptor given twice is gone the second time. Pinned by
  // ForkExecvPipes.EndsTheChildWhenADescriptorIsGivenTwice.
  close(fd);
  if (wired < 0) fail_wiring();
}

pid_t start_by_fork(const Wiring& wiring, const char* path, char* const argv[]) {
  const pid_t pid = fork();
  if (pid < 0) messlog2(1, 1, "fork_execv_pipes: fork() failed");
  if (pid != 0) return pid;
  for (int target = 0; target <= STDERR_FILENO; ++target) wire(wiring.given[target], target);
  closefrom(STDERR_FILENO + 1);
  execv(path, argv);
  dprintf(STDERR_FILENO, "fork_execv: execv(\"%s\") failed: %s\n", path, strerror(errno));
  _exit(kExecFailed);
}

/// Reports what became of a child that did not end normally.
void log_abnormal(pid_t pid, pid_t waited, const char* name, int status) {
  const auto asked = static_cast<long>(pid);
  const auto got = static_cast<long>(waited);
  if (WIFSIGNALED(status))
    frask_log(LOG_WARNING, "waitpid(%ld)=%ld: process '%s' killed by signal %d", asked, got, name,
              WTERMSIG(status));
  else if (WIFSTOPPED(status))
    frask_log(LOG_WARNING, "waitpid(%ld)=%ld: process '%s' stopped by signal %d", asked, got, name,
              WSTOPSIG(status));
  else if (WIFCONTINUED(status))
    frask_log(LOG_WARNING, "waitpid(%ld)=%ld: process '%s' continued", asked, got, name);
}

}  // namespace

int fork_execv_pipes(int fd_in, int fd_out, int fd_err, const char* path, char* const argv[]) {
  const Wiring wiring = {{fd_in, fd_out, fd_err}};
  const pid_t pid = start_by_spawn(wiring, path, argv);
  return pid >= 0 ? pid : start_by_fork(wiring, path, argv);
}

int fork_exec_waitpid(int pid, const char* name, int* status) {
  if (name == nullptr) name = "<unknown>";
  if (pid < 0) {
    frask_log(LOG_ERR, "fork before spawning '%s' failed", name);
    return -1;
  }
  int unwanted = 0;
  if (status == nullptr) status = &unwanted;
  errno = 0;
  const pid_t waited = waitpid(pid, status, WUNTRACED);
  if (waited < 0) {
    const int error = errno;
    frask_log(LOG_ERR, "waitpid(%ld) for '%s' process failed: %s (%d)", static_cast<long>(pid),
              name, strerror(error), error);
    return -1;
  }
  if (waited == 0) {
    frask_log(LOG_ERR, "waitpid(%ld) for '%s' process returned unexpected 0 code",
              static_cast<long>(pid), name);
    return -1;
  }
  if (WIFEXITED(*status)) return WEXITSTATUS(*status);
  log_abnormal(pid, waited, name, *status);
  return -1;
}

int fork_exec_getres(int pid, const char* name) {
  return pid == -1 ? -1 : fork_exec_waitpid(pid, name, nullptr);
}

int do_exec(const char* path, char* const argv[]) {
  static int chstatus = 0;
  const pid_t pid = fork();
  if (pid < 0) messlog2(1, 1, "Unable to fork");
  if (pid == 0) {
    execv(path, argv);
    _exit(kExecFailed);
  }
  waitpid(pid, &chstatus, 0);
  return chstatus;
}
