#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <utility>

#include "exec/captures.h"
#include "exec/exec_support.h"
#include "exec/forkexec.h"
#include "log/c_string.private.h"
#include "support/scratch.h"
#include "support/traced.h"

using exectest::Argv;
using exectest::capture_both;
using exectest::capture_out;
using exectest::Captured;
using exectest::kCaller;
using exectest::kProbe;
using exectest::pattern;
using exectest::print;
using exectest::reported;
using exectest::shell;
using frask::CString;
using testsupport::in_child;
using testsupport::Outcome;
using testsupport::read_file;
using testsupport::ScratchDir;

namespace {

long count(const std::string& text, const std::string& what) {
  long found = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++found;
  return found;
}

/// Gives the process the files "in" and "err" of the scratch directory as standard input and error,
/// and "more" as descriptor 7, without the close-on-exec flag.
void open_all_but_output(const ScratchDir& scratch) {
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
    const CString owner(out);
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
    const CString out_owner(out);
    const CString err_owner(err);
    ASSERT_NE(out, nullptr);
    ASSERT_NE(err, nullptr);
    EXPECT_TRUE(memcmp(out, pattern(out_length).c_str(), out_length + 1) == 0);
    EXPECT_TRUE(memcmp(err, pattern(err_length).c_str(), err_length + 1) == 0);
  }
}

TEST(ForkExecvGetout, MakesWayForALargeOutputOnly) {
  const ScratchDir scratch;
  for (const long length : {12L, 1048575L, 1048576L, 9000000L}) {
    SCOPED_TRACE(length);
    // The last twelve come one by one: no read of a single byte needs a MiB.
    const std::string script = "head -c " + std::to_string(length - 12) +
                               " /dev/zero; for i in a b c d e f g h i j k l; do sleep 0.03; "
                               "printf $i; done";
    const Outcome outcome =
        testsupport::run_traced({"-o", scratch / "trace", "-e", "trace=fcntl,madvise"},
                                {kCaller, "getout", "/bin/sh", "-c", script});
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
  const CString owner(out);
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
    open_all_but_output(scratch);
    print(capture_out(argv));
  });
  EXPECT_EQ(outcome.out,
            "0|0 " + (scratch / "in") + " rw\n1 pipe w\n2 " + (scratch / "err") + " rw\n|\n");
}

TEST(ForkExecvGetouterr, CapturesOutputAndErrors) {
  const ScratchDir scratch;
  const Argv argv({kProbe, "fds", "-"});
  const Outcome outcome = in_child([&] {
    open_all_but_output(scratch);
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

TEST(ForkExecvGetouterr, GoesOnWithOneStreamWhenTheOtherIsClosed) {
  const Captured captured = capture_both(shell("exec >&-; sleep 0.2; echo late >&2; exit 2"));
  EXPECT_EQ(captured.result, 2);
  EXPECT_EQ(captured.out, "");
  EXPECT_EQ(captured.err, "late\n");
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
    exectest::allow_descriptors(1200);
    for (int fd = dup(0); fd <= 1100; fd = dup(0))
      if (fd < 0) _exit(97);
    print(capture_both(shell("echo output; echo errors >&2; exit 3")));
  });
  EXPECT_EQ(outcome.out, "3|output\n|errors\n\n") << outcome.err;
}
