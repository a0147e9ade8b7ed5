#include "support/stopped_child.h"

#include <signal.h>
#include <stdlib.h>
#include <sys/ptrace.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

namespace testsupport {
namespace {

/// The child's memory at `address`, where it is equal to `text` with its terminating zero.
bool holds(pid_t pid, uint64_t address, const std::string& text) {
  std::string found(text.size() + 1, '\1');
  const iovec here = {found.data(), found.size()};
  // NOLINTNEXTLINE(performance-no-int-to-ptr): an address in another process
  const iovec there = {reinterpret_cast<void*>(address), found.size()};
  const ssize_t length = process_vm_readv(pid, &here, 1, &there, 1, 0);
  return length == static_cast<ssize_t>(found.size()) &&
         found == std::string(text.c_str(), text.size() + 1);
}

bool stands_before(pid_t pid, const Call& call) {
  __ptrace_syscall_info info = {};
  if (ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof info, &info) < 0) return false;
  if (info.op != PTRACE_SYSCALL_INFO_ENTRY) return false;
  if (info.entry.nr != static_cast<uint64_t>(call.number)) return false;
  return call.name.empty() || holds(pid, info.entry.args[1], call.name);
}

/// Lets the child run up to the call. False when it ended before.
bool run_to(pid_t pid, const Call& call) {
  int met = 0;
  int status = 0;
  long signal_number = 0;
  while (met < call.occurrence) {
    if (ptrace(PTRACE_SYSCALL, pid, nullptr, signal_number) != 0) return false;
    if (waitpid(pid, &status, 0) != pid || !WIFSTOPPED(status)) return false;
    const bool at_call = WSTOPSIG(status) == (SIGTRAP | 0x80);
    signal_number = at_call ? 0 : WSTOPSIG(status);
    if (at_call && stands_before(pid, call)) ++met;
  }
  return true;
}

[[noreturn]] void end_as(int status) {
  if (WIFSIGNALED(status)) raise(WTERMSIG(status));
  _exit(WEXITSTATUS(status));
}

[[noreturn]] void follow(pid_t pid, const Call& call, const std::function<void()>& meanwhile) {
  int status = 0;
  const long options = PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL;
  if (waitpid(pid, &status, 0) != pid || !WIFSTOPPED(status)) _exit(97);
  if (ptrace(PTRACE_SETOPTIONS, pid, nullptr, options) != 0) _exit(97);
  if (!run_to(pid, call)) _exit(96);
  try {
    meanwhile();
  } catch (const std::exception&) {
    _exit(97);
  }
  ptrace(PTRACE_DETACH, pid, nullptr, 0L);
  waitpid(pid, &status, 0);
  end_as(status);
}

}  // namespace

Outcome in_child_stopped_at(const Call& call, const std::function<void()>& meanwhile,
                            const std::function<void()>& body) {
  return in_child([&] {
    const pid_t pid = fork();
    if (pid < 0) _exit(97);
    if (pid > 0) follow(pid, call, meanwhile);
    if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) _exit(97);
    raise(SIGSTOP);
    body();
    exit(0);
  });
}

}  // namespace testsupport
