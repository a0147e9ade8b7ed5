#include <errno.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
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

/// Of all threads, since a thread may end before its children do. Entries are added one by one and
/// taken all at once, which needs no lock that a fork could find held.
std::atomic<Abandoned*> abandoned{nullptr};

void add(Abandoned* entry) noexcept {
  entry->next = abandoned.load();
  while (!abandoned.compare_exchange_weak(entry->next, entry)) {
  }
}

/// Also when it is no child of this process: the caller has collected it with a wait() for any, or
/// this is a forked copy of the process. Its number may soon be that of another child.
bool hasGone(int pid) noexcept {
  return ::waitpid(pid, nullptr, WNOHANG) != 0;
}

/// Closes the pipes out of which a preparation has its command read.
void closeInput(TExec::TPrepare* preparation) noexcept {
  if (auto* const both = dynamic_cast<TUnionPrep*>(preparation)) {
    closeInput(both->first().get());
    closeInput(both->second().get());
  } else if (auto* const reader = dynamic_cast<TReadFromPipeline*>(preparation)) {
    reader->close_pipe();
  }
}

/// Without a reader, the writer of a pipe is to get SIGPIPE and not to wait until the line is
/// destroyed.
void closeInput(const TExec& command) noexcept {
  closeInput(command.preparation().get());
}

TSLProcess executeOne(TExec& command) {
  const TSLProcess process = command.execute();
  if (process.pid == -1) closeInput(command);
  return process;
}

}  // namespace

void abandon(int pid) noexcept {
  if (auto* const entry = new (std::nothrow) Abandoned{pid, nullptr}) add(entry);
}

void collectAbandoned() noexcept {
  const KeepErrno keep;
  for (Abandoned* entry = abandoned.exchange(nullptr); entry != nullptr;) {
    Abandoned* const current = std::exchange(entry, entry->next);
    if (hasGone(current->pid))
      delete current;
    else
      add(current);
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
  try {
    for (TExec& command : line) {
      if (previous != nullptr) others.note(*previous, last);
      last = executeOne(command);
      previous = &command;
    }
  } catch (...) {
    for (const TExec& command : line) closeInput(command);
    throw;
  }
  return last;
}

}  // namespace frask::sys
