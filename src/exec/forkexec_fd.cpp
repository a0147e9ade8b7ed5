#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "exec/forkexec.h"
#include "exec/pipe.private.h"
#include "log/messlog.h"

namespace {

constexpr size_t kChunk = 4096;

[[noreturn]] void run_child(int fd_in, int fd_out, int fd_err, const char* path,
                            char* const argv[]) {
  prepare_fds_to_exec(fd_in, fd_out, fd_err);
  execv(path, argv);
  const int error = errno;
  dprintf(STDERR_FILENO, "Error occured during execv():\n%s%s", strerror(error),
          error == EFAULT ? ", possible reason - NULL parameter is absent in util_exec(path, arg1, "
                            "arg2, NULL) call.\n"
                          : ".\n");
  // Not exit(): the caller's pending output and exit handlers are not the child's.
  _exit(255);
}

void log_errors(int fd) {
  char chunk[kChunk];
  ssize_t got = 0;
  while ((got = read(fd, chunk, sizeof chunk - 1)) > 0) {
    chunk[got] = '\0';
    messlog2(0, 0, "%s", chunk);
    fflush(stderr);
  }
}

int wait_and_log(pid_t pid) {
  int status = 0;
  if (waitpid(pid, &status, WUNTRACED) == -1) {
    messlog2(0, 0, "Error occured during waiting the child process with pid: %d: %s\n", pid,
             strerror(errno));
    return -1;
  }
  if (WIFSIGNALED(status)) {
    messlog2(0, 0, "The child process with pid %d killed by signal %i\n", pid, WTERMSIG(status));
    return -1;
  }
  if (WIFSTOPPED(status)) {
    messlog2(0, 0, "The child process with pid %d stopped by signal %i\n", pid, WSTOPSIG(status));
    return -1;
  }
  return WEXITSTATUS(status);
}

}  // namespace

int fork_execv_fd(int fd_in, int fd_out, const char* path, char* const argv[]) {
  // Deliberate: no other number is refused, whatever the text says; 2 as the output is in use.
  // Pinned by ForkExecvFd.RefusesOnlyItsOwnStandardDescriptors.
  if (fd_in == STDIN_FILENO || fd_out == STDOUT_FILENO) {
    messlog2(0, 0, "values 0,1,2 not allowed for variables fd_in & fd_out\n");
    return -1;
  }
  frask::Pipe errors;
  if (!errors.open()) messlog2(1, 1, "fork_exec_fd pipe(): %s", strerror(errno));
  const pid_t pid = fork();
  if (pid < 0) messlog2(1, 1, "Error occured during fork():\n%s", strerror(errno));
  if (pid == 0) run_child(fd_in, fd_out, errors.write_end.get(), path, argv);
  errors.write_end.reset();
  log_errors(errors.read_end.get());
  errors.read_end.reset();
  return wait_and_log(pid);
}

void prepare_fds_to_exec(int fd_in, int fd_out, int fd_err) {
  if (fd_in != STDIN_FILENO) {
    // Whatever stands where something else goes is moved out of the way first.
    if (fd_out == STDIN_FILENO)
      fd_out = dup(STDIN_FILENO);
    else if (fd_err == STDIN_FILENO)
      fd_err = dup(STDIN_FILENO);
    dup2(fd_in, STDIN_FILENO);
  }
  if (fd_out != STDOUT_FILENO) {
    if (fd_err == STDOUT_FILENO) fd_err = dup(STDOUT_FILENO);
    dup2(fd_out, STDOUT_FILENO);
  }
  if (fd_err != STDERR_FILENO) dup2(fd_err, STDERR_FILENO);
  closefrom(STDERR_FILENO + 1);
}
