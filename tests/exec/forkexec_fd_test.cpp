#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "exec/exec_support.h"
#include "exec/forkexec.h"
#include "support/scratch.h"
#include "support/traced.h"

using exectest::Argv;
using exectest::kProbe;
using exectest::reported;
using exectest::shell;
using testsupport::in_child;
using testsupport::Outcome;
using testsupport::read_file;
using testsupport::ScratchDir;

namespace {

/// What the kernel gives `in` and `out` of a fork_execv_fd() that runs a shell script.
int run_script(int in, int out, const std::string& script) {
  return fork_execv_fd(in, out, "/bin/sh", shell(script).get());
}

std::string without_pid(const std::string& text) {
  return std::regex_replace(text, std::regex("pid:? [0-9]+"), "pid N");
}

/// The files "0", "1" and "2" of the scratch directory as standard descriptors, "8" to "10" above.
void open_numbered(const ScratchDir& scratch) {
  exectest::close_others();
  for (const int fd : {0, 1, 2, 8, 9, 10}) exectest::open_as(fd, scratch / std::to_string(fd));
}

/// What a program and its only child do, as strace shows it.
struct Trace {
  explicit Trace(const std::vector<std::string>& command) {
    const ScratchDir scratch;
    testsupport::run_traced({"-ff", "-s", "200", "-o", scratch / "trace", "-e",
                             "trace=execve,pipe2,read,write,close,wait4,exit_group"},
                            command);
    for (const auto& file : std::filesystem::directory_iterator(scratch.path())) {
      const std::string calls = read_file(file.path());
      (calls.find("pipe2(") != std::string::npos ? caller : child) = calls;
    }
  }

  std::string caller;
  std::string child;
};

}  // namespace

TEST(ForkExecvFd, RefusesOnlyItsOwnStandardDescriptors) {
  const ScratchDir scratch;
  const int refused[][2] = {{0, 5}, {4, 1}, {0, 1}};
  for (const auto& row : refused) {
    SCOPED_TRACE(testing::Message() << row[0] << " " << row[1]);
    const Outcome outcome = in_child([&] {
      errno = 0;
      const std::string script = "echo started >" + (scratch / "started");
      if (run_script(row[0], row[1], script) != -1) _exit(1);
    });
    EXPECT_TRUE(reported(outcome, 0, "values 0,1,2 not allowed for variables fd_in & fd_out\n"));
    EXPECT_FALSE(std::filesystem::exists(scratch / "started"));
  }
  const int accepted[][2] = {{8, 2}, {8, 0}, {1, 9}, {2, 9}, {1, 0}};
  for (const auto& row : accepted) {
    SCOPED_TRACE(testing::Message() << row[0] << " " << row[1]);
    const Outcome outcome = in_child([&] {
      open_numbered(scratch);
      _exit(run_script(row[0], row[1], "exit 7"));
    });
    EXPECT_EQ(outcome.exit_code(), 7);
  }
}

TEST(ForkExecvFd, AddsTheSystemErrorToARefusalBehindAnEmptyLine) {
  const Outcome outcome = in_child([] {
    errno = EPERM;
    run_script(0, 5, "exit 0");
  });
  EXPECT_TRUE(reported(outcome, 0,
                       "values 0,1,2 not allowed for variables fd_in & fd_out\n\n"
                       "System error 1: Operation not permitted\n"));
}

TEST(ForkExecvFd, WiresTheChild) {
  struct Row {
    int in;
    int out;
    const char* child;
  };
  const Row rows[] = {
      {8, 9, "0 @/8 rw\n1 @/9 rw\n2 pipe w\n"}, {8, 2, "0 @/8 rw\n1 @/2 rw\n2 pipe w\n"},
      {8, 0, "0 @/8 rw\n1 @/0 rw\n2 pipe w\n"}, {1, 0, "0 @/1 rw\n1 @/0 rw\n2 pipe w\n"},
      {8, 8, "0 @/8 rw\n1 @/8 rw\n2 pipe w\n"}, {-1, -1, "0 @/0 rw\n1 @/1 rw\n2 pipe w\n"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << row.in << " " << row.out);
    const ScratchDir scratch;
    const Argv argv({kProbe, "fds", scratch / "list"});
    const Outcome outcome = in_child([&] {
      open_numbered(scratch);
      _exit(fork_execv_fd(row.in, row.out, kProbe, argv.get()));
    });
    ASSERT_EQ(outcome.exit_code(), 0) << outcome;
    EXPECT_EQ(
        std::regex_replace(read_file(scratch / "list"), std::regex(scratch.path().string()), "@"),
        row.child);
  }
}

