#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <regex>
#include <string>
#include <vector>

#include "exec/captures.h"
#include "exec/exec_support.h"
#include "exec/forkexec.h"
#include "exec/members.h"
#include "support/repetitions.h"
#include "support/scratch.h"
#include "support/traced.h"

using exectest::Argv;
using exectest::capture_both;
using exectest::capture_out;
using exectest::Captured;
using exectest::Gate;
using exectest::Member;
using exectest::print;
using exectest::RecordedLog;
using exectest::shell;
using testsupport::in_child;
using testsupport::Outcome;
using testsupport::ScratchDir;

namespace {

using Lines = std::vector<std::string>;

std::string gate_path;
volatile sig_atomic_t gate_opened = 0;

void set_timer(suseconds_t microseconds) {
  const itimerval once = {{0, 0}, {0, microseconds}};
  setitimer(ITIMER_REAL, &once, nullptr);
}

/// While poll() waits: lets the child go and waits for its end, without reaping it.
extern "C" void open_gate(int /*number*/) {
  const int error = errno;
  const int fd = open(gate_path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    set_timer(20000);  // the child is not there yet
  } else {
    close(fd);
    siginfo_t info;
    waitid(P_ALL, 0, &info, WEXITED | WNOWAIT);
    gate_opened = 1;
  }
  errno = error;
}

void open_gate_while_polling(const Gate& gate) {
  gate_path = gate.path();
  struct sigaction action = {};
  action.sa_handler = open_gate;
  sigaction(SIGALRM, &action, nullptr);
  set_timer(20000);
}

constexpr int kZombieCode = 3;

/// A child of nobody's that has ended and is not collected.
pid_t start_zombie() {
  const pid_t pid = fork();
  if (pid < 0) _exit(97);
  if (pid == 0) _exit(kZombieCode);
  siginfo_t info;
  if (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) != 0) _exit(97);
  return pid;
}

const std::string kChatter(30, 'x');
const std::string kToChatter = std::string(exectest::kProbe) + " chatter 30";

struct Logged {
  Captured captured;
  size_t lines;
};

/// A machine that stalls for a second pauses the chatter, so what it disturbed is done again: until
/// all that was said has been taken and `lines` were logged, or five times.
Logged capture_chatter(size_t lines, const std::function<Captured()>& capture) {
  constexpr int kRounds = 5;
  Logged logged = {};
  for (int round = 0; round < kRounds; ++round) {
    const RecordedLog log;
    logged.captured = capture();
    logged.lines = log.lines().size();
    if (logged.captured.out == kChatter && logged.lines == lines) break;
  }
  return logged;
}

}  // namespace

TEST(ForkExecvGetout, WaitsForAChildThatClosesItsOutputAndLivesOn) {
  const RecordedLog log;
  const Captured out = capture_out(shell("echo text; exec >&-; sleep 0.3; exit 7"));
  EXPECT_EQ(out.result, 7);
  EXPECT_EQ(out.out, "text\n");
  const Captured both = capture_both(shell("echo text; exec >&- 2>&-; sleep 0.3; exit 7"));
  EXPECT_EQ(both.result, 7);
  EXPECT_EQ(both.out, "text\n");
  EXPECT_EQ(both.err, "");
}

// The grandchild holds the pipe until the gate opens, which is after the call.
TEST(ForkExecvGetout, LeavesAGrandchildThatHoldsThePipe) {
  const Gate gate;
  const Captured captured =
      capture_out(shell("echo text; cat <" + gate.path() + " 2>/dev/null & exit 3"));
  EXPECT_EQ(captured.result, 3);
  EXPECT_EQ(captured.out, "text\n");
  gate.release();
}

TEST(ForkExecvGetouterr, LeavesAGrandchildThatHoldsBothPipes) {
  const Gate gate;
  const Captured captured =
      capture_both(shell("echo text; echo errors >&2; cat <" + gate.path() + " & exit 3"));
  EXPECT_EQ(captured.result, 3);
  EXPECT_EQ(captured.out, "text\n");
  EXPECT_EQ(captured.err, "errors\n");
  gate.release();
}

TEST(ForkExecvGetouterr, GivesNoTextForASilentStreamThatAGrandchildHolds) {
  const Gate gate;
  const Captured captured = capture_both(shell("exec 2>&-; cat <" + gate.path() + " & exit 0"));
  EXPECT_EQ(captured.result, 0);
  EXPECT_EQ(captured.out, "(null)");
  EXPECT_EQ(captured.err, "") << "this one was closed by all";
  gate.release();
}

TEST(ForkExecvGetouterr, WaitsForAChildThatIsSilentForLongerThanASecond) {
  const Captured captured = capture_both(shell("echo one; sleep 2.2; echo two; exit 4"));
  EXPECT_EQ(captured.result, 4);
  EXPECT_EQ(captured.out, "one\ntwo\n");
}

