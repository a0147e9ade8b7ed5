#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "exec/exec_support.h"
#include "exec/forkexec.h"
#include "support/exec_raw.h"
#include "support/private_mounts.h"
#include "support/scratch.h"

using exectest::Argv;
using exectest::install_libexec;
using exectest::install_utility;
using exectest::kProbe;
using exectest::reported;
using testsupport::in_child;
using testsupport::Outcome;
using testsupport::read_file;
using testsupport::ScratchDir;

// Fifty arguments, and their lines in the probe's list.
#define TEN "a", "b", "c", "d", "e", "f", "g", "h", "i", "j"
#define FIFTY TEN, TEN, TEN, TEN, TEN

namespace {

const std::string kTenLines = "a\nb\nc\nd\ne\nf\ng\nh\ni\nj\n";

std::string lines_of(int arguments) {
  std::string text;
  for (int i = 0; i < arguments; i += 10) text += kTenLines;
  return text.substr(0, static_cast<size_t>(arguments) * 2);
}

}  // namespace

TEST(ForkExecl, PassesEveryArgumentOn) {
  const ScratchDir scratch;
  const std::string list = scratch / "list";
  const std::string wanted = "name\nargs\n" + list + "\n" + lines_of(600);

  fork_exec_getres(
      fork_execl_pipes(0, 1, 2, kProbe, "name", "args", list.c_str(), FIFTY, FIFTY, FIFTY, FIFTY,
                       FIFTY, FIFTY, FIFTY, FIFTY, FIFTY, FIFTY, FIFTY, FIFTY, nullptr),
      "probe");
  EXPECT_EQ(read_file(list), wanted);

  char* out = nullptr;
  char* err = nullptr;
  EXPECT_EQ(fork_execl_getout(&out, kProbe, "name", "args", "-", FIFTY, FIFTY, FIFTY, nullptr), 0);
  EXPECT_EQ(out, "name\nargs\n-\n" + lines_of(150));
  free(out);
  EXPECT_EQ(
      fork_execl_getouterr(&out, &err, kProbe, "name", "args", "-", FIFTY, FIFTY, FIFTY, nullptr),
      0);
  EXPECT_EQ(out, "name\nargs\n-\n" + lines_of(150));
  EXPECT_STREQ(err, "");
  free(out);
  free(err);

  std::filesystem::remove(list);
  EXPECT_EQ(fork_execl_log(kProbe, "name", "args", list.c_str(), FIFTY, FIFTY, FIFTY, nullptr), 0);
  EXPECT_EQ(read_file(list), "name\nargs\n" + list + "\n" + lines_of(150));
}

TEST(ForkExecl, ReturnsWhatTheVectorFormReturns) {
  char* out = nullptr;
  char* err = nullptr;
  EXPECT_EQ(fork_execl_getout(&out, "/bin/sh", "sh", "-c", "echo text; exit 4", nullptr), 4);
  EXPECT_STREQ(out, "text\n");
  free(out);
  EXPECT_EQ(
      fork_execl_getouterr(&out, &err, "/bin/sh", "sh", "-c", "echo text >&2; exit 5", nullptr), 5);
  EXPECT_STREQ(out, "");
  EXPECT_STREQ(err, "text\n");
  free(out);
  free(err);
}

TEST(ForkExecl, LogsLikeTheVectorForm) {
  const Outcome outcome = in_child([] {
    errno = 0;
    if (fork_execl_log("/bin/sh", "sh", "-c", "echo text >&2; exit 5", nullptr) != 5) _exit(1);
  });
  EXPECT_TRUE(reported(outcome, 0, "/bin/sh execution failed:\ntext\n"));
}

TEST(ForkExecl, TakesAnEmptyVector) {
  const Outcome outcome = in_child([] {
    char* out = nullptr;
    _exit(fork_execl_getout(&out, "/no/such/program", nullptr));
  });
  EXPECT_EQ(outcome.exit_code(), 255);
}

