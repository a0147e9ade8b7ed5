#include "exec/forkexec.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <vector>

#include "exec/exec_support.h"
#include "support/private_mounts.h"
#include "support/scratch.h"
#include "support/traced.h"

using exectest::Argv;
using exectest::kProbe;
using exectest::RecordedLog;
using exectest::reported;
using exectest::shell;
using testsupport::in_child;
using testsupport::Outcome;
using testsupport::read_file;
using testsupport::ScratchDir;

namespace {

using Lines = std::vector<std::string>;

/// Gives the process the files "in", "out" and "err" of the scratch directory as its standard
/// descriptors, and "more" as descriptor 7, without the close-on-exec flag.
void open_files(const ScratchDir& scratch) {
  exectest::close_others();
  exectest::open_as(0, scratch / "in");
  exectest::open_as(1, scratch / "out");
  exectest::open_as(2, scratch / "err");
  exectest::open_as(7, scratch / "more");
}

int exit_code_of(pid_t pid) {
  int status = 0;
  if (waitpid(pid, &status, 0) != pid) return -1000;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

/// The descriptors of a child that is started with the given wiring; "@" stands for the scratch
/// directory.
std::string child_descriptors(const ScratchDir& scratch, int in, int out, int err) {
  const Argv argv({kProbe, "fds", scratch / "list"});
  const Outcome outcome = in_child([&] {
    open_files(scratch);
    exectest::open_as(8, scratch / "eight");
    exectest::open_as(9, scratch / "nine");
    exectest::open_as(10, scratch / "ten");
    const int code = exit_code_of(fork_execv_pipes(in, out, err, kProbe, argv.get()));
    if (code != 0) _exit(code);
  });
  if (outcome.exit_code() != 0) return "exit code " + std::to_string(outcome.exit_code());
  const std::regex directory(scratch.path().string());
  return std::regex_replace(read_file(scratch / "list"), directory, "@");
}

extern "C" void ignore_signal(int /*number*/) {}

/// Interrupts every blocking system call some milliseconds from now, and again and again.
void interrupt_often() {
  struct sigaction action = {};
  action.sa_handler = ignore_signal;
  sigaction(SIGALRM, &action, nullptr);
  const itimerval every = {{0, 20000}, {0, 20000}};
  setitimer(ITIMER_REAL, &every, nullptr);
}

/// The child's process id differs from run to run.
std::string without_pids(const std::string& text) {
  const std::string name =
      std::regex_replace(text, std::regex("waitpid\\([0-9]+\\)"), "waitpid(N)");
  return std::regex_replace(name, std::regex("=[0-9]+:"), "=N:");
}

}  // namespace

TEST(ForkExecvPipes, WiresTheChildAsGiven) {
  struct Row {
    int in;
    int out;
    int err;
    const char* child;
  };
  const Row rows[] = {
      {0, 1, 2, "0 @/in rw\n1 @/out rw\n2 @/err rw\n"},
      {8, 9, 10, "0 @/eight rw\n1 @/nine rw\n2 @/ten rw\n"},
      {-1, -1, -1, "0 /dev/null rw\n1 /dev/null rw\n2 /dev/null rw\n"},
      {8, -1, 2, "0 @/eight rw\n1 /dev/null rw\n2 @/err rw\n"},
      {0, 9, -1, "0 @/in rw\n1 @/nine rw\n2 /dev/null rw\n"},
      {-1, 1, 10, "0 /dev/null rw\n1 @/out rw\n2 @/ten rw\n"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << row.in << " " << row.out << " " << row.err);
    const ScratchDir scratch;
    EXPECT_EQ(child_descriptors(scratch, row.in, row.out, row.err), row.child);
  }
}

// Each of the three is wired in turn, and what was taken is closed, also when it is the caller's
// own standard descriptor.
TEST(ForkExecvPipes, TakesStandardDescriptorsLikeAllOthers) {
  struct Row {
    int in;
    int out;
    int err;
    const char* child;
  };
  const Row rows[] = {
      {1, 1, 2, "0 @/out rw\n2 @/err rw\n"},
      {2, 1, 2, "0 @/err rw\n1 @/out rw\n"},
      {0, 0, 2, "1 @/in rw\n2 @/err rw\n"},
      {0, 2, 2, "0 @/in rw\n1 @/err rw\n"},
      {0, 1, 1, "0 @/in rw\n2 @/out rw\n"},
      {0, 1, 0, "1 @/out rw\n2 @/in rw\n"},
      {8, 0, 2, "1 @/eight rw\n2 @/err rw\n"},
      {1, 0, 2, "1 @/out rw\n2 @/err rw\n"},
      {2, 0, 1, "2 @/err rw\n"},
      {1, -1, 2, "0 @/out rw\n1 /dev/null rw\n2 @/err rw\n"},
      {0, 2, -1, "0 @/in rw\n1 @/err rw\n2 /dev/null rw\n"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << row.in << " " << row.out << " " << row.err);
    const ScratchDir scratch;
    EXPECT_EQ(child_descriptors(scratch, row.in, row.out, row.err), row.child);
  }
}

TEST(ForkExecvPipes, GivesDevNullAlsoWhereAStandardDescriptorIsClosed) {
  for (int closed = 0; closed <= 2; ++closed) {
    SCOPED_TRACE(closed);
    const ScratchDir scratch;
    const Argv argv({kProbe, "fds", scratch / "list"});
    const Outcome outcome = in_child([&] {
      open_files(scratch);
      close(closed);
      _exit(exit_code_of(fork_execv_pipes(-1, -1, -1, kProbe, argv.get())));
    });
    ASSERT_EQ(outcome.exit_code(), 0) << outcome;
    EXPECT_EQ(read_file(scratch / "list"), "0 /dev/null rw\n1 /dev/null rw\n2 /dev/null rw\n");
  }
}

TEST(ForkExecvPipes, EndsTheChildWhenADescriptorIsGivenTwice) {
  const int rows[][3] = {{0, 8, 8}, {8, 8, 2}, {8, 1, 8}};
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row[0] << " " << row[1] << " " << row[2]);
    const Outcome outcome = in_child([&row] {
      const Argv argv({"/bin/true"});
      dup2(0, 8);
      _exit(exit_code_of(fork_execv_pipes(row[0], row[1], row[2], "/bin/true", argv.get())));
    });
    EXPECT_EQ(outcome.exit_code(), 255);
    EXPECT_EQ(outcome.err, "fork_execv: dup() failed: Bad file descriptor\n");
    EXPECT_EQ(outcome.out, "");
  }
}

