#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <string>

#include "exec/exec_support.h"
#include "exec/forkexec.h"
#include "log/c_string.private.h"
#include "support/scratch.h"

using exectest::kProbe;
using exectest::pattern;
using exectest::reported;
using frask::CString;
using testsupport::in_child;
using testsupport::Outcome;
using testsupport::read_file;
using testsupport::ScratchDir;

namespace {

char untouched[] = "untouched";

}  // namespace

TEST(PopenExecWithInput, WritesTheWholeInput) {
  const ScratchDir scratch;
  for (const size_t length : {0U, 1U, 4096U, 200000U}) {
    SCOPED_TRACE(length);
    const std::string input(length, 'x');
    EXPECT_EQ(popen_exec_with_input(("cat >" + (scratch / "copy")).c_str(), input.c_str()), 0);
    EXPECT_EQ(read_file(scratch / "copy"), input);
  }
}

TEST(PopenExecWithInput, ReturnsTheExitCode) {
  EXPECT_EQ(popen_exec_with_input("cat >/dev/null; exit 9", "text"), 9);
  EXPECT_EQ(popen_exec_with_input("cat >/dev/null; kill -KILL $$", "text"), 0);
}

TEST(PopenExecWithInput, ReportsACommandThatCannotBeStarted) {
  const Outcome outcome = in_child([] {
    exectest::leave_descriptors(1);
    if (popen_exec_with_input("true", "text") != -1) _exit(1);
  });
  EXPECT_TRUE(reported(outcome, 0,
                       "Failed to execute command with input: either pipe, fork or memory "
                       "allocation failed.\n"
                       "System error 24: Too many open files\n"));
}

// Only in a caller that ignores SIGPIPE; any other is ended by it.
TEST(PopenExecWithInput, ReportsAnInputThatIsNotTaken) {
  const Outcome outcome = in_child([] {
    signal(SIGPIPE, SIG_IGN);
    const std::string input(3000000, 'x');
    if (popen_exec_with_input("head -c 1 >/dev/null; exec <&-; exit 3", input.c_str()) != -1)
      _exit(1);
  });
  EXPECT_EQ(outcome.exit_code(), 0) << outcome;
  EXPECT_EQ(outcome.err, outcome.out);
  unsigned long written = 0;
  char rest[100] = "";
  // NOLINTNEXTLINE(cert-err34-c): the number comes from this program
  ASSERT_EQ(sscanf(outcome.out.c_str(),
                   "Failed to execute command with input: only %lu of 3000000 bytes were "
                   "written.\n%99[^\n]",
                   &written, rest),
            2)
      << outcome;
  EXPECT_LT(written, 3000000U);
  EXPECT_STREQ(rest, "System error 32: Broken pipe");
}

TEST(PopenExecWithInput, IsEndedByACommandThatDoesNotRead) {
  const Outcome outcome = in_child([] {
    const std::string input(3000000, 'x');
    popen_exec_with_input("exec <&-; exit 3", input.c_str());
  });
  EXPECT_EQ(outcome.exit_code(), -SIGPIPE);
}

TEST(PopenExecWithInput, FailsSilentlyWhenTheWaitFails) {
  const Outcome outcome = in_child([] {
    exectest::let_the_kernel_reap();
    if (popen_exec_with_input("cat >/dev/null", "text") != -1) _exit(1);
  });
  EXPECT_TRUE(reported(outcome, 0, ""));
}

TEST(PopenExecGetoutput, CapturesEveryByte) {
  for (const size_t length : {0U, 1U, 4095U, 4096U, 4097U, 8191U, 8192U, 8193U, 200000U}) {
    SCOPED_TRACE(length);
    const std::string command = std::string(kProbe) + " write " + std::to_string(length) + " 0";
    char* out = nullptr;
    EXPECT_EQ(popen_exec_getoutput(&out, command.c_str()), 0);
    const CString owner(out);
    ASSERT_NE(out, nullptr);
    EXPECT_TRUE(memcmp(out, pattern(length).c_str(), length + 1) == 0);
  }
}

TEST(PopenExecGetoutput, ReturnsTheExitCodeAndTheOutput) {
  char* out = nullptr;
  EXPECT_EQ(popen_exec_getoutput(&out, "echo text; exit 9"), 9);
  EXPECT_STREQ(out, "text\n");
  free(out);
  EXPECT_EQ(popen_exec_getoutput(&out, "echo text; kill -KILL $$"), 0);
  EXPECT_STREQ(out, "text\n");
  free(out);
}

TEST(PopenExecGetoutput, LeavesStandardErrorAlone) {
  const Outcome outcome = in_child([] {
    char* out = nullptr;
    if (popen_exec_getoutput(&out, "echo output; echo errors >&2") != 0) _exit(1);
    printf("captured %s", out);
    free(out);
  });
  EXPECT_EQ(outcome.out, "captured output\n");
  EXPECT_EQ(outcome.err, "errors\n");
}

