#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>

#include "exec/forkexec.h"
#include "log/c_string.private.h"
#include "log/messlog.h"

namespace {

constexpr const char* kProductRoot = "/usr/local/oxa";
constexpr const char* kLibexecDir = "/usr/lib64/frask-9.0";
constexpr size_t kPathSize = 4096;

/// Variadic arguments as execv() takes them, as many as there are.
class HeapVector {
 public:
  HeapVector(const char* first, va_list rest) : vector_(allocate(first, rest)) {
    if (vector_ == nullptr)
      messlog2(1, 1, "malloc() failed: %s", strerror(errno));
    else
      fill(first, rest);
  }

  char* const* get() const { return vector_.get(); }

 private:
  static char** allocate(const char* first, va_list rest) {
    size_t count = 1;
    va_list again;
    va_copy(again, rest);
    for (const char* argument = first; argument != nullptr; argument = va_arg(again, const char*))
      ++count;
    va_end(again);
    return static_cast<char**>(malloc(count * sizeof(char*)));
  }

  void fill(const char* first, va_list rest) {
    char** next = vector_.get();
    for (const char* argument = first; argument != nullptr; argument = va_arg(rest, const char*))
      *next++ = const_cast<char*>(argument);
    *next = nullptr;
  }

  std::unique_ptr<char*, frask::Free> vector_;
};

/// A program and at most 99 arguments.
class FixedVector {
 public:
  FixedVector(const char* program, const char* first, va_list rest) {
    // Deliberate: what does not fit is dropped without notice, as the utilities' callers know it.
    // Pinned by UtilExec.DropsTheArgumentsBehindTheNinetyNinth.
    argv_[0] = const_cast<char*>(program);
    const char* argument = first;
    for (size_t i = 1; i < kLast && argument != nullptr; ++i) {
      argv_[i] = const_cast<char*>(argument);
      argument = va_arg(rest, const char*);
    }
  }

  char* const* get() const { return argv_; }

 private:
  static constexpr size_t kLast = 100;
  char* argv_[kLast + 1] = {};
};

/// The path of an administrative utility.
struct UtilityPath {
  char text[kPathSize] = "";

  /// False, with a message, for a name that is none.
  bool form(const char* name) {
    if (strchr(name, '/') != nullptr) {
      messlog2(0, 0, "Utility name '%s' is invalid. Use only utility name without path.", name);
      return false;
    }
    snprintf(text, sizeof text, "%s/admin/sbin/%s", kProductRoot, name);
    return true;
  }
};

[[noreturn]] void run_silently(const char* path, char* const argv[]) {
  for (int fd = 0; fd <= STDERR_FILENO; ++fd) close(fd);
  const int null = open("/dev/null", O_RDWR);  // the lowest free number, which is 0
  dup2(null, STDOUT_FILENO);
  dup2(null, STDERR_FILENO);
  execv(path, argv);
  _exit(255);
}

}  // namespace

int fork_execl_pipes(int fd_in, int fd_out, int fd_err, const char* path, const char* arg0, ...) {
  va_list rest;
  va_start(rest, arg0);
  const HeapVector argv(arg0, rest);
  va_end(rest);
  return fork_execv_pipes(fd_in, fd_out, fd_err, path, argv.get());
}

int fork_execl_getout(char** out, const char* path, const char* arg0, ...) {
  va_list rest;
  va_start(rest, arg0);
  const HeapVector argv(arg0, rest);
  va_end(rest);
  return fork_execv_getout(out, path, argv.get());
}

int fork_execl_getouterr(char** out, char** err, const char* path, const char* arg0, ...) {
  va_list rest;
  va_start(rest, arg0);
  const HeapVector argv(arg0, rest);
  va_end(rest);
  return fork_execv_getouterr(out, err, path, argv.get());
}

int fork_execl_log(const char* path, const char* arg0, ...) {
  va_list rest;
  va_start(rest, arg0);
  const HeapVector argv(arg0, rest);
  va_end(rest);
  return fork_execv_log(path, argv.get(), 0);
}

int path_exec(const char* path, const char* arg1, ...) {
  va_list rest;
  va_start(rest, arg1);
  const FixedVector argv(path, arg1, rest);
  va_end(rest);
  return fork_execv_log(path, argv.get(), 0);
}

int path_exec_raw(const char* path, va_list args) {
  const char* first = va_arg(args, const char*);
  return fork_execv_log(path, FixedVector(path, first, args).get(), 0);
}

int util_exec(const char* name, const char* arg1, ...) {
  UtilityPath path;
  if (!path.form(name)) return -1;
  va_list rest;
  va_start(rest, arg1);
  const FixedVector argv(path.text, arg1, rest);
  va_end(rest);
  return fork_execv_log(path.text, argv.get(), 0);
}

int util_exec_args(const char* name, char* const argv[]) {
  UtilityPath path;
  return path.form(name) ? fork_execv_log(path.text, argv, 0) : -1;
}

int util_libexec(const char* name, const char* arg1, ...) {
  char path[kPathSize];
  snprintf(path, sizeof path, "%s/%s", kLibexecDir, name);
  va_list rest;
  va_start(rest, arg1);
  const FixedVector argv(path, arg1, rest);
  va_end(rest);
  return fork_execv_log(path, argv.get(), 0);
}

int fork_execv(const char* path, const char* arg1, ...) {
  va_list rest;
  va_start(rest, arg1);
  const FixedVector argv(path, arg1, rest);
  va_end(rest);
  const pid_t pid = fork();
  if (pid < 0) messlog2(1, 1, "fork_execv: fork() failed");
  if (pid == 0) run_silently(path, argv.get());
  int status = 0;
  if (wait(&status) < 0) return -1;
  return WIFSIGNALED(status) ? 1 : WEXITSTATUS(status);
}
