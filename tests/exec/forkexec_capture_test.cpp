#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "exec/exec_support.h"
#include "exec/forkexec.h"
#include "support/scratch.h"

using exectest::Argv;
using exectest::kCaller;
using exectest::kProbe;
using exectest::pattern;
using exectest::RecordedLog;
using exectest::reported;
using exectest::shell;
using testsupport::in_child;
using testsupport::Outcome;
using testsupport::read_file;
using testsupport::ScratchDir;

namespace {

using Lines = std::vector<std::string>;

struct Free {
  void operator()(char* text) const { free(text); }
};
using Text = std::unique_ptr<char, Free>;

/// A result and what was captured; "(null)" for no text.
struct Captured {
  int result;
  std::string out;
  std::string err;
};

std::string shown(const Text& text) {
  return text == nullptr ? "(null)" : text.get();
}

char some_text[] = "set before the call";

Captured capture_out(const Argv& argv) {
  char* out = some_text;
  const int result = fork_execv_getout(&out, argv.path(), argv.get());
  return {result, shown(Text(out)), ""};
}

Captured capture_both(const Argv& argv) {
  char* out = some_text;
  char* err = some_text;
  const int result = fork_execv_getouterr(&out, &err, argv.path(), argv.get());
  return {result, shown(Text(out)), shown(Text(err))};
}

/// A named pipe: what reads it is held up until release().
class Gate {
 public:
  Gate() {
    if (mkfifo(path().c_str(), 0600) != 0) throw std::runtime_error("mkfifo failed");
  }
  std::string path() const { return scratch_ / "gate"; }
  void release() const { close(open(path().c_str(), O_WRONLY | O_CLOEXEC)); }

 private:
  ScratchDir scratch_;
};

long count(const std::string& text, const std::string& what) {
  long found = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++found;
  return found;
}

void print(const Captured& captured) {
  printf("%d|%s|%s\n", captured.result, captured.out.c_str(), captured.err.c_str());
}

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

/// Gives the process the files "in" and "err" of the scratch directory as standard input and error,
/// and "more" as descriptor 7, without the close-on-exec flag.
void open_files(const ScratchDir& scratch) {
  exectest::open_as(0, scratch / "in");
  exectest::open_as(2, scratch / "err");
  exectest::open_as(7, scratch / "more");
}

}  // namespace

TEST(ForkExecvGetout, CapturesEveryByte) {
  for (const size_t length :
       {0U, 1U, 2047U, 2048U, 4095U, 4096U, 4097U, 8191U, 8192U, 65536U, 1000000U}) {
    SCOPED_TRACE(length);
    const Argv argv({kProbe, "write", std::to_string(length), "0"});
    char* out = nullptr;
    EXPECT_EQ(fork_execv_getout(&out, kProbe, argv.get()), 0);
    const Text owner(out);
    ASSERT_NE(out, nullptr);
    EXPECT_TRUE(memcmp(out, pattern(length).c_str(), length + 1) == 0);
  }
}

TEST(ForkExecvGetouterr, CapturesEveryByteOfBothStreams) {
  const size_t kMany = size_t{64} << 20U;
  const std::pair<size_t, size_t> rows[] = {{0, 0},      {4095, 4096}, {4096, 4095},  {4097, 4097},
                                            {0, 100000}, {100000, 0},  {kMany, kMany}};
  for (const auto& [out_length, err_length] : rows) {
    SCOPED_TRACE(testing::Message() << out_length << " and " << err_length);
    const Argv argv({kProbe, "write", std::to_string(out_length), std::to_string(err_length)});
    char* out = nullptr;
    char* err = nullptr;
    EXPECT_EQ(fork_execv_getouterr(&out, &err, kProbe, argv.get()), 0);
    const Text out_owner(out);
    const Text err_owner(err);
    ASSERT_NE(out, nullptr);
    ASSERT_NE(err, nullptr);
    EXPECT_TRUE(memcmp(out, pattern(out_length).c_str(), out_length + 1) == 0);
    EXPECT_TRUE(memcmp(err, pattern(err_length).c_str(), err_length + 1) == 0);
  }
}