TEST(ForkExecvPipes, EndsTheChildForADescriptorThatIsNotOpen) {
  const int rows[][3] = {{77, 1, 2}, {0, 77, 2}, {0, 1, 77}, {-2, 1, 2}, {0, -2, 2}, {-1, 77, 2}};
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row[0] << " " << row[1] << " " << row[2]);
    const Outcome outcome = in_child([&row] {
      const Argv argv({"/bin/true"});
      _exit(exit_code_of(fork_execv_pipes(row[0], row[1], row[2], "/bin/true", argv.get())));
    });
    EXPECT_EQ(outcome.exit_code(), 255);
    EXPECT_EQ(outcome.err, "fork_execv: dup() failed: Bad file descriptor\n");
    EXPECT_EQ(outcome.out, "");
  }
}

// A number that is free in the caller must not come to life through what the routine opens itself.
TEST(ForkExecvPipes, EndsTheChildForADescriptorThatOnlyDevNullWouldOpen) {
  const Outcome outcome = in_child([] {
    const Argv argv({"/bin/true"});
    exectest::close_others();
    _exit(exit_code_of(fork_execv_pipes(3, -1, 2, "/bin/true", argv.get())));
  });
  EXPECT_EQ(outcome.exit_code(), 255);
  EXPECT_EQ(outcome.err, "fork_execv: dup() failed: Bad file descriptor\n");
}

TEST(ForkExecvPipes, ReportsAFailureOnTheStandardErrorThatTheChildHasByThen) {
  const ScratchDir scratch;
  const Outcome outcome = in_child([&scratch] {
    const Argv argv({"/no/such/program"});
    exectest::open_as(8, scratch / "errors");
    _exit(exit_code_of(fork_execv_pipes(0, 1, 8, "/no/such/program", argv.get())));
  });
  EXPECT_EQ(outcome.exit_code(), 255);
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(read_file(scratch / "errors"),
            "fork_execv: execv(\"/no/such/program\") failed: No such file or directory\n");
}