// The signal interrupts the wait; when the wait returns, the child has written and ended.
TEST(ForkExecvGetouterr, LosesNothingOfAChildThatEndsWhileItIsLookedAt) {
  const Gate gate;
  const Outcome outcome = in_child([&gate] {
    const Argv argv = shell("read line <" + gate.path() +
                            "; head -c 60000 /dev/zero | tr '\\0' x; echo last >&2; exit 4");
    open_gate_while_polling(gate);
    const Captured captured = capture_both(argv);
    printf("%d %d %zu %s", static_cast<int>(gate_opened), captured.result, captured.out.size(),
           captured.err.c_str());
  });
  EXPECT_EQ(outcome.out, "1 4 60000 last\n");
}

TEST(ForkExecvGetout, GivesAnEmptyTextAlsoWhenTheEndIsSeenFirst) {
  const Gate gate;
  const Outcome outcome = in_child([&gate] {
    const Argv argv = shell("read line <" + gate.path() + "; exit 4");
    open_gate_while_polling(gate);
    print(capture_out(argv));
  });
  EXPECT_EQ(outcome.out, "4||\n");
}

TEST(ForkExecvGetout, GoesOnAfterAnInterruptedWait) {
  const Outcome outcome = in_child([] {
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, nullptr);
    const itimerval often = {{0, 10000}, {0, 10000}};
    setitimer(ITIMER_REAL, &often, nullptr);
    const Captured captured = capture_out(shell("echo one; sleep 0.3; echo two; exit 6"));
    setitimer(ITIMER_REAL, nullptr, nullptr);
    print(captured);
  });
  EXPECT_EQ(outcome.out, "6|one\ntwo\n|\n");
}

TEST(ForkExecvGetout, LogsDeathBySignal) {
  const RecordedLog log;
  EXPECT_EQ(capture_out(shell("kill -KILL $$")).result, -1);
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_NE(log.lines()[0].find(": process '/bin/sh' killed by signal 9"), std::string::npos);
}

// Deliberate: whoever reaps in a pause does not report.
TEST(ForkExecvGetout, DoesNotLogDeathBySignalWhenAGrandchildHoldsThePipe) {
  const Gate gate;
  const RecordedLog log;
  EXPECT_EQ(capture_out(shell("cat <" + gate.path() + " & kill -KILL $$")).result, -1);
  EXPECT_EQ(log.lines(), Lines{});
  gate.release();
}

TEST(ForkExecvGetout, FailsWhenTheChildWasReapedByAnother) {
  const Outcome outcome = in_child([] {
    exectest::let_the_kernel_reap();
    print(capture_out(shell("echo text")));
  });
  EXPECT_EQ(outcome.out.substr(0, 8), "waitpid(") << "the log line";
  EXPECT_EQ(outcome.out.substr(outcome.out.find('\n')), "\n-1|text\n|\n");
}

TEST(ForkExecvGetout, FailsSilentlyWhenTheChildIsGoneInAPause) {
  const Gate gate;
  const Outcome outcome = in_child([&gate] {
    exectest::let_the_kernel_reap();
    const Captured captured = capture_out(shell("echo text; cat <" + gate.path() + " &"));
    const int error = errno;
    print(captured);
    printf("errno %d\n", error);
  });
  EXPECT_EQ(outcome.out, "-1|text\n|\nerrno 10\n");
  EXPECT_EQ(outcome.err, "");
  gate.release();
}

// The grandchild goes on talking after the child has ended, and then holds the pipe in silence.
TEST(ForkExecvGetout, TakesWhatAGrandchildSaysUntilItPauses) {
  const Logged ended =
      capture_chatter(1, [] { return capture_out(shell(kToChatter + " & kill -KILL $$")); });
  EXPECT_EQ(ended.captured.result, -1);
  EXPECT_EQ(ended.captured.out, kChatter) << "one and a half seconds of it";
  EXPECT_EQ(ended.lines, 1U) << "the pipe was closed by all, so the wait reports";
  const Logged held = capture_chatter(0, [] {
    const Gate gate;
    const Captured captured =
        capture_out(shell("(" + kToChatter + "; cat <" + gate.path() + ") & kill -KILL $$"));
    gate.release();
    return captured;
  });
  EXPECT_EQ(held.captured.result, -1);
  EXPECT_EQ(held.captured.out, kChatter);
  EXPECT_EQ(held.lines, 0U) << "whoever reaps in a pause does not report";
}