TEST(ForkExecvGetout, MakesWayForALargeOutputOnly) {
  const ScratchDir scratch;
  testsupport::RunOptions options;
  options.environment["ASAN_OPTIONS"] = "detect_leaks=0";
  for (const long length : {0L, 1048575L, 1048576L, 9000000L}) {
    SCOPED_TRACE(length);
    const Outcome outcome =
        testsupport::run({"strace", "-o", scratch / "trace", "-e", "trace=fcntl,madvise", kCaller,
                          "getout", kProbe, "write", std::to_string(length), "0"},
                         options);
    ASSERT_EQ(outcome.exit_code(), 0) << outcome.err;
    const std::string trace = read_file(scratch / "trace");
    const long mebibytes = length / 1048576;
    EXPECT_EQ(count(trace, "F_SETPIPE_SZ, 1048576)"), mebibytes > 0 ? 1 : 0) << trace;
    const long asked_for = count(trace, ", 1048576, MADV_POPULATE_WRITE) = 0");
    EXPECT_EQ(asked_for > 0, mebibytes > 0) << trace;
    EXPECT_LE(asked_for, mebibytes + 1) << "no more than the next read needs\n" << trace;
  }
}

TEST(ForkExecvGetout, CapturesALargeOutputAlsoWhereNoWayCanBeMade) {
  const Outcome outcome = in_child([] {
    const Argv argv({kProbe, "write", "5000000", "0"});
    exectest::answer_syscall(SYS_fcntl, EPERM, F_SETPIPE_SZ);
    exectest::answer_syscall(SYS_madvise, EINVAL);
    char* out = nullptr;
    const int result = fork_execv_getout(&out, kProbe, argv.get());
    const int error = errno;
    printf("%d, errno %d, %s", result, error,
           pattern(5000000).compare(0, 5000001, out, 5000000) == 0 ? "whole" : "damaged");
    free(out);
  });
  EXPECT_EQ(outcome.out, "0, errno 0, whole");
  EXPECT_EQ(outcome.err, "");
}

TEST(ForkExecvGetout, GivesAnEmptyTextForAChildThatWritesNothing) {
  char* out = nullptr;
  EXPECT_EQ(fork_execl_getout(&out, "/bin/true", "true", nullptr), 0);
  const Text owner(out);
  ASSERT_NE(out, nullptr);
  EXPECT_STREQ(out, "");
}

TEST(ForkExecvGetout, ReturnsTheExitCode) {
  EXPECT_EQ(capture_out(shell("echo text; exit 9")).result, 9);
  EXPECT_EQ(capture_both(shell("echo text; exit 254")).result, 254);
}

TEST(ForkExecvGetout, CapturesOutputOnly) {
  const ScratchDir scratch;
  const Argv argv({kProbe, "fds", "-"});
  const Outcome outcome = in_child([&] {
    open_files(scratch);
    print(capture_out(argv));
  });
  EXPECT_EQ(outcome.out,
            "0|0 " + (scratch / "in") + " rw\n1 pipe w\n2 " + (scratch / "err") + " rw\n|\n");
}

TEST(ForkExecvGetouterr, CapturesOutputAndErrors) {
  const ScratchDir scratch;
  const Argv argv({kProbe, "fds", "-"});
  const Outcome outcome = in_child([&] {
    open_files(scratch);
    print(capture_both(argv));
  });
  EXPECT_EQ(outcome.out, "0|0 " + (scratch / "in") + " rw\n1 pipe w\n2 pipe w\n|\n");
  const Captured captured = capture_both(shell("echo output; echo errors >&2; exit 3"));
  EXPECT_EQ(captured.result, 3);
  EXPECT_EQ(captured.out, "output\n");
  EXPECT_EQ(captured.err, "errors\n");
}

TEST(ForkExecvGetouterr, CapturesWhatAChildWithoutItsProgramSays) {
  const Captured captured = capture_both(Argv({"/no/such/program"}));
  EXPECT_EQ(captured.result, 255);
  EXPECT_EQ(captured.out, "");
  EXPECT_EQ(captured.err,
            "fork_execv: execv(\"/no/such/program\") failed: No such file or directory\n");
}

TEST(ForkExecvGetout, LeavesWhatAChildWithoutItsProgramSaysToTheCallersErrors) {
  const Outcome outcome = in_child([] { print(capture_out(Argv({"/no/such/program"}))); });
  EXPECT_EQ(outcome.out, "255||\n");
  EXPECT_EQ(outcome.err,
            "fork_execv: execv(\"/no/such/program\") failed: No such file or directory\n");
}

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