TEST(ForkExecvPipes, EndsTheChildWhenDevNullCannotBeOpened) {
  const int rows[][3] = {{-1, 1, 2}, {0, -1, 2}, {0, 1, -1}};
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row[0] << " " << row[1] << " " << row[2]);
    const Outcome full = in_child([&row] {
      const Argv argv({"/bin/true"});
      exectest::leave_descriptors(0);
      _exit(exit_code_of(fork_execv_pipes(row[0], row[1], row[2], "/bin/true", argv.get())));
    });
    EXPECT_EQ(full.exit_code(), 255);
    EXPECT_EQ(full.err, "fork_execv: dup() failed: Too many open files\n");
    const Outcome missing = in_child([&row] {
      const Argv argv({"/bin/true"});
      testsupport::enter_private_mounts();
      if (mount("tmpfs", "/dev", "tmpfs", 0, nullptr) != 0) _exit(97);
      _exit(exit_code_of(fork_execv_pipes(row[0], row[1], row[2], "/bin/true", argv.get())));
    });
    EXPECT_EQ(missing.exit_code(), 255);
    EXPECT_EQ(missing.err, "fork_execv: dup() failed: No such file or directory\n");
  }
}

TEST(ForkExecvPipes, FindsRoomForDevNullWhereATakenDescriptorMadeIt) {
  const Outcome outcome = in_child([] {
    const Argv argv({kProbe, "fds", "-"});
    exectest::leave_descriptors(1);
    const int last = dup(0);
    _exit(exit_code_of(fork_execv_pipes(last, 1, -1, kProbe, argv.get())));
  });
  EXPECT_EQ(outcome.exit_code(), 0) << outcome;
  EXPECT_NE(outcome.out.find("2 /dev/null rw\n"), std::string::npos) << outcome;
}

TEST(ForkExecvPipes, EndsTheChildWhoseProgramCannotBeExecuted) {
  const ScratchDir scratch;
  testsupport::write_file(scratch / "plain", "no program", 0644);
  testsupport::write_file(scratch / "text", "no interpreter line", 0755);
  const std::pair<std::string, const char*> rows[] = {
      {scratch / "missing", "No such file or directory"},
      {scratch / "plain", "Permission denied"},
      {scratch / "text", "Exec format error"},
      {"true", "No such file or directory"},  // never searched for
  };
  for (const auto& [path, error] : rows) {
    SCOPED_TRACE(path);
    const Outcome outcome = in_child([&path = path] {
      printf("pending in the caller");
      const Argv argv({"name"});
      _exit(exit_code_of(fork_execv_pipes(0, 1, 2, path.c_str(), argv.get())));
    });
    EXPECT_EQ(outcome.exit_code(), 255);
    EXPECT_EQ(outcome.err, "fork_execv: execv(\"" + path + "\") failed: " + error + "\n");
    EXPECT_EQ(outcome.out, "") << "the child must not flush what the caller has pending";
  }
}

TEST(ForkExecvPipes, IsFatalWhenNoProcessCanBeStarted) {
  const Outcome outcome = in_child([] {
    const Argv argv({"/bin/true"});
    exectest::forbid_forks();
    fork_execv_pipes(0, 1, 2, "/bin/true", argv.get());
    printf("not reached");
  });
  EXPECT_TRUE(reported(outcome, 1,
                       "fork_execv_pipes: fork() failed\n"
                       "System error 11: Resource temporarily unavailable\n"));
}

TEST(ForkExecvPipes, ReturnsWhileTheChildRuns) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const Argv argv = shell("read line; exit 5");
  const pid_t pid = fork_execv_pipes(ends[0], 1, 2, "/bin/sh", argv.get());
  ASSERT_GT(pid, 0);
  EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), 0) << "it reads from a pipe that is still empty";
  EXPECT_EQ(fcntl(ends[0], F_GETFD), FD_CLOEXEC) << "the caller's own copy stays";
  close(ends[0]);
  close(ends[1]);
  EXPECT_EQ(exit_code_of(pid), 5);
}

TEST(ForkExecvPipes, LeavesNoDescriptorInTheCaller) {
  const std::vector<int> before = testsupport::open_descriptors();
  for (const char* path : {"/bin/true", "/no/such/program"}) {
    const Argv argv({path});
    EXPECT_GE(exit_code_of(fork_execv_pipes(-1, -1, -1, path, argv.get())), 0);
  }
  EXPECT_EQ(testsupport::open_descriptors(), before);
}