TEST(ForkExecl, IsFatalWhenTheVectorDoesNotFitIntoMemory) {
  if (exectest::kAddressSanitizer)
    GTEST_SKIP() << "AddressSanitizer's allocator ends the process when the kernel refuses memory";
  const Outcome outcome = in_child([] {
    exectest::exhaust_memory(4600, 4400);  // the message takes 4096
    fork_execl_pipes(0, 1, 2, "/bin/true", "true", FIFTY, FIFTY, FIFTY, FIFTY, FIFTY, FIFTY, FIFTY,
                     FIFTY, FIFTY, FIFTY, FIFTY, FIFTY, nullptr);
    printf("not reached");
  });
  EXPECT_TRUE(reported(outcome, 1,
                       "malloc() failed: Cannot allocate memory\n"
                       "System error 12: Cannot allocate memory\n"));
}

TEST(PathExec, PutsThePathInFront) {
  const ScratchDir scratch;
  const std::string list = scratch / "list";
  EXPECT_EQ(path_exec(kProbe, "args", list.c_str(), "one", "two", nullptr), 0);
  EXPECT_EQ(read_file(list), std::string(kProbe) + "\nargs\n" + list + "\none\ntwo\n");
  EXPECT_EQ(path_exec("/bin/true", nullptr), 0);
}

TEST(PathExec, PassesNinetyNineArgumentsOnAtMost) {
  const ScratchDir scratch;
  const std::string list = scratch / "list";
  const std::string head = std::string(kProbe) + "\nargs\n" + list + "\n";
  EXPECT_EQ(path_exec(kProbe, "args", list.c_str(), FIFTY, TEN, TEN, TEN, TEN, "1", "2", "3", "4",
                      "5", "6", "7", nullptr),
            0);
  EXPECT_EQ(read_file(list), head + lines_of(90) + "1\n2\n3\n4\n5\n6\n7\n") << "99 fit";
  EXPECT_EQ(path_exec(kProbe, "args", list.c_str(), FIFTY, TEN, TEN, TEN, TEN, "1", "2", "3", "4",
                      "5", "6", "7", "8", nullptr),
            0);
  EXPECT_EQ(read_file(list), head + lines_of(90) + "1\n2\n3\n4\n5\n6\n7\n") << "the 100th does not";
}

TEST(PathExecRaw, TakesTheArgumentsFromAList) {
  const ScratchDir scratch;
  const std::string list = scratch / "list";
  EXPECT_EQ(testsupport::exec_raw(kProbe, "args", list.c_str(), "one", nullptr), 0);
  EXPECT_EQ(read_file(list), std::string(kProbe) + "\nargs\n" + list + "\none\n");
  EXPECT_EQ(testsupport::exec_raw(kProbe, "args", list.c_str(), FIFTY, FIFTY, FIFTY, nullptr), 0);
  EXPECT_EQ(read_file(list), std::string(kProbe) + "\nargs\n" + list + "\n" + lines_of(97));
  EXPECT_EQ(in_child([] { _exit(testsupport::exec_raw("/bin/false", nullptr)); }).exit_code(), 1);
}

TEST(PathExec, ReportsAFailure) {
  const Outcome outcome = in_child([] {
    if (path_exec("/bin/sh", "-c", "echo output; echo errors >&2; exit 6", nullptr) != 6) _exit(1);
  });
  EXPECT_EQ(outcome.out, "/bin/sh execution failed:\nerrors\n");
  EXPECT_EQ(outcome.err, "output\n/bin/sh execution failed:\nerrors\n");
}

TEST(UtilExec, RunsAUtilityByItsName) {
  const Outcome outcome = in_child([] {
    install_utility("useful");
    if (util_exec("useful", "args", "/mnt/list", "one", nullptr) != 0) _exit(1);
    printf("%s", read_file("/mnt/list").c_str());
    if (util_exec("useful", "exit", "9", nullptr) != 9) _exit(2);
  });
  EXPECT_EQ(outcome.exit_code(), 0) << outcome;
  EXPECT_EQ(outcome.out,
            "/usr/local/oxa/admin/sbin/useful\nargs\n/mnt/list\none\n"
            "/usr/local/oxa/admin/sbin/useful execution failed:\n");
}

