#include <errno.h>
#include <sys/wait.h>

#include <algorithm>
#include <new>
#include <utility>

#include "error/SystemError.h"
#include "exec/children.private.h"
#include "exec/keep_errno.private.h"

namespace frask::sys {
namespace {

struct Abandoned {
  int pid;
  Abandoned* next;
};

/// Of this thread, as the objects are that started them. A container would have a destructor, and
/// registering that ends the process when memory is exhausted.
thread_local Abandoned* abandoned = nullptr;

/// Also when the caller has collected it with a wait() for any child.
bool hasGone(int pid) noexcept {
  return ::waitpid(pid, nullptr, WNOHANG) != 0;
}

}  // namespace

void abandon(int pid) noexcept {
  if (auto* entry = new (std::nothrow) Abandoned{pid, abandoned}) abandoned = entry;
}

void collectAbandoned() noexcept {
  const KeepErrno keep;
  for (Abandoned** at = &abandoned; *at != nullptr;) {
    if (hasGone((*at)->pid))
      delete std::exchange(*at, (*at)->next);
    else
      at = &(*at)->next;
  }
}

int wait_process(const TSLProcess& process) {
  const KeepErrno keep;
  int status = 0;
  while (::waitpid(process.pid, &status, WUNTRACED) == -1) {
    if (errno == ECHILD) return 0;
    if (errno != EINTR) throwSystemError("waitpid() failed", errno);
  }
  return status;
}

Unwaited::~Unwaited() {
  for (const int pid : pids_) abandon(pid);
  collectAbandoned();
}

void Unwaited::note(const TExec& command, const TSLProcess& process) noexcept {
  const bool waited = (command.mode() & wait_mode).any();
  if (process.pid > 0 && !waited) pids_.push_back(process.pid);
}

int Unwaited::settle(const TSLProcess& process) {
  const int status = wait_process(process);
  pids_.erase(std::remove(pids_.begin(), pids_.end(), process.pid), pids_.end());
  if (WIFSTOPPED(status)) abandon(process.pid);
  return status;
}

void Unwaited::settleAll() {
  while (!pids_.empty()) settle({pids_.back(), 0});
}

TSLProcess executeInOrder(TExecsList& line, Unwaited& others) {
  TSLProcess last;
  const TExec* previous = nullptr;
  for (TExec& command : line) {
    if (previous != nullptr) others.note(*previous, last);
    last = command.execute();
    previous = &command;
  }
  return last;
}

}  // namespace frask::sys