// A process of 512 MiB needs more than forty times as long for a fork.
TEST(ForkExecvPipes, SharesTheCallersMemoryUntilExec) {
  const ScratchDir scratch;
  const Outcome outcome = testsupport::run_traced(
      {"-f", "-e", "trace=fork,vfork,clone,clone3", "-o", scratch / "trace"},
      {exectest::kCaller, "getout", "/bin/echo", "hello"});
  ASSERT_EQ(outcome.exit_code(), 0) << outcome;
  ASSERT_EQ(outcome.out, "hello\n");
  const std::string trace = read_file(scratch / "trace");
  const std::regex shared("CLONE_VM\\|CLONE_VFORK");
  const std::regex started("(fork|clone3?)\\(");
  EXPECT_TRUE(std::regex_search(trace, shared)) << trace;
  EXPECT_EQ(std::distance(std::sregex_iterator(trace.begin(), trace.end(), started), {}), 1)
      << trace;
}

TEST(ForkExecWaitpid, ReturnsTheExitCodeAndTheRawStatus) {
  const RecordedLog log;
  for (const int code : {0, 1, 9, 255}) {
    const Argv argv({kProbe, "exit", std::to_string(code)});
    int status = -1;
    errno = EPERM;
    EXPECT_EQ(fork_exec_waitpid(fork_execv_pipes(0, 1, 2, kProbe, argv.get()), "probe", &status),
              code);
    EXPECT_EQ(status, code << 8);
    EXPECT_EQ(errno, 0);
  }
  EXPECT_EQ(log.lines(), Lines{});
}

TEST(ForkExecWaitpid, TakesANegativePidForAFailedFork) {
  const RecordedLog log;
  int status = 4711;
  EXPECT_EQ(fork_exec_waitpid(-1, nullptr, nullptr), -1);
  EXPECT_EQ(fork_exec_waitpid(-5, "probe", &status), -1);
  EXPECT_EQ(status, 4711);
  EXPECT_EQ(log.lines(), (Lines{"3: fork before spawning '<unknown>' failed",
                                "3: fork before spawning 'probe' failed"}));
}

TEST(ForkExecWaitpid, LogsAWaitThatFails) {
  const RecordedLog log;
  const pid_t gone = fork_execl_pipes(0, 1, 2, "/bin/true", "true", nullptr);
  ASSERT_EQ(exit_code_of(gone), 0);
  EXPECT_EQ(fork_exec_waitpid(gone, "probe", nullptr), -1);
  EXPECT_EQ(log.lines(), (Lines{"3: waitpid(" + std::to_string(gone) +
                                ") for 'probe' process failed: No child processes (10)"}));
}

TEST(ForkExecWaitpid, LogsAnInterruptedWait) {
  const Outcome outcome = in_child([] {
    const RecordedLog log;
    const pid_t pid = fork_execl_pipes(0, 1, 2, "/bin/sleep", "sleep", "600", nullptr);
    interrupt_often();
    printf("%d\n", fork_exec_waitpid(pid, "probe", nullptr));
    kill(pid, SIGKILL);
    for (const std::string& line : log.lines()) printf("%s\n", line.c_str());
  });
  EXPECT_EQ(without_pids(outcome.out),
            "-1\n3: waitpid(N) for 'probe' process failed: Interrupted system call (4)\n");
}

TEST(ForkExecWaitpid, LogsAWaitThatReturnsZero) {
  const Outcome outcome = in_child([] {
    const RecordedLog log;
    const pid_t pid = fork_execl_pipes(0, 1, 2, "/bin/true", "true", nullptr);
    exectest::answer_syscall(SYS_wait4, 0);
    printf("%d\n", fork_exec_waitpid(pid, nullptr, nullptr));
    for (const std::string& line : log.lines()) printf("%s\n", line.c_str());
    fflush(stdout);
    _exit(0);  // a search for leaks at exit() waits for its own processes
  });
  EXPECT_EQ(without_pids(outcome.out),
            "-1\n3: waitpid(N) for '<unknown>' process returned unexpected 0 code\n");
}

TEST(ForkExecWaitpid, LogsDeathBySignal) {
  const RecordedLog log;
  const pid_t pid = fork_execv_pipes(0, 1, 2, "/bin/sh", shell("kill -KILL $$").get());
  int status = 0;
  EXPECT_EQ(fork_exec_waitpid(pid, "probe", &status), -1);
  EXPECT_EQ(status, SIGKILL);
  const std::string number = std::to_string(pid);
  EXPECT_EQ(log.lines(), (Lines{"4: waitpid(" + number + ")=" + number +
                                ": process 'probe' killed by signal 9"}));
}