TEST(ForkExecvGetouterr, GoesOnWithOneStreamWhenTheOtherIsClosed) {
  const Captured captured = capture_both(shell("exec >&-; sleep 0.2; echo late >&2; exit 2"));
  EXPECT_EQ(captured.result, 2);
  EXPECT_EQ(captured.out, "");
  EXPECT_EQ(captured.err, "late\n");
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

TEST(ForkExecvGetouterr, IsFatalWithoutAPipe) {
  const char* kText =
      "fork_execv_getouterr: pipe() failed\n"
      "System error 24: Too many open files\n";
  for (const int left : {0, 1, 2, 3}) {
    SCOPED_TRACE(left);
    const Outcome outcome = in_child([left] {
      const Argv argv({"/bin/true"});
      exectest::leave_descriptors(left);
      capture_both(argv);
      printf("not reached");
    });
    EXPECT_TRUE(reported(outcome, 1, kText));
  }
  const Outcome outcome = in_child([] {
    const Argv argv({"/bin/true"});
    exectest::leave_descriptors(1);
    capture_out(argv);
  });
  EXPECT_TRUE(reported(outcome, 1, kText)) << "one pipe, and the text of the sister routine";
}

TEST(ForkExecvGetouterr, IsFatalWhenTheReadEndsCannotBeSet) {
  const std::function<void()> members[] = {[] { capture_out(Argv({"/bin/true"})); },
                                           [] { capture_both(Argv({"/bin/true"})); }};
  for (const auto& member : members) {
    const Outcome outcome = in_child([&member] {
      exectest::answer_syscall(SYS_fcntl, EPERM, F_SETFL);
      member();
      printf("not reached");
    });
    EXPECT_TRUE(reported(outcome, 1,
                         "fork_execv_getouterr: fcntl(O_NONBLOCK) failed\n"
                         "System error 1: Operation not permitted\n"));
  }
}

TEST(ForkExecvGetouterr, IsFatalWithoutAProcess) {
  const Outcome outcome = in_child([] {
    const Argv argv({"/bin/true"});
    exectest::forbid_forks();
    capture_both(argv);
    printf("not reached");
  });
  EXPECT_TRUE(reported(outcome, 1,
                       "fork_execv_pipes: fork() failed\n"
                       "System error 11: Resource temporarily unavailable\n"));
}

TEST(ForkExecvGetout, IsFatalWhenTheOutputDoesNotFitIntoMemory) {
  const Outcome outcome = exectest::run_caller_with_little_memory(
      {"getout", "/usr/bin/head", "-c", "64000000", "/dev/zero"});
  EXPECT_EQ(outcome.exit_code(), 1);
  const std::string text =
      "Cannot allocate memory\n"
      "System error 12: Cannot allocate memory\n";
  EXPECT_EQ(outcome.out, text);
  // AddressSanitizer adds a warning of its own.
  EXPECT_NE(outcome.err.find(text), std::string::npos) << outcome;
}

TEST(ForkExecvGetouterr, WorksWithoutStandardDescriptors) {
  for (unsigned closed = 1; closed < 8; ++closed) {
    SCOPED_TRACE(closed);
    const ScratchDir scratch;
    const Outcome outcome = in_child([&] {
      const Argv argv({kProbe, "write", "5000", "3"});
      for (int fd = 0; fd <= 2; ++fd)
        if ((closed >> static_cast<unsigned>(fd) & 1U) != 0) close(fd);
      char* out = nullptr;
      char* err = nullptr;
      if (fork_execv_getouterr(&out, &err, kProbe, argv.get()) != 0) _exit(1);
      if (memcmp(out, pattern(5000).c_str(), 5001) != 0) _exit(2);
      if (memcmp(err, pattern(3).c_str(), 4) != 0) _exit(3);
      char* again = nullptr;
      if (fork_execv_getout(&again, kProbe, Argv({kProbe, "write", "5000", "0"}).get()) != 0)
        _exit(4);
      if (memcmp(again, pattern(5000).c_str(), 5001) != 0) _exit(5);
      _exit(0);
    });
    EXPECT_EQ(outcome.exit_code(), 0);
  }
}

TEST(ForkExecvGetouterr, WorksAboveDescriptor1023) {
  const Outcome outcome = in_child([] {
    for (int fd = dup(0); fd <= 1100; fd = dup(0))
      if (fd < 0) _exit(97);
    print(capture_both(shell("echo output; echo errors >&2; exit 3")));
  });
  EXPECT_EQ(outcome.out, "3|output\n|errors\n\n");
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

TEST(ForkExecvLog, ShowsNothingOfASuccess) {
  const Outcome outcome = in_child([] {
    errno = EPERM;
    const Argv argv = shell("echo output; echo errors >&2");
    if (fork_execv_log("/bin/sh", argv.get(), 0) != 0) _exit(1);
  });
  EXPECT_TRUE(reported(outcome, 0, ""));
}

TEST(ForkExecvLog, ShowsBothStreamsOfAFailure) {
  const Outcome outcome = in_child([] {
    const Argv argv = shell("echo output; echo errors >&2; exit 3");
    if (fork_execv_log("/bin/sh", argv.get(), 0) != 3) _exit(1);
  });
  EXPECT_EQ(outcome.exit_code(), 0);
  EXPECT_EQ(outcome.err, "output\n/bin/sh execution failed:\nerrors\n");
  EXPECT_EQ(outcome.out, "/bin/sh execution failed:\nerrors\n");
}

TEST(ForkExecvLog, ShowsAnEmptyStreamOfErrorsAsEmpty) {
  const Outcome outcome = in_child([] {
    const Argv argv = shell("printf output; exit 3");
    if (fork_execv_log("/bin/sh", argv.get(), 0) != 3) _exit(1);
  });
  EXPECT_EQ(outcome.err, "output/bin/sh execution failed:\n");
  EXPECT_EQ(outcome.out, "/bin/sh execution failed:\n");
}

TEST(ForkExecvLog, SaysWhenThereIsNoStreamOfErrors) {
  const Gate gate;
  const Outcome outcome = in_child([&gate] {
    const Argv argv = shell("cat <" + gate.path() + " & exit 3");
    if (fork_execv_log("/bin/sh", argv.get(), 0) != 3) _exit(1);
  });
  EXPECT_TRUE(reported(outcome, 0, "/bin/sh execution failed (no output)\n"));
  gate.release();
}

TEST(ForkExecvLog, AddsTheSystemErrorOfAFailedWait) {
  const Gate gate;
  const Outcome outcome = in_child([&gate] {
    exectest::let_the_kernel_reap();
    const Argv argv = shell("cat <" + gate.path() + " &");
    if (fork_execv_log("/bin/sh", argv.get(), 0) != -1) _exit(1);
  });
  EXPECT_TRUE(reported(outcome, 0,
                       "/bin/sh execution failed (no output)\n"
                       "System error 10: No child processes\n"));
  gate.release();
}

TEST(ForkExecvLog, ShowsNothingWhenQuiet) {
  const Outcome outcome = in_child([] {
    const Argv argv = shell("echo output; echo errors >&2; exit 3");
    if (fork_execv_log("/bin/sh", argv.get(), 1) != 3) _exit(1);
  });
  EXPECT_TRUE(reported(outcome, 0, ""));
}

TEST(ForkExecvLog, ReportsAMissingProgram) {
  const Outcome outcome = in_child([] {
    if (fork_execv_log("/no/such/program", Argv({"x"}).get(), 0) != 255) _exit(1);
  });
  EXPECT_TRUE(reported(outcome, 0,
                       "/no/such/program execution failed:\nfork_execv: "
                       "execv(\"/no/such/program\") failed: No such file or directory\n"));
}

TEST(ReadToBuf, GrowsWhenTwoThousandAndFortyEightBytesAreLeft) {
  struct Row {
    int size;
    int len;
    int grown;
  };
  const Row rows[] = {
      {0, 0, 4096},        {4096, 2047, 4096},     {4096, 2048, 8192}, {4096, 4095, 8192},
      {4000, 1952, 8096},  {4097, 2048, 4097},     {4097, 2049, 8194}, {8192, 6143, 8192},
      {8192, 6144, 16384}, {65536, 65000, 131072},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << row.size << " bytes, " << row.len << " in use");
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const std::string text = pattern(60000);
    ASSERT_EQ(write(ends[1], text.data(), text.size()), 60000);
    close(ends[1]);
    char* buf =
        row.size == 0 ? nullptr : static_cast<char*>(calloc(1, static_cast<size_t>(row.size)));
    int size = row.size;
    int len = row.len;
    int fd = ends[0];
    read_to_buf(&fd, &buf, &size, &len);
    const Text owner(buf);
    EXPECT_EQ(size, row.grown);
    EXPECT_EQ(fd, ends[0]);
    const int taken = std::min(60000, row.grown - row.len - 1);
    EXPECT_EQ(len, row.len + taken) << "one byte is kept for the terminator";
    EXPECT_TRUE(memcmp(buf + row.len, text.data(), static_cast<size_t>(taken)) == 0);
    close(ends[0]);
  }
}

TEST(ReadToBuf, LeavesTheDescriptorWhenThereIsNothingYet) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
  char* buf = nullptr;
  int size = 0;
  int len = 0;
  int fd = ends[0];
  read_to_buf(&fd, &buf, &size, &len);
  EXPECT_EQ(errno, EAGAIN);
  const Text owner(buf);
  EXPECT_EQ(fd, ends[0]);
  EXPECT_EQ(size, 4096);
  EXPECT_EQ(len, 0);
  close(ends[0]);
  close(ends[1]);
}

