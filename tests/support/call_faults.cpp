#include "support/call_faults.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <map>
#include <stdexcept>

namespace testsupport {
namespace {

/// What the process that follows tells the one that waits for it.
struct Report {
  struct Seen {
    int process;
    int number;
  };
  bool met;
  size_t seen;
  std::array<Seen, 65536> calls;
};

Report& shared_report() {
  static Report* report = [] {
    void* memory =
        mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw std::runtime_error("mmap failed");
    return static_cast<Report*>(memory);
  }();
  return *report;
}

#if defined(__x86_64__)
void poke(pid_t pid, size_t offset, long value) {
  if (ptrace(PTRACE_POKEUSER, pid, offset, value) != 0) _exit(97);
}
void skip_call(pid_t pid) {
  poke(pid, offsetof(user_regs_struct, orig_rax), -1);
}
void set_result(pid_t pid, long result) {
  poke(pid, offsetof(user_regs_struct, rax), result);
}
void set_argument(pid_t pid, uint64_t value) {
  poke(pid, offsetof(user_regs_struct, rdi), static_cast<long>(value));
}
void restore_argument(pid_t pid, uint64_t value) {
  set_argument(pid, value);
}
#elif defined(__aarch64__)
void set_registers(pid_t pid, int set, void* values, size_t size) {
  iovec area = {values, size};
  if (ptrace(PTRACE_SETREGSET, pid, set, &area) != 0) _exit(97);
}
void skip_call(pid_t pid) {
  int none = -1;
  set_registers(pid, 0x404 /* NT_ARM_SYSTEM_CALL */, &none, sizeof none);
}
void set_result(pid_t pid, long result) {
  user_regs_struct registers = {};
  iovec area = {&registers, sizeof registers};
  if (ptrace(PTRACE_GETREGSET, pid, 1 /* NT_PRSTATUS */, &area) != 0) _exit(97);
  registers.regs[0] = static_cast<unsigned long>(result);
  set_registers(pid, 1, &registers, sizeof registers);
}
// The argument and the result share a register.
void set_argument(pid_t pid, uint64_t value) {
  set_result(pid, static_cast<long>(value));
}
void restore_argument(pid_t, uint64_t) {}
#else
#error "how a system call is skipped on this machine is not known here"
#endif

/// The process that follows the program, and ends as it does.
class Follower {
 public:
  Follower(const CallFault& fault, Report& report) : fault_(fault), report_(report) {}

  [[noreturn]] void follow(pid_t program) {
    constexpr long kOptions = PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL | PTRACE_O_TRACEEXEC |
                              PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK | PTRACE_O_TRACECLONE;
    int status = 0;
    if (waitpid(program, &status, 0) != program || !WIFSTOPPED(status)) _exit(97);
    if (ptrace(PTRACE_SETOPTIONS, program, nullptr, kOptions) != 0) _exit(97);
    add(program);
    resume(program, 0);
    int result = 0;
    for (pid_t pid = 0; (pid = waitpid(-1, &status, __WALL)) > 0;) {
      if (WIFSTOPPED(status))
        on_stop(pid, status);
      else if (pid == program)
        result = status;
    }
    if (WIFSIGNALED(result)) {
      signal(WTERMSIG(result), SIG_DFL);
      raise(WTERMSIG(result));
    }
    _exit(WEXITSTATUS(result));
  }

 private:
  struct Process {
    int ordinal = 0;
    int occurrences = 0;  ///< of the call that is to fail
    bool counts = false;
    long failing = -1;      ///< the call that is to fail, while it is in it
    uint64_t argument = 0;  ///< of that one
    bool ended = false;     ///< the end mark was passed
  };

  void add(pid_t pid) {
    Process& process = processes_[pid];
    process.ordinal = next_ordinal_++;
    process.counts = process.ordinal != 0;
  }

  bool is_watched(const Process& process) const {
    if (process.ended) return false;
    return fault_.process < 0 || (fault_.process == process.ordinal && !done_);
  }

  void resume(pid_t pid, int signal_number) {
    const Process& process = processes_[pid];
    const auto how = is_watched(process) ? PTRACE_SYSCALL : PTRACE_CONT;
    ptrace(how, pid, nullptr, static_cast<long>(signal_number));
  }