TEST(ForkExecWaitpid, LogsAStop) {
  const RecordedLog log;
  const pid_t pid = fork_execv_pipes(0, 1, 2, "/bin/sh", shell("kill -STOP $$; exit 3").get());
  int status = 0;
  EXPECT_EQ(fork_exec_waitpid(pid, "probe", &status), -1);
  EXPECT_EQ(status, 0x137f);
  const std::string number = std::to_string(pid);
  EXPECT_EQ(log.lines(), (Lines{"4: waitpid(" + number + ")=" + number +
                                ": process 'probe' stopped by signal 19"}));
  kill(pid, SIGCONT);
  EXPECT_EQ(fork_exec_waitpid(pid, "probe", nullptr), 3) << "a continued child is not reported";
  EXPECT_EQ(log.lines().size(), 1U);
}

// The kernel gives no such status to a wait without WCONTINUED, so it is put into its answer.
TEST(ForkExecWaitpid, LogsAContinuationAndPassesOverAnUnknownStatus) {
  const std::pair<const char*, const char*> rows[] = {
      {"ffff0000", "waitpid(N)=N: process 'child' continued\nresult -1 status ffff\n"},
      {"ff000000", "result -1 status 00ff\n"},
  };
  for (const auto& [bytes, text] : rows) {
    SCOPED_TRACE(bytes);
    const std::string inject = std::string("inject=wait4:poke_exit=@arg2=") + bytes;
    const Outcome outcome = testsupport::run_traced(
        {"-o", "/dev/null", "-e", "trace=wait4", "-e", inject}, {exectest::kCaller, "wait"});
    ASSERT_EQ(outcome.exit_code(), 0) << outcome;
    EXPECT_EQ(without_pids(outcome.out), text);
  }
}

TEST(ForkExecGetres, GivesMinusOneForAFailedForkWithoutAReport) {
  const RecordedLog log;
  EXPECT_EQ(fork_exec_getres(-1, "probe"), -1);
  EXPECT_EQ(log.lines(), Lines{});
  EXPECT_EQ(fork_exec_getres(-2, "probe"), -1);
  EXPECT_EQ(log.lines(), (Lines{"3: fork before spawning 'probe' failed"}));
}

TEST(ForkExecGetres, WaitsForTheChild) {
  EXPECT_EQ(
      fork_exec_getres(fork_execl_pipes(0, 1, 2, kProbe, "probe", "exit", "6", nullptr), "probe"),
      6);
}

TEST(DoExec, ReturnsTheRawStatusWord) {
  EXPECT_EQ(do_exec(kProbe, Argv({"probe", "exit", "3"}).get()), 3 << 8);
  EXPECT_EQ(do_exec("/bin/sh", shell("kill -KILL $$").get()), SIGKILL);
  EXPECT_EQ(do_exec("/bin/true", Argv({"true"}).get()), 0);
}

TEST(DoExec, GivesTheChildEveryDescriptor) {
  const ScratchDir scratch;
  const Argv argv({kProbe, "fds", scratch / "list"});
  const Outcome outcome = in_child([&] {
    open_files(scratch);
    _exit(do_exec(kProbe, argv.get()));
  });
  ASSERT_EQ(outcome.exit_code(), 0) << outcome;
  EXPECT_EQ(read_file(scratch / "list"), "0 " + (scratch / "in") + " rw\n1 " + (scratch / "out") +
                                             " rw\n2 " + (scratch / "err") + " rw\n7 " +
                                             (scratch / "more") + " rw\n");
}

TEST(DoExec, ReadsAMissingProgramAsStatus255Silently) {
  const Outcome outcome = in_child([] {
    printf("pending in the caller");
    const int status = do_exec("/no/such/program", Argv({"program"}).get());
    printf(" status %04x", static_cast<unsigned>(status));
  });
  EXPECT_EQ(outcome.out, "pending in the caller status ff00");
  EXPECT_EQ(outcome.err, "");
}

TEST(DoExec, ReturnsTheStatusBeforeWhenTheWaitFails) {
  const Outcome outcome = in_child([] {
    const Argv argv({kProbe, "exit", "3"});
    const Argv other({kProbe, "exit", "4"});
    printf("%d ", do_exec(kProbe, argv.get()));
    exectest::let_the_kernel_reap();
    printf("%d", do_exec(kProbe, other.get()));
  });
  EXPECT_EQ(outcome.out, "768 768");
}

TEST(DoExec, IsFatalWhenNoProcessCanBeStarted) {
  const Outcome outcome = in_child([] {
    exectest::forbid_forks();
    do_exec("/bin/true", Argv({"true"}).get());
    printf("not reached");
  });
  EXPECT_TRUE(reported(outcome, 1,
                       "Unable to fork\n"
                       "System error 11: Resource temporarily unavailable\n"));
}
