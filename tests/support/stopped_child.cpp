#include "support/stopped_child.h"

#include <dirent.h>
#include <signal.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <iostream>
#include <stdexcept>

namespace testsupport {
namespace {

iovec memory_at(uint64_t address, size_t size) {
  // NOLINTNEXTLINE(performance-no-int-to-ptr): an address in another process
  return {reinterpret_cast<void*>(address), size};
}

/// The child's memory at `address`; empty where that much cannot be read.
std::string read_memory(pid_t pid, uint64_t address, size_t size) {
  std::string found(size, '\1');
  const iovec here = {found.data(), size};
  const iovec there = memory_at(address, size);
  const ssize_t length = process_vm_readv(pid, &here, 1, &there, 1, 0);
  return length == static_cast<ssize_t>(size) ? found : std::string();
}

/// Whether the child's memory at `address` is equal to `text` with its terminating zero.
bool holds(pid_t pid, uint64_t address, const std::string& text) {
  return read_memory(pid, address, text.size() + 1) == std::string(text.c_str(), text.size() + 1);
}

__ptrace_syscall_info call_info(pid_t pid) {
  __ptrace_syscall_info info = {};
  if (ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof info, &info) < 0) return {};
  return info;
}

bool stands_before(pid_t pid, const Call& call) {
  const __ptrace_syscall_info info = call_info(pid);
  if (info.op != PTRACE_SYSCALL_INFO_ENTRY) return false;
  if (info.entry.nr != static_cast<uint64_t>(call.number)) return false;
  return call.name.empty() || holds(pid, info.entry.args[1], call.name);
}

/// Lets the child run until it enters or leaves a system call. False when it ended before, with
/// that status.
bool run_to_next_stop(pid_t pid, int& status) {
  long signal_number = 0;
  while (ptrace(PTRACE_SYSCALL, pid, nullptr, signal_number) == 0) {
    if (waitpid(pid, &status, 0) != pid || !WIFSTOPPED(status)) return false;
    if (WSTOPSIG(status) == (SIGTRAP | 0x80)) return true;
    signal_number = WSTOPSIG(status);
  }
  return false;
}

/// Lets the child run up to the call. False when it ended before.
bool run_to(pid_t pid, const Call& call) {
  int status = 0;
  for (int met = 0; met < call.occurrence;) {
    if (!run_to_next_stop(pid, status)) return false;
    if (stands_before(pid, call)) ++met;
  }
  return true;
}

[[noreturn]] void end_as(int status) {
  if (WIFSIGNALED(status)) raise(WTERMSIG(status));
  _exit(WEXITSTATUS(status));
}

void begin_to_follow(pid_t pid) {
  int status = 0;
  const long options = PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL;
  if (waitpid(pid, &status, 0) != pid || !WIFSTOPPED(status)) _exit(97);
  if (ptrace(PTRACE_SETOPTIONS, pid, nullptr, options) != 0) _exit(97);
}

[[noreturn]] void act_before(pid_t pid, const Call& call, const std::function<void()>& meanwhile) {
  if (!run_to(pid, call)) _exit(96);
  try {
    meanwhile();
  } catch (const std::exception&) {
    _exit(97);
  }
  int status = 0;
  ptrace(PTRACE_DETACH, pid, nullptr, 0L);
  waitpid(pid, &status, 0);
  end_as(status);
}

/// Takes the types out of the entries in a buffer that getdents64() has filled.
void forget_types(pid_t pid, uint64_t address, size_t size) {
  std::string entries = read_memory(pid, address, size);
  for (size_t at = 0; at < entries.size();) {
    entries[at + offsetof(dirent64, d_type)] = DT_UNKNOWN;
    unsigned short length = 0;
    memcpy(&length, &entries[at + offsetof(dirent64, d_reclen)], sizeof length);
    at += length;
  }
  const iovec here = {entries.data(), entries.size()};
  const iovec there = memory_at(address, entries.size());
  const ssize_t written = process_vm_writev(pid, &here, 1, &there, 1, 0);
  if (written <= 0 || static_cast<size_t>(written) != size) _exit(97);
}

[[noreturn]] void hide_entry_types(pid_t pid) {
  bool listed = false;
  int status = 0;
  uint64_t buffer = 0;  // of the listing that is under way
  while (run_to_next_stop(pid, status)) {
    const __ptrace_syscall_info info = call_info(pid);
    if (info.op == PTRACE_SYSCALL_INFO_ENTRY) {
      buffer = info.entry.nr == SYS_getdents64 ? info.entry.args[1] : 0;
    } else if (buffer != 0 && info.exit.rval > 0) {
      forget_types(pid, buffer, static_cast<size_t>(info.exit.rval));
      listed = true;
    }
  }
  if (!listed) _exit(96);
  end_as(status);
}

/// in_child(), followed from its beginning.
Outcome in_followed_child(const std::function<void(pid_t)>& follow,
                          const std::function<void()>& body) {
  return in_child([&] {
    const pid_t pid = fork();
    if (pid < 0) _exit(97);
    if (pid > 0) {
      begin_to_follow(pid);
      follow(pid);
    }
    if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) _exit(97);
    raise(SIGSTOP);
    body();
    exit(0);
  });
}

}  // namespace

Outcome in_child_stopped_at(const Call& call, const std::function<void()>& meanwhile,
                            const std::function<void()>& body) {
  return in_followed_child([&](pid_t pid) { act_before(pid, call, meanwhile); }, body);
}

Outcome in_child_without_entry_types(const std::function<void()>& body) {
  return in_followed_child(hide_entry_types, [&] {
    body();
    std::cout.flush();
    fflush(nullptr);
    _exit(0);  // leaks cannot be looked for under a tracer
  });
}

}  // namespace testsupport