  void on_stop(pid_t pid, int status) {
    if (processes_.count(pid) == 0) {  // its parent's report of it comes later
      early_[pid] = true;
      return;
    }
    const int event = status >> 16;
    const int stopped_by = WSTOPSIG(status);
    if (stopped_by == (SIGTRAP | 0x80)) {
      on_call(pid);
      resume(pid, 0);
    } else if (event == PTRACE_EVENT_FORK || event == PTRACE_EVENT_VFORK ||
               event == PTRACE_EVENT_CLONE) {
      on_start(pid);
      resume(pid, 0);
    } else if (event != 0) {
      resume(pid, 0);
    } else {
      const bool first = stopped_by == SIGSTOP && fresh_.erase(pid) != 0;
      resume(pid, first ? 0 : stopped_by);
    }
  }

  void on_start(pid_t parent) {
    unsigned long started = 0;
    if (ptrace(PTRACE_GETEVENTMSG, parent, nullptr, &started) != 0) _exit(97);
    const auto pid = static_cast<pid_t>(started);
    add(pid);
    if (early_.erase(pid) != 0)
      resume(pid, 0);
    else
      fresh_[pid] = true;
  }

  void on_call(pid_t pid) {
    Process& process = processes_[pid];
    __ptrace_syscall_info info = {};
    if (ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof info, &info) < 0) return;
    if (info.op == PTRACE_SYSCALL_INFO_ENTRY) {
      on_entry(pid, process, info);
    } else if (process.failing >= 0) {
      if (process.failing == SYS_brk)
        restore_argument(pid, process.argument);
      else
        set_result(pid, -fault_.error);
      process.failing = -1;
      done_ = true;
    }
  }

  void on_entry(pid_t pid, Process& process, const __ptrace_syscall_info& info) {
    const auto number = static_cast<long>(info.entry.nr);
    if (process.ordinal == 0 && number == SYS_fcntl && info.entry.args[1] == F_GETFD) {
      if (info.entry.args[0] == 0 && !process.counts) {
        process.counts = true;
        return;
      }
      if (static_cast<int>(info.entry.args[0]) == kEndMark) process.ended = true;
    }
    if (!process.counts || process.ended) return;
    if (fault_.process < 0) {
      if (report_.seen < report_.calls.size())
        report_.calls[report_.seen++] = {process.ordinal, static_cast<int>(number)};
    } else if (process.ordinal == fault_.process && number == fault_.number &&
               ++process.occurrences == fault_.occurrence) {
      fail(pid, process, number, info.entry.args[0]);
    }
  }

  void fail(pid_t pid, Process& process, long number, uint64_t argument) {
    report_.met = true;
    if (fault_.error == 0) {
      done_ = true;
      if (fault_.kill_all)
        for (const auto& [other, unused] : processes_) kill(other, SIGKILL);
      kill(pid, SIGKILL);
      return;
    }
    process.failing = number;
    process.argument = argument;
    if (number == SYS_brk)
      set_argument(pid, 0);  // only asks for the present break
    else if (number != SYS_close)
      skip_call(pid);
  }

  CallFault fault_;
  Report& report_;
  std::map<pid_t, Process> processes_;
  std::map<pid_t, bool> early_;  ///< stopped, and not told of by the parent yet
  std::map<pid_t, bool> fresh_;  ///< told of, and not stopped yet
  int next_ordinal_ = 0;
  bool done_ = false;
};

/// Each call hands the processor over twice; on a busy machine each time would wait for others. The
/// program inherits it. Where it is not allowed, it only takes longer.
void come_first() {
  const sched_param lowest = {1};
  static_cast<void>(sched_setscheduler(0, SCHED_RR, &lowest));
}

}  // namespace

FaultedRun run_with_fault(const std::vector<std::string>& arguments, const CallFault& fault,
                          const RunOptions& options, unsigned seconds) {
  Report& report = shared_report();
  report.met = false;
  report.seen = 0;
  std::vector<char*> argv;
  argv.reserve(arguments.size() + 1);
  for (const std::string& word : arguments) argv.push_back(const_cast<char*>(word.c_str()));
  argv.push_back(nullptr);
  FaultedRun run;
  run.outcome = in_child(
      [&] {
        come_first();
        const pid_t pid = fork();
        if (pid < 0) _exit(97);
        if (pid > 0) {
          signal(SIGALRM, SIG_DFL);
          alarm(seconds);
          Follower(fault, report).follow(pid);
        }
        if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) _exit(97);
        raise(SIGSTOP);
        execv(argv[0], argv.data());
        _exit(98);
      },
      options);
  run.met = report.met;
  run.timed_out = WIFSIGNALED(run.outcome.status) && WTERMSIG(run.outcome.status) == SIGALRM;
  for (size_t i = 0; i < report.seen; ++i) {
    const auto process = static_cast<size_t>(report.calls[i].process);
    if (run.calls.size() <= process) run.calls.resize(process + 1);
    run.calls[process].push_back(report.calls[i].number);
  }
  return run;
}

}  // namespace testsupport
