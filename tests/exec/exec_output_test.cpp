#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <stdexcept>

#include "error/SystemError.h"
#include "exec/commands.h"
#include "exec/exec_support.h"
#include "exec/texec.h"
#include "support/scratch.h"
#include "support/traced.h"

using frask::Handle;
using frask::sys::execGetOutput;
using frask::sys::TExec;
using frask::sys::TExecsList;
using testexec::alone;
using testexec::capture;
using testexec::Captured;
using testexec::command;
using testexec::shell;
using testsupport::open_descriptors;
using testsupport::Outcome;

namespace {

constexpr auto kWait = frask::sys::wait_mode;

/// A shell's loop that ends once the process that it was started by sleeps in a system call.
const std::string kUntilCallerSleeps =
    "until grep -q '^State:.S' /proc/$PPID/status || ! [ -e /proc/$PPID ]; do :; done; ";

volatile sig_atomic_t signals = 0;
/// What the handler makes at the first and at the second signal: the call is interrupted by then.
std::array<std::string, 2> marks;

void count(int) {
  const int error = errno;
  const auto number = static_cast<size_t>(signals);
  signals = signals + 1;
  if (number < marks.size())
    close(open(marks[number].c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  errno = error;
}

void let_signals_interrupt(const testsupport::ScratchDir& scratch) {
  marks = {scratch / "first", scratch / "second"};
  struct sigaction action = {};
  action.sa_handler = count;
  sigaction(SIGUSR1, &action, nullptr);
}

/// Of a shell: interrupts the sleeping caller, and goes on once that has happened.
std::string interrupt(size_t number) {
  return kUntilCallerSleeps + "kill -USR1 $PPID; until [ -e " + marks[number] +
         " ] || ! [ -e /proc/$PPID ]; do sleep 0.01; done; ";
}

/// The text of the runtime_error, or "none: " and the output.
std::string failure_of(const TExecsList& line) {
  std::string out;
  try {
    out <<= line;
    return "none: " + out;
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(typeid(error), typeid(std::runtime_error));
    return error.what();
  }
}

}  // namespace

TEST(ExecGetOutput, GivesTheOutputOfTheLastCommandAlone) {
  const Outcome outcome = alone([] {
    const Captured captured = capture((shell("echo first"), shell("echo last; echo error >&2")));
    dprintf(STDOUT_FILENO, "captured %s", captured.out.c_str());
  });
  EXPECT_EQ(outcome.out, "first\ncaptured last\n");
  EXPECT_EQ(outcome.err, "error\n");
}

TEST(ExecGetOutput, AppendsToWhatIsThere) {
  std::string out = "before ";
  int status = -1;
  execGetOutput(&out, &status, command({"echo", "after"}));
  EXPECT_EQ(out, "before after\n");
}

TEST(ExecGetOutput, GivesEveryByte) {
  for (const TExec& plain : testexec::both_starts(command({"printf", "a\\0b\\377\\n\\n"})))
    EXPECT_EQ(capture(plain).out, std::string("a\0b\377\n\n", 6));
  EXPECT_EQ(capture(command({"true"})).out, "");
}

TEST(ExecGetOutput, GivesStatusZeroAfterAWaitingMode) {
  for (const TExec& plain : testexec::both_starts(shell("exit 3")))
    EXPECT_EQ(capture(plain).status, 0);
  EXPECT_EQ(capture(shell("kill -KILL $$")).status, 0);
}

TEST(ExecGetOutput, GivesTheRawStatusWithoutWaitMode) {
  for (const TExec& plain : testexec::both_starts(shell("exit 3") ^ kWait))
    EXPECT_EQ(capture(plain).status, 3 << 8);
  EXPECT_EQ(capture(shell("kill -KILL $$") ^ kWait).status, SIGKILL);
  EXPECT_EQ(capture(command({"true"}) ^ kWait).status, 0);
}

TEST(ExecGetOutput, GivesTheStatusOfAStoppedProcessAndCollectsItLater) {
  std::string out;
  int status = -1;
  execGetOutput(&out, &status, shell("echo $$; exec >&-; kill -STOP $$; exit 9") ^ kWait);
  ASSERT_TRUE(WIFSTOPPED(status));
  EXPECT_EQ(WSTOPSIG(status), SIGSTOP);
  EXPECT_FALSE(testexec::childless());
  kill(stoi(out), SIGCONT);
  testexec::await_end_of_a_child();
  command({"true"}).execute();
  EXPECT_TRUE(testexec::childless());
}

TEST(ExecGetOutput, LeavesTheLineAsItWas) {
  const TExecsList line(command({"true"}));
  capture(line);
  EXPECT_FALSE(line.begin()->preparation());
}

TEST(ExecGetOutput, RunsNothingForAnEmptyLineAndWaitsForNoChild) {
  const pid_t other = fork();
  if (other == 0) _exit(5);
  testexec::await_end_of_a_child();
  const Captured captured = capture(TExecsList());
  EXPECT_EQ(captured.out, "");
  EXPECT_EQ(captured.status, 0);
  EXPECT_EQ(waitpid(other, nullptr, 0), other) << "the caller's child is still the caller's";
}

TEST(ExecGetOutput, ThrowsFailuresEvenWhereThePreparationKeepsThemQuiet) {
  // The capture is the second of two preparations, and its answer counts.
  const testsupport::ScratchDir scratch;
  auto* const recorder = new testexec::Recorder(scratch / "record");
  recorder->fork_answer = false;
  const Handle<TExec::TPrepare> quiet(recorder);
  const Outcome outcome = alone([&quiet] {
    testexec::limit_processes(1);
    capture(command({"true"}) * quiet);
  });
  EXPECT_EQ(outcome.exit_code(), testexec::kFailedInCaller);
  EXPECT_EQ(outcome.err, strerror(EAGAIN));
}

TEST(ExecGetOutput, LeavesErrnoAsItWasWhenItSucceeds) {
  for (const TExec& plain : {shell("exit 3"), shell("exit 3") ^ kWait}) {
    errno = 0;
    capture(plain);
    EXPECT_EQ(errno, 0);
  }
}

TEST(ExecGetOutput, MovesMoreThanAPipeHoldsWithoutWaitMode) {
  const testsupport::ScratchDir scratch;
  std::string text(64 << 20, '\n');
  for (size_t at = 0; at < text.size(); at += 16) {  // a loss shows, wherever it is
    const std::string position = std::to_string(at);
    text.replace(at, position.size(), position);
  }
  testsupport::write_file(scratch / "in", text);
  const TExec cat = command({"cat"}) ^ kWait;
  const Captured captured = capture((cat < (scratch / "in")) | cat | cat);
  EXPECT_EQ(captured.status, 0);
  EXPECT_TRUE(captured.out == text) << captured.out.size() << " bytes";
  EXPECT_TRUE(testexec::childless()) << "every process of the line has been waited for";
}

TEST(ExecGetOutput, BlocksInAWaitingModeWhenTheOutputDoesNotFitThePipe) {
  const auto captured_within = [](unsigned seconds, int bytes) {
    return alone([seconds, bytes] {
      alarm(seconds);
      capture(command({"head", "-c", std::to_string(bytes), "/dev/zero"}));
    });
  };
  EXPECT_EQ(captured_within(60, 65536).exit_code(), 0) << "a pipe's buffer holds 64 KiB";
  EXPECT_EQ(captured_within(2, 65537).exit_code(), -SIGALRM);
}

TEST(ExecGetOutput, WaitsForEarlierCommandsWithoutWaitMode) {
  const testsupport::ScratchDir scratch;
  const std::string file = scratch / "file";
  capture((shell("sleep 0.2; echo done > " + file) ^ kWait, command({"true"})));
  EXPECT_EQ(testsupport::read_file(file), "done\n");
  EXPECT_TRUE(testexec::childless());
}

TEST(ExecGetOutput, EndsAnEarlierCommandThatWouldWriteForEver) {
  const Captured captured =
      capture((command({"yes"}) ^ kWait) | (command({"head", "-n", "1"}) ^ kWait));
  EXPECT_EQ(captured.out, "y\n");
  EXPECT_TRUE(testexec::childless());
}

TEST(ExecGetOutput, LastsAsLongAsAProgramInTheBackgroundHoldsThePipe) {
  EXPECT_EQ(capture(shell("(sleep 0.1; echo late) & echo early")).out, "early\nlate\n");
  EXPECT_EQ(capture(shell("(sleep 0.1; echo late) > /dev/null & echo early")).out, "early\n");
}

TEST(ExecGetOutput, TakesAnInterruptedReadForTheEnd) {
  const testsupport::ScratchDir scratch;
  const Outcome outcome = alone([&scratch] {
    let_signals_interrupt(scratch);
    alarm(60);
    const std::string script = "echo early; " + interrupt(0) + "echo late; echo later";
    errno = 0;
    const Captured captured = capture(shell(script) ^ kWait);
    dprintf(STDOUT_FILENO, "%s", captured.out.c_str());
    _exit(signals == 1 && errno == 0 && testexec::childless() ? 30 : 31);
  });
  EXPECT_EQ(outcome.out, "early\n");
  EXPECT_EQ(outcome.exit_code(), 30) << outcome;
}

TEST(ExecGetOutput, LetsTheWriterEndByItselfAfterAnInterruptedRead) {
  const testsupport::ScratchDir scratch;
  const Outcome outcome = alone([&scratch] {
    let_signals_interrupt(scratch);
    alarm(60);  // the rest is more than a pipe holds
    const Captured captured = capture(shell(interrupt(0) + "head -c 200000 /dev/zero || exit 7; " +
                                            interrupt(1) + "echo; exit 6") ^
                                      kWait);
    _exit(captured.status == 6 << 8 && captured.out.empty() && signals == 2 &&
                  testexec::childless() && open_descriptors() == std::vector<int>{0, 1, 2}
              ? 30
              : 31);
  });
  EXPECT_EQ(outcome.exit_code(), 30) << outcome;
}

TEST(ExecGetOutput, WaitsForNobodyElseAfterAnInterruptedRead) {
  const testsupport::ScratchDir scratch;
  const Outcome outcome = alone([&scratch] {
    let_signals_interrupt(scratch);
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) _exit(32);
    alarm(60);  // the program in the background would hold the pipe for ever
    const TExec holding = shell("cat <&5 & " + kUntilCallerSleeps + "kill -USR1 $PPID; exit 6");
    const Captured captured = capture((holding & frask::sys::TRedirect(5, ends[0])) ^ kWait);
    _exit(captured.status == 6 << 8 && captured.out.empty() ? 30 : 31);
  });
  EXPECT_EQ(outcome.exit_code(), 30) << outcome;
}

TEST(ExecGetOutput, ClosesAPipeThatCannotBeReadAndWaitsAllTheSame) {
  /// From the start of the program on, every read() of the caller fails.
  class Unreadable : public TExec::TPrepare {
    void aft_fork4p(TExec&) override { exectest::answer_syscall(SYS_read, EIO); }
  };
  const auto status_of = [](const std::string& script) {
    const Outcome outcome = alone([&script] {
      alarm(60);
      TExec writer = shell(script) ^ kWait;
      writer += Handle<TExec::TPrepare>(new Unreadable);
      const Captured captured = capture(writer);
      dprintf(STDOUT_FILENO, "%d '%s' %d", captured.status, captured.out.c_str(),
              testexec::childless());
      _exit(0);
    });
    return outcome.out;
  };
  EXPECT_EQ(status_of("exit 6"), "1536 '' 1") << "a writer of nothing ends by itself";
  EXPECT_EQ(status_of("exec yes"), "13 '' 1") << "any other by SIGPIPE";
}

TEST(ExecGetOutput, RepeatsAnInterruptedWait) {
  const testsupport::ScratchDir scratch;
  const Outcome outcome = alone([&scratch] {
    let_signals_interrupt(scratch);
    alarm(60);
    const Captured captured =
        capture(shell("exec >&-; " + interrupt(0) + interrupt(1) + "exit 7") ^ kWait);
    _exit(captured.status == 7 << 8 && signals == 2 ? 30 : 31);
  });
  EXPECT_EQ(outcome.exit_code(), 30) << outcome;
}

TEST(ExecGetOutput, EndsWithAnEarlyReaderOfAProgramThatIsFedAText) {
  const Outcome outcome = testsupport::in_child([] {
    alarm(60);  // the program would write into a pipe that nobody reads, for ever
    const std::string text(size_t{4} << 20U, 'x');
    std::string out;
    int status = 0;
    frask::sys::execGetOutput(
        &out, &status, ((command({"cat"}) ^ kWait) << text) | (command({"head", "-c1"}) ^ kWait));
    printf("%zu", out.size());
  });
  EXPECT_EQ(outcome.out, "1") << outcome;
}

// Run by the test after it, under a tracer that makes the wait fail.
TEST(ExecGetOutput, DISABLED_FailsToWait) {
  try {
    capture(command({"true"}) ^ kWait);
  } catch (const frask::SystemError& error) {
    dprintf(STDOUT_FILENO, "[%d %s]", error.code(), error.what());
  }
}

TEST(ExecGetOutput, ThrowsWhenItCannotWait) {
  const Outcome outcome = testsupport::run_traced(
      {"-o", "/dev/null", "-e", "trace=wait4", "-e", "inject=wait4:error=EINVAL:when=1"},
      {std::filesystem::read_symlink("/proc/self/exe"), "--gtest_also_run_disabled_tests",
       "--gtest_filter=ExecGetOutput.DISABLED_FailsToWait"});
  EXPECT_NE(outcome.out.find("[22 waitpid() failed: Invalid argument]"), std::string::npos)
      << outcome;
}

TEST(ExecGetOutput, LeavesNoDescriptorWhenACommandThrows) {
  const std::vector<int> before = open_descriptors();
  const TExecsList line = (command({"true"}) | command({"true"}), TExec(frask::sys::el));
  EXPECT_THROW(capture(line), frask::sys::TSysErr);
  EXPECT_EQ(open_descriptors(), before);
}

TEST(ExecGetOutput, ClosesAPipeWithoutAReaderWithItsLine) {
  const std::vector<int> before = open_descriptors();
  {
    const TExecsList line = command({"true"}) | TExec(frask::sys::el);
    EXPECT_THROW(capture(line), frask::sys::TSysErr);
  }
  EXPECT_EQ(open_descriptors(), before);
}

TEST(OutputOperator, GivesTheOutput) {
  std::string out;
  EXPECT_EQ(&(out <<= command({"echo", "text"})), &out);
  EXPECT_EQ(out, "text\n");
  out <<= command({"echo", "more"}) | command({"cat"});
  EXPECT_EQ(out, "text\nmore\n");
}

TEST(OutputOperator, ThrowsForAnExitCodeWithTheOutputBehindIt) {
  EXPECT_EQ(failure_of(shell("printf x; exit 3") ^ kWait), "child failed (exit code=3): x");
  EXPECT_EQ(failure_of(shell("exit 255") ^ kWait), "child failed (exit code=255): ");
  EXPECT_EQ(failure_of(shell("printf x; exit 0") ^ kWait), "none: x");
}

TEST(OutputOperator, ThrowsForASignalWithTheRawStatus) {
  EXPECT_EQ(failure_of(shell("printf x; kill -KILL $$") ^ kWait), "child failed (status=9): x");
  const std::string stopped = failure_of(shell("echo $$; exec >&-; kill -STOP $$") ^ kWait);
  const std::string expected = "child failed (status=4991): ";
  ASSERT_EQ(stopped.substr(0, expected.size()), expected);
  kill(stoi(stopped.substr(expected.size())), SIGKILL);
}

TEST(OutputOperator, ThrowsAlikeForOneCommand) {
  std::string out;
  try {
    out <<= shell("printf x; exit 3") ^ kWait;
    FAIL() << "the command has failed";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "child failed (exit code=3): x");
  }
  EXPECT_EQ(out, "x");
}

TEST(OutputOperator, LooksAtTheLastCommandAlone) {
  EXPECT_EQ(failure_of((shell("exit 3") ^ kWait, shell("echo x") ^ kWait)), "none: x\n");
}

TEST(OutputOperator, SeesNoFailureInAWaitingMode) {
  EXPECT_EQ(failure_of(shell("printf x; exit 3")), "none: x");
}
