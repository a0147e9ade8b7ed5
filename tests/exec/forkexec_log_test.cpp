#include <errno.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "exec/captures.h"
#include "exec/exec_support.h"
#include "exec/forkexec.h"

using exectest::Argv;
using exectest::Gate;
using exectest::reported;
using exectest::shell;
using testsupport::in_child;
using testsupport::Outcome;

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