TEST(UtilExec, DropsTheArgumentsBehindTheNinetyNinth) {
  const Outcome outcome = in_child([] {
    install_utility("useful");
    if (util_exec("useful", "args", "/mnt/list", FIFTY, FIFTY, FIFTY, nullptr) != 0) _exit(1);
    printf("%s", read_file("/mnt/list").c_str());
  });
  EXPECT_EQ(outcome.out, "/usr/local/oxa/admin/sbin/useful\nargs\n/mnt/list\n" + lines_of(97));
}

TEST(UtilExec, RefusesAPath) {
  const Outcome outcome = in_child([] {
    install_utility("useful");
    errno = 0;
    if (util_exec("../sbin/useful", "args", "/mnt/list", nullptr) != -1) _exit(1);
    if (util_exec_args("bin/x", Argv({"x", "args", "/mnt/list"}).get()) != -1) _exit(2);
    if (std::filesystem::exists("/mnt/list")) _exit(3);
  });
  EXPECT_TRUE(reported(outcome, 0,
                       "Utility name '../sbin/useful' is invalid. Use only utility name without "
                       "path.\n"
                       "Utility name 'bin/x' is invalid. Use only utility name without path.\n"));
}

TEST(UtilExec, AddsTheSystemErrorToARefusalWhenOneIsSet) {
  const Outcome outcome = in_child([] {
    errno = ENOENT;
    util_exec("a/b", nullptr);
  });
  EXPECT_TRUE(reported(outcome, 0,
                       "Utility name 'a/b' is invalid. Use only utility name without path.\n"
                       "System error 2: No such file or directory\n"));
}

TEST(UtilExec, CutsAPathThatIsTooLong) {
  const Outcome outcome = in_child([] {
    install_utility("useful");
    const std::string name(5000, 'x');
    if (util_exec(name.c_str(), nullptr) != 255) _exit(1);
  });
  const std::string prefix = "/usr/local/oxa/admin/sbin/";
  const std::string path = prefix + std::string(4095 - prefix.size(), 'x');
  EXPECT_TRUE(reported(outcome, 0,
                       path + " execution failed:\nfork_execv: execv(\"" + path +
                           "\") failed: File name too long\n"));
}

TEST(UtilLibexec, CutsAPathThatIsTooLong) {
  const Outcome outcome = in_child([] {
    if (util_libexec(std::string(5000, 'x').c_str(), nullptr) != 255) _exit(1);
  });
  const std::string prefix = "/usr/lib64/frask-9.0/";
  const std::string path = prefix + std::string(4095 - prefix.size(), 'x');
  EXPECT_TRUE(reported(outcome, 0,
                       path + " execution failed:\nfork_execv: execv(\"" + path +
                           "\") failed: No such file or directory\n"));
}

TEST(UtilExecArgs, PassesTheCallersVectorOn) {
  const Outcome outcome = in_child([] {
    install_utility("useful");
    std::vector<std::string> arguments = {"my own name", "args", "/mnt/list"};
    arguments.resize(150, "x");
    if (util_exec_args("useful", Argv(arguments).get()) != 0) _exit(1);
    printf("%s", read_file("/mnt/list").c_str());
  });
  std::string wanted = "my own name\nargs\n/mnt/list\n";
  for (int i = 3; i < 150; ++i) wanted += "x\n";
  EXPECT_EQ(outcome.out, wanted);
}

TEST(UtilLibexec, RunsAProgramByItsNameWhichMayBeAPath) {
  const Outcome outcome = in_child([] {
    install_libexec("bin/x");
    if (util_libexec("bin/x", "args", "/mnt/list", FIFTY, FIFTY, nullptr) != 0) _exit(1);
    printf("%s", read_file("/mnt/list").c_str());
  });
  EXPECT_EQ(outcome.exit_code(), 0) << outcome;
  EXPECT_EQ(outcome.out, "/usr/lib64/frask-9.0/bin/x\nargs\n/mnt/list\n" + lines_of(97));
}