TEST(PopenExecGetoutput, ReportsACommandThatCannotBeStarted) {
  const Outcome outcome = in_child([] {
    exectest::leave_descriptors(1);
    char* out = untouched;
    if (popen_exec_getoutput(&out, "true") != -1) _exit(1);
    if (errno != EMFILE) _exit(2);
    if (out != untouched) _exit(3);
  });
  EXPECT_EQ(outcome.exit_code(), 0);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err,
            "popen_exec: failed to execute command: fork or pipe calls failed, or cannot allocate "
            "memory\n");
}

TEST(PopenExecGetoutput, ReportsABufferThatCannotBeAllocated) {
  if (exectest::kAddressSanitizer)
    GTEST_SKIP() << "AddressSanitizer's allocator ends the process when the kernel refuses memory";
  const Outcome outcome = in_child([] {
    exectest::exhaust_memory(4097, 3000);  // the stream takes some of it
    char* out = untouched;
    if (popen_exec_getoutput(&out, "true") != -1) _exit(1);
    if (errno != ENOMEM) _exit(2);
    if (out != untouched) _exit(3);
  });
  EXPECT_EQ(outcome.exit_code(), 0) << outcome;
  EXPECT_EQ(outcome.err, "popen_exec: failed to allocate memory\n");
}

TEST(PopenExecGetoutput, DropsTheWholeTextWhenMemoryRunsOut) {
  const Outcome outcome = exectest::run_caller_with_little_memory({"popen", "exec yes"});
  EXPECT_EQ(outcome.exit_code(), 0) << outcome;
  EXPECT_EQ(outcome.out, "0 ''\n");
  // AddressSanitizer adds a warning of its own.
  EXPECT_NE(outcome.err.find(
                "popen_exec: warning: failed to allocate memory for command output buffer\n"),
            std::string::npos)
      << outcome;
}

TEST(PopenExecGetoutput, KeepsTheTextWhenTheWaitFails) {
  const Outcome outcome = in_child([] {
    exectest::let_the_kernel_reap();
    char* out = nullptr;
    printf("%d ", popen_exec_getoutput(&out, "echo text"));
    printf("%s", out);
    free(out);
  });
  EXPECT_EQ(outcome.out, "-1 text\n");
  EXPECT_EQ(outcome.err, "");
}

TEST(PopenExec, ShowsNothingOfASuccess) {
  const Outcome outcome = in_child([] {
    errno = EPERM;
    if (popen_exec("echo output") != 0) _exit(1);
  });
  EXPECT_TRUE(reported(outcome, 0, ""));
}

TEST(PopenExec, ReportsTheCodeAndTheOutput) {
  const Outcome outcome = in_child([] {
    errno = 0;
    if (popen_exec("echo output; exit 9") != 9) _exit(1);
    if (popen_exec("exit 255") != 255) _exit(2);
  });
  EXPECT_TRUE(reported(outcome, 0,
                       "popen_exec: command failed code: 9 , output\n\n"
                       "popen_exec: command failed code: 255 , error: none\n"));
}

TEST(PopenExec, AddsTheSystemErrorBehindAnEmptyLine) {
  const Outcome outcome = in_child([] {
    errno = ENOENT;
    popen_exec("exit 2");
  });
  EXPECT_TRUE(reported(outcome, 0,
                       "popen_exec: command failed code: 2 , error: none\n\n"
                       "System error 2: No such file or directory\n"));
}

TEST(PopenExec, ReadsDeathBySignalAsSuccess) {
  const Outcome outcome = in_child([] {
    if (popen_exec("kill -KILL $$") != 0) _exit(1);
    errno = 0;
    if (popen_exec("exit 9") != 9) _exit(2);
  });
  EXPECT_TRUE(reported(outcome, 0, "popen_exec: command failed code: 9 , error: none\n"))
      << "a plain failure must still be seen";
}

TEST(PopenExec, ReportsACommandThatCannotBeStarted) {
  const Outcome outcome = in_child([] {
    exectest::leave_descriptors(1);
    if (popen_exec("true") != -1) _exit(1);
  });
  const std::string text =
      "popen_exec: failed to execute command: Too many open files\n\n"
      "System error 24: Too many open files\n";
  EXPECT_EQ(outcome.exit_code(), 0);
  EXPECT_EQ(outcome.out, text);
  EXPECT_EQ(outcome.err,
            "popen_exec: failed to execute command: fork or pipe calls failed, or cannot allocate "
            "memory\n" +
                text);
}

TEST(PopenExec, ReportsAWaitThatFails) {
  const Outcome outcome = in_child([] {
    exectest::let_the_kernel_reap();
    if (popen_exec("echo output") != -1) _exit(1);
  });
  EXPECT_TRUE(reported(outcome, 0,
                       "popen_exec: failed to execute command: No child processes\n\n"
                       "System error 10: No child processes\n"));
}