TEST(ForkExecvFd, CapturesErrorsAlsoWithoutStandardErrorOfItsOwn) {
  const ScratchDir scratch;
  const Argv argv({kProbe, "fds", scratch / "list"});
  const Outcome outcome = in_child([&] {
    exectest::close_others();
    close(2);
    _exit(fork_execv_fd(-1, -1, kProbe, argv.get()));
  });
  EXPECT_EQ(outcome.exit_code(), 0);
  EXPECT_NE(read_file(scratch / "list").find("\n2 pipe w\n"), std::string::npos);
}

TEST(ForkExecvFd, PassesWhatTheChildWritesToStandardErrorOn) {
  const Outcome outcome = in_child([] {
    errno = 0;
    _exit(run_script(-1, -1, "echo boom >&2; exit 4"));
  });
  EXPECT_TRUE(reported(outcome, 4, "boom\n"));
}

// A piece that does not end in a newline gets one.
TEST(ForkExecvFd, LogsEachPieceOfAtMost4095Bytes) {
  const Outcome outcome = in_child([] {
    errno = 0;
    _exit(fork_execv_fd(-1, -1, kProbe, Argv({kProbe, "complain", "5000"}).get()));
  });
  EXPECT_TRUE(reported(outcome, 0, std::string(4095, 'x') + "\n" + std::string(905, 'x') + "\n"));
}

TEST(ForkExecvFd, LogsAProgramThatCannotBeExecuted) {
  const Outcome outcome = in_child([] {
    printf("pending in the caller\n");
    errno = 0;
    _exit(fork_execv_fd(-1, -1, "/no/such/program", Argv({"program"}).get()));
  });
  EXPECT_EQ(outcome.exit_code(), 255);
  EXPECT_EQ(outcome.err, "Error occured during execv():\nNo such file or directory.\n");
  EXPECT_EQ(outcome.out,
            "pending in the caller\nError occured during execv():\nNo such file or directory.\n");
}

TEST(ForkExecvFd, HintsAtAMissingNullForABadVector) {
  const Outcome outcome = in_child([] {
    char* const argv[] = {reinterpret_cast<char*>(1), nullptr};
    errno = 0;
    _exit(fork_execv_fd(-1, -1, "/bin/true", argv));
  });
  EXPECT_TRUE(reported(outcome, 255,
                       "Error occured during execv():\nBad address, possible reason - NULL "
                       "parameter is absent in util_exec(path, arg1, arg2, NULL) call.\n"));
}

TEST(ForkExecvFd, ReportsDeathBySignal) {
  const Outcome outcome = in_child([] {
    errno = 0;
    if (run_script(-1, -1, "kill -TERM $$") != -1) _exit(1);
  });
  EXPECT_EQ(outcome.exit_code(), 0);
  EXPECT_EQ(without_pid(outcome.out), "The child process with pid N killed by signal 15\n");
  EXPECT_EQ(outcome.err, outcome.out);
}

TEST(ForkExecvFd, ReportsAStop) {
  const Outcome outcome = in_child([] {
    if (setpgid(0, 0) != 0) _exit(3);
    errno = 0;
    if (run_script(-1, -1, "exec 2>&-; kill -STOP $$; exit 3") != -1) _exit(1);
    siginfo_t info = {};
    kill(0, SIGCONT);  // the child is in this process's group, and nobody else
    if (waitid(P_ALL, 0, &info, WEXITED) != 0 || info.si_status != 3) _exit(2);
  });
  EXPECT_EQ(outcome.exit_code(), 0);
  EXPECT_EQ(without_pid(outcome.out), "The child process with pid N stopped by signal 19\n");
  EXPECT_EQ(outcome.err, outcome.out);
}

TEST(ForkExecvFd, ReportsAWaitThatFails) {
  const Outcome outcome = in_child([] {
    exectest::let_the_kernel_reap();
    if (run_script(-1, -1, "exit 3") != -1) _exit(1);
  });
  EXPECT_EQ(outcome.exit_code(), 0);
  EXPECT_EQ(without_pid(outcome.out),
            "Error occured during waiting the child process with pid N: No child processes\n\n"
            "System error 10: No child processes\n");
  EXPECT_EQ(outcome.err, outcome.out);
}

// The child's text is there to be read, but an interrupted read is the end.
TEST(ForkExecvFd, TakesAnInterruptedReadForTheEnd) {
  const Outcome outcome = in_child([] {
    alarm(60);                 // should it go on reading
    signal(SIGPIPE, SIG_IGN);  // the reader may be gone before the child writes
    exectest::answer_syscall(SYS_read, EINTR);
    const int result = fork_execv_fd(-1, -1, "/no/such/program", Argv({"program"}).get());
    dprintf(STDOUT_FILENO, "result %d", result);
    _exit(0);  // gcov and the search for leaks read at exit()
  });
  EXPECT_EQ(outcome.exit_code(), 0);
  EXPECT_EQ(outcome.out, "result 255");
  EXPECT_EQ(outcome.err, "");
}