TEST(ReadToBuf, ClosesTheDescriptorAtTheEnd) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  close(ends[1]);
  char* buf = nullptr;
  int size = 0;
  int len = 0;
  int fd = ends[0];
  read_to_buf(&fd, &buf, &size, &len);
  const Text owner(buf);
  EXPECT_EQ(fd, -1);
  EXPECT_EQ(fcntl(ends[0], F_GETFD), -1) << "it is closed";
  EXPECT_NE(buf, nullptr);
  EXPECT_EQ(len, 0);
}

TEST(ReadToBuf, ReportsAFailingReadAndClosesTheDescriptor) {
  const Outcome outcome = in_child([] {
    const int directory = open("/", O_RDONLY | O_DIRECTORY);
    char* buf = nullptr;
    int size = 0;
    int len = 0;
    int fd = directory;
    read_to_buf(&fd, &buf, &size, &len);
    const int error = errno;
    free(buf);
    printf("errno %d, fd %d, open %d, len %d\n", error, fd, fcntl(directory, F_GETFD), len);
  });
  EXPECT_EQ(outcome.out, "errno 0, fd -1, open -1, len 0\n");
  EXPECT_EQ(outcome.err, "fork_exec*: read(pipe) failed: Is a directory\n");
}

// Sizes are int: twice 1 GiB is none.
TEST(ReadToBuf, GrowsToTheLargestSizeAtMost) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  ASSERT_EQ(write(ends[1], "text", 4), 4);
  int size = 1 << 30;
  int len = size - 100;
  char* buf = nullptr;  // none yet, which spares the test a block of 1 GiB to be moved
  int fd = ends[0];
  read_to_buf(&fd, &buf, &size, &len);
  const Text owner(buf);
  EXPECT_EQ(size, INT_MAX);
  EXPECT_EQ(len, (1 << 30) - 96);
  EXPECT_EQ(memcmp(buf + len - 4, "text", 4), 0);
  len = INT_MAX - 3;
  ASSERT_EQ(write(ends[1], "long", 4), 4);
  read_to_buf(&fd, &buf, &size, &len);
  EXPECT_EQ(size, INT_MAX);
  EXPECT_EQ(len, INT_MAX - 1) << "used up to the terminator's byte";
  close(ends[0]);
  close(ends[1]);
}

TEST(ReadToBuf, IsFatalWhenTheLargestSizeIsFull) {
  const Outcome outcome = in_child([] {
    char* buf = nullptr;
    int size = INT_MAX;
    int len = INT_MAX - 1;
    int fd = 0;
    errno = 0;
    read_to_buf(&fd, &buf, &size, &len);
    printf("not reached");
  });
  EXPECT_TRUE(reported(outcome, 1,
                       "Cannot allocate memory\n"
                       "System error 12: Cannot allocate memory\n"));
}
