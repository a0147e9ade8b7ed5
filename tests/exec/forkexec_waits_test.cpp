#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "exec/captures.h"
#include "exec/exec_support.h"
#include "exec/forkexec.h"
#include "support/scratch.h"

using exectest::Argv;
using exectest::capture_both;
using exectest::capture_out;
using exectest::Captured;
using exectest::Gate;
using exectest::print;
using exectest::RecordedLog;
using exectest::shell;
using testsupport::in_child;
using testsupport::Outcome;

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

TEST(ForkExec, LeavesNoDescriptorAndNoZombieBehind) {
  const Outcome outcome = in_child([] {
    const std::vector<int> before = testsupport::open_descriptors();
    for (int round = 0; round < 1800; ++round) {
      char* out = nullptr;
      char* err = nullptr;
      fork_execl_getout(&out, "/bin/true", "true", nullptr);
      free(out);
      fork_execl_getouterr(&out, &err, "/bin/true", "true", nullptr);
      free(out);
      free(err);
      fork_execl_log("/bin/true", "true", nullptr);
      path_exec("/bin/true", nullptr);
      fork_exec_getres(fork_execl_pipes(-1, -1, -1, "/bin/true", "true", nullptr), "true");
    }
    for (int round = 0; round < 250; ++round) {  // these fork, which takes its time
      fork_execv("/bin/true", nullptr);
      fork_execv_fd(-1, -1, "/bin/true", Argv({"true"}).get());
      do_exec("/bin/true", Argv({"true"}).get());
      popen_exec("true");
    }
    if (testsupport::open_descriptors() != before) printf("descriptors were left\n");
    if (waitpid(-1, nullptr, WNOHANG) != -1 || errno != ECHILD) printf("a child was left\n");
    printf("done\n");
  });
  EXPECT_EQ(outcome.out, "done\n");
  EXPECT_EQ(outcome.err, "");
}