// One second and not another: pauses in what a child says are common, and callers wait that long.
TEST(ForkExecvGetouterr, LooksAtTheChildAfterASecondOfSilence) {
  const ScratchDir scratch;
  // Under strace a signal interrupts the call, which then goes on for what is left of it.
  const std::regex timed_out(
      "(poll\\(.*, 1000\\)|restart_syscall\\(.*\\)) += 0( \\(Timeout\\))?\n");
  const std::regex poll_of_another_length("poll\\(.*\\], [0-9]+, (?!1000\\)|0\\))");
  for (const char* member : {"getout", "getouterr"}) {
    SCOPED_TRACE(member);
    const Gate gate;
    const Outcome outcome =
        testsupport::run_traced({"-o", scratch / "trace", "-e", "trace=poll,restart_syscall,wait4"},
                                {exectest::kCaller, member, "/bin/sh", "-c",
                                 "echo text; cat <" + gate.path() + " & exit 3"});
    EXPECT_EQ(outcome.exit_code(), 3);
    EXPECT_EQ(outcome.out, "text\n");
    const std::string trace = testsupport::read_file(scratch / "trace");
    EXPECT_TRUE(std::regex_search(trace, timed_out)) << trace;
    EXPECT_FALSE(std::regex_search(trace, poll_of_another_length)) << trace;
    EXPECT_NE(trace.find("WNOHANG"), std::string::npos) << trace;
    gate.release();
  }
}

// The helper lets a child that has stopped go on after more than a second.
TEST(WaitingMembers, KeepWaitingForAStoppedChildUnlessTheyReportIt) {
  const std::string script =
      "pid=$$; (exec >&- 2>&-; until grep -q '^State:.T' /proc/$pid/status; do sleep 0.01; done; "
      "sleep 1.3; kill -CONT $pid) & kill -STOP $$; echo late; exit 5";
  EXPECT_EQ(do_exec("/bin/sh", shell("exec >/dev/null; " + script).get()), 5 << 8);
  EXPECT_EQ(fork_execv("/bin/sh", "-c", script.c_str(), nullptr), 5);
  const Captured out = capture_out(shell(script));
  EXPECT_EQ(out.result, 5) << "nor is it taken for an ended one in a pause";
  EXPECT_EQ(out.out, "late\n");
  const Captured both = capture_both(shell(script));
  EXPECT_EQ(both.result, 5);
  EXPECT_EQ(both.out, "late\n");
}

TEST(WaitingMembers, LeaveTheChildrenOfOthersAlone) {
  for (const Member& member : exectest::waiting_members()) {
    if (member.name == std::string("fork_execv")) continue;  // see ForkExecv.WaitsForAnyChild
    SCOPED_TRACE(member.name);
    const Outcome outcome = in_child([&member] {
      exectest::install_for_members();
      const pid_t zombie = start_zombie();
      if (member.run("7") != 7) _exit(1);
      int status = 0;
      if (waitpid(zombie, &status, WNOHANG) != zombie) _exit(2);
      _exit(status == kZombieCode << 8 ? 0 : 3);
    });
    EXPECT_EQ(outcome.exit_code(), 0) << outcome;
  }
}

TEST(WaitingMembers, LeaveTheChildrenOfOthersAloneInAPause) {
  for (const auto capture : {capture_out, capture_both}) {
    const Gate gate;
    const Outcome outcome = in_child([&] {
      const Argv argv = shell("echo text; cat <" + gate.path() + " & exit 7");
      const pid_t zombie = start_zombie();
      if (capture(argv).result != 7) _exit(1);
      _exit(waitpid(zombie, nullptr, WNOHANG) == zombie ? 0 : 2);
    });
    EXPECT_EQ(outcome.exit_code(), 0) << outcome;
    gate.release();
  }
}

TEST(ForkExecv, TakesTheResultOfAChildOfAnother) {
  const Outcome outcome = in_child([] {
    start_zombie();
    if (fork_execv(exectest::kProbe, "exit", "7", nullptr) != kZombieCode) _exit(1);
    int status = 0;
    if (wait(&status) <= 0) _exit(2);
    _exit(WEXITSTATUS(status));
  });
  EXPECT_EQ(outcome.exit_code(), 7) << "its own child is left to the caller";
}

TEST(WaitingMembers, LeaveNoDescriptorAndNoZombieBehind) {
  const Outcome outcome = in_child([] {
    exectest::install_for_members();
    // Those that report a result would fill both streams.
    const int report = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    exectest::open_as(STDOUT_FILENO, "/dev/null");
    exectest::open_as(STDERR_FILENO, "/dev/null");
    const std::vector<int> before = testsupport::open_descriptors();
    long calls = 0;
    for (const Member& member : exectest::waiting_members()) {
      // A fork takes its time.
      const int count =
          testsupport::repetitions(member.start == exectest::Start::kSpawn ? 660 : 240);
      for (int i = 0; i < count; ++i, ++calls) {
        const int code = i % 2;
        if (member.run(code == 0 ? "0" : "1") != code) dprintf(report, "%s failed\n", member.name);
      }
      if (testsupport::open_descriptors() != before)
        dprintf(report, "%s left a descriptor\n", member.name);
      if (waitpid(-1, nullptr, WNOHANG) != -1 || errno != ECHILD)
        dprintf(report, "%s left a child\n", member.name);
    }
    dprintf(report, "%ld calls\n", calls);
  });
  EXPECT_EQ(outcome.out, std::to_string(testsupport::repetitions(10020)) + " calls\n");
}