TEST(UtilLibexec, ReportsAMissingProgram) {
  const Outcome outcome = in_child([] {
    if (util_libexec("no such", nullptr) != 255) _exit(1);
  });
  EXPECT_TRUE(reported(outcome, 0,
                       "/usr/lib64/frask-9.0/no such execution failed:\nfork_execv: "
                       "execv(\"/usr/lib64/frask-9.0/no such\") failed: No such file or "
                       "directory\n"));
}

TEST(ForkExecv, RunsThePathWithoutStandardDescriptorsOfTheCaller) {
  const ScratchDir scratch;
  const std::string list = scratch / "list";
  const Outcome outcome = in_child([&] {
    exectest::close_others();
    exectest::open_as(7, scratch / "more");
    _exit(fork_execv(kProbe, "fds", list.c_str(), nullptr));
  });
  EXPECT_EQ(outcome.exit_code(), 0);
  EXPECT_EQ(read_file(list),
            "0 /dev/null rw\n1 /dev/null rw\n2 /dev/null rw\n7 " + (scratch / "more") + " rw\n");
}

TEST(ForkExecv, PassesNinetyNineArgumentsOnAtMost) {
  const ScratchDir scratch;
  const std::string list = scratch / "list";
  EXPECT_EQ(fork_execv(kProbe, "args", list.c_str(), FIFTY, FIFTY, FIFTY, nullptr), 0);
  EXPECT_EQ(read_file(list), std::string(kProbe) + "\nargs\n" + list + "\n" + lines_of(97));
}

TEST(ForkExecv, ReturnsTheExitCodeOrOneForASignal) {
  EXPECT_EQ(fork_execv("/bin/sh", "-c", "exit 9", nullptr), 9);
  EXPECT_EQ(fork_execv("/bin/sh", "-c", "kill -KILL $$", nullptr), 1);
}

TEST(ForkExecv, ReadsAMissingProgramAsStatus255Silently) {
  const Outcome outcome = in_child([] {
    printf("pending in the caller");
    _exit(fork_execv("/no/such/program", nullptr));
  });
  EXPECT_EQ(outcome.exit_code(), 255);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err, "");
}

TEST(ForkExecv, WaitsForAnyChild) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);  // inherited: the started child blocks until the writer is gone
  const pid_t other = fork();
  ASSERT_GE(other, 0);
  if (other == 0) _exit(9);
  const std::string script = "read line <&" + std::to_string(ends[0]) + "; exit 3";
  EXPECT_EQ(fork_execv("/bin/sh", "-c", script.c_str(), nullptr), 9);
  ASSERT_EQ(write(ends[1], "go\n", 3), 3);
  int status = 0;
  ASSERT_GT(wait(&status), 0);
  EXPECT_EQ(WEXITSTATUS(status), 3);
  close(ends[0]);
  close(ends[1]);
}

TEST(ForkExecv, FailsWhenThereIsNothingToWaitFor) {
  const Outcome outcome = in_child([] {
    exectest::let_the_kernel_reap();
    printf("%d", fork_execv("/bin/true", nullptr));
  });
  EXPECT_EQ(outcome.out, "-1");
}

TEST(ForkExecv, IsFatalWhenNoProcessCanBeStarted) {
  const Outcome outcome = in_child([] {
    exectest::forbid_forks();
    fork_execv("/bin/true", nullptr);
    printf("not reached");
  });
  EXPECT_TRUE(reported(outcome, 1,
                       "fork_execv: fork() failed\n"
                       "System error 11: Resource temporarily unavailable\n"));
}

TEST(ForkExecv, RunsWithoutStandardDescriptorsWhereThereIsNoDevNull) {
  const ScratchDir scratch;
  const std::string list = scratch / "list";
  const Outcome outcome = in_child([&] {
    exectest::close_others();
    testsupport::enter_private_mounts();
    if (mount("tmpfs", "/dev", "tmpfs", 0, nullptr) != 0) _exit(97);
    _exit(fork_execv(kProbe, "fds", list.c_str(), nullptr));
  });
  EXPECT_EQ(outcome.exit_code(), 0) << outcome;
  EXPECT_EQ(read_file(list), "");
  EXPECT_EQ(outcome.err, "");
}