TEST(ForkExecvFd, ClosesItsWriteEndBeforeItReadsAndItsReadEndBeforeItWaits) {
  const Trace trace({exectest::kCaller, "fd", "/no/such/program"});
  std::smatch ends;
  ASSERT_TRUE(std::regex_search(trace.caller, ends, std::regex("pipe2\\(\\[([0-9]+), ([0-9]+)\\]")))
      << trace.caller;
  const auto from = static_cast<size_t>(ends.position());
  const size_t closed = trace.caller.find("close(" + ends[2].str() + ")", from);
  const size_t read = trace.caller.find("read(" + ends[1].str() + ",", from);
  const size_t done = trace.caller.find("close(" + ends[1].str() + ")", read);
  const size_t waited = trace.caller.find("wait4(", from);
  ASSERT_NE(waited, std::string::npos) << trace.caller;
  EXPECT_LT(closed, read) << trace.caller;
  EXPECT_LT(read, done) << trace.caller;
  EXPECT_LT(done, waited) << trace.caller;
}

TEST(ForkExecvFd, WritesTheChildsReportAtOnceAndEndsItThen) {
  const Trace trace({exectest::kCaller, "fd", "/no/such/program"});
  const std::regex end(
      "execve\\(\"/no/such/program\".*ENOENT.*\n"
      "write\\(2, \"Error occured during execv\\(\\):\\\\nNo such file or directory.\\\\n\", 57\\) "
      "= "
      "57\n"
      "exit_group\\(255\\)");
  EXPECT_TRUE(std::regex_search(trace.child, end)) << trace.child;
}

TEST(ForkExecvFd, IsFatalWithoutAPipe) {
  const Outcome outcome = in_child([] {
    exectest::leave_descriptors(1);
    run_script(-1, -1, "exit 0");
    printf("not reached");
  });
  EXPECT_TRUE(reported(outcome, 1,
                       "fork_exec_fd pipe(): Too many open files\n"
                       "System error 24: Too many open files\n"));
}

TEST(ForkExecvFd, IsFatalWhenNoProcessCanBeStarted) {
  const Outcome outcome = in_child([] {
    exectest::forbid_forks();
    run_script(-1, -1, "exit 0");
    printf("not reached");
  });
  EXPECT_TRUE(reported(outcome, 1,
                       "Error occured during fork():\nResource temporarily unavailable\n"
                       "System error 11: Resource temporarily unavailable\n"));
}

// Every arrangement of three among the standard descriptors and those above.
TEST(PrepareFdsToExec, NeverOverwritesADescriptorThatIsStillToBePlaced) {
  const ScratchDir scratch;
  for (const int in : {0, 1, 2, 8})
    for (const int out : {0, 1, 2, 9})
      for (const int err : {0, 1, 2, 10}) {
        if (in != 0 && out == 0 && err == 0) continue;  // see the next test
        SCOPED_TRACE(testing::Message() << in << " " << out << " " << err);
        const Outcome outcome = in_child([&] {
          open_numbered(scratch);
          prepare_fds_to_exec(in, out, err);
          const std::string list = exectest::descriptors();
          testsupport::write_file(scratch / "list", list);
          _exit(0);
        });
        ASSERT_EQ(outcome.exit_code(), 0);
        const auto line = [&scratch](int target, int given) {
          return std::to_string(target) + " " + (scratch / std::to_string(given)) + " rw\n";
        };
        EXPECT_EQ(read_file(scratch / "list"), line(0, in) + line(1, out) + line(2, err));
      }
}

// Deliberate: standard input is looked at for one of the two only, and the other then gets what was
// put there.
TEST(PrepareFdsToExec, MovesStandardInputOutOfTheWayForOneOnly) {
  const ScratchDir scratch;
  const Outcome outcome = in_child([&] {
    open_numbered(scratch);
    prepare_fds_to_exec(8, 0, 0);
    const std::string list = exectest::descriptors();
    testsupport::write_file(scratch / "list", list);
    _exit(0);
  });
  ASSERT_EQ(outcome.exit_code(), 0);
  EXPECT_EQ(read_file(scratch / "list"), "0 " + (scratch / "8") + " rw\n1 " + (scratch / "0") +
                                             " rw\n2 " + (scratch / "8") + " rw\n");
}

TEST(PrepareFdsToExec, PassesOverDescriptorsThatAreNotOpen) {
  const ScratchDir scratch;
  const Outcome outcome = in_child([&] {
    open_numbered(scratch);
    prepare_fds_to_exec(-1, 77, 8);
    const std::string list = exectest::descriptors();
    testsupport::write_file(scratch / "list", list);
    _exit(0);
  });
  ASSERT_EQ(outcome.exit_code(), 0);
  EXPECT_EQ(read_file(scratch / "list"), "0 " + (scratch / "0") + " rw\n1 " + (scratch / "1") +
                                             " rw\n2 " + (scratch / "8") + " rw\n");
}
