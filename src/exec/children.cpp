#include <errno.h>
#include <sys/wait.h>

#include <algorithm>
#include <new>

#include "error/SystemError.h"
#include "exec/children.private.h"

namespace frask::sys {
namespace {

/// Of this thread, as the objects are that started them.
std::vector<int>& abandoned() {
  static thread_local std::vector<int> pids;
  return pids;
}

/// Also when the caller has collected it with a wait() for any child.
bool hasGone(int pid) noexcept {
  return ::waitpid(pid, nullptr, WNOHANG) != 0;
}

}  // namespace

void abandon(int pid) noexcept {
  try {
    abandoned().push_back(pid);
  } catch (const std::bad_alloc&) {  // NOLINT(bugprone-empty-catch): see the declaration
  }
}

void collectAbandoned() noexcept {
  const int error = errno;
  std::vector<int>& pids = abandoned();
  pids.erase(std::remove_if(pids.begin(), pids.end(), hasGone), pids.end());
  errno = error;
}

int wait_process(const TSLProcess& process) {
  if (process.pid <= 0) return 0;  // waitpid() would take any child for it
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
