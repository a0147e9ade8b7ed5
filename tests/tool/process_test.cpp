// What the process takes from whoever starts it, and what its end looks like.
#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <set>

#include "support/traced.h"
#include "tool/tool_fixture.h"

namespace fs = std::filesystem;
using testsupport::Outcome;
using testsupport::read_file;
using testsupport::write_file;

namespace {

constexpr unsigned int kOther = 65533;

class Process : public StoreTest {
 protected:
  /// A "tar" of the test's own stands before the system's, and leaves in "seen" what it sees.
  void install_with_tar(const std::string& script) const {
    write_file(at("bin/tar"), "#!/bin/sh\n" + script + "\n", 0755);
    write_file(at("a.tar"), "");
    fs::permissions(at(""), fs::perms(0755));
  }

  std::vector<std::string> install_words() const {
    return {"--install-skel", "--force-type", "tar", "--filename", at("a.tar"), "--id", "7"};
  }

  void use_own_tar() const { setenv("PATH", (at("bin") + ":/usr/bin:/bin").c_str(), 1); }
};

/// Standard output becomes a pipe that nobody reads.
void break_output() {
  int ends[2];
  signal(SIGPIPE, SIG_DFL);
  if (pipe(ends) != 0 || dup2(ends[1], STDOUT_FILENO) < 0 || close(ends[0]) != 0) _exit(97);
}

}  // namespace

TEST_F(Process, PutsNothingInThePlaceOfClosedStandardDescriptors) {
  // In a process of its own: a shell redirects itself for a command.
  ASSERT_NO_FATAL_FAILURE(install_with_tar(
      "(readlink /proc/$$/fd/0 /proc/$$/fd/1 /proc/$$/fd/2 > " + at("seen") + "); true"));
  for (const std::set<int>& closed : {std::set<int>{}, {0}, {1}, {2}, {0, 1, 2}}) {
    SCOPED_TRACE(testing::PrintToString(closed));
    std::string expected;
    for (const int fd : {0, 1, 2})
      expected += closed.count(fd) == 0 ? "/memfd:captured (deleted)\n" : "/dev/null\n";
    const Outcome outcome = prepared(
        [&] {
          use_own_tar();
          for (const int fd : closed) close(fd);
        },
        install_words());
    EXPECT_EQ(outcome, (Outcome{closed.count(1) == 0 ? "0\n" : "", "", 0}));
    EXPECT_EQ(read_file(at("seen")), expected);
  }
}

TEST_F(Process, ReportsNoClosedDescriptorAsAnError) {
  EXPECT_EQ(prepared([] { close(0); }, {"--remove-skel"}),
            fatal("Error: parameter 'id' wasn't specified"));
  const std::string report = "tembrix: Error: parameter 'id' wasn't specified\n";
  EXPECT_EQ(prepared([] { close(1); }, {"--remove-skel"}), (Outcome{"", report, 1 << 8}));
  EXPECT_EQ(prepared([] { close(2); }, {"--remove-skel"}), (Outcome{report, "", 1 << 8}));
}

TEST_F(Process, EndsWhereAClosedDescriptorCannotBeReplaced) {
  write_file(store("7") + "/file", "kept");
  const auto without_devices = [] {
    close(0);
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/dev", "tmpfs", 0, nullptr) != 0) _exit(97);
  };
  EXPECT_EQ(prepared(without_devices, {"--remove-skel", "--id", "7"}),
            fatal("Unable to open /dev/null: No such file or directory\n"
                  "System error 2: No such file or directory"));
  EXPECT_EQ(read_file(store("7") + "/file"), "kept");
}

TEST_F(Process, HasDoneItsWorkWhereNobodyReadsTheAnswer) {
  write_file(store("7") + "/file", "");
  EXPECT_EQ(prepared(break_output, {"--remove-skel", "--id", "7"}), (Outcome{"", "", SIGPIPE}));
  EXPECT_FALSE(fs::exists(store("7")));
}

TEST_F(Process, EndsAsEverWhereNobodyReadsTheAnswerAndSigpipeIsIgnored) {
  const auto ignoring = [] {
    break_output();
    signal(SIGPIPE, SIG_IGN);
  };
  EXPECT_EQ(prepared(ignoring, {"--remove-skel", "--id", "7"}), (Outcome{"", "", 0}));
  EXPECT_EQ(prepared(ignoring, {"--remove-skel"}),
            (Outcome{"", "tembrix: Error: parameter 'id' wasn't specified\n", 1 << 8}));
}

TEST_F(Process, WritesReportsToStandardErrorBeforeItMeetsABrokenOutput) {
  EXPECT_EQ(prepared(break_output, {"--remove-skel"}),
            (Outcome{"", "tembrix: Error: parameter 'id' wasn't specified\n", SIGPIPE}));
}

TEST_F(Process, TellsByItsStatusWhatAFullOutputDoesNotTake) {
  const auto filling = [] {
    if (dup2(open("/dev/full", O_WRONLY | O_CLOEXEC), STDOUT_FILENO) < 0) _exit(97);
  };
  EXPECT_EQ(prepared(filling, {"--remove-skel", "--id", "7"}), (Outcome{"", "", 0}));
  EXPECT_EQ(prepared(filling, {"--remove-skel"}),
            (Outcome{"", "tembrix: Error: parameter 'id' wasn't specified\n", 1 << 8}));
}

TEST_F(Process, RunsTheArchiveToolWithAllIdentitiesOfRoot) {
  ASSERT_NO_FATAL_FAILURE(
      install_with_tar("grep -E '^(Uid|Gid):' /proc/$$/status > " + at("seen")));
  fs::copy_file(TEMBRIX_PROGRAM, at("tembrix"));
  const std::string expected = "Uid:\t0\t0\t0\t0\nGid:\t0\t0\t0\t0\n";
  // Root with another group, and another user with a set-user-id program.
  EXPECT_EQ(prepared(
                [this] {
                  use_own_tar();
                  if (setresgid(kOther, kOther, kOther) != 0) _exit(97);
                },
                install_words(), at("tembrix")),
            answer(0));
  EXPECT_EQ(read_file(at("seen")), expected);
  ASSERT_EQ(chmod(at("tembrix").c_str(), 04755), 0);
  EXPECT_EQ(prepared(
                [this] {
                  use_own_tar();
                  if (setgroups(0, nullptr) != 0 || setresgid(kOther, kOther, kOther) != 0 ||
                      setresuid(kOther, kOther, kOther) != 0)
                    _exit(97);
                },
                install_words(), at("tembrix")),
            answer(0))
      << "a group without privileges of its own: setgid(0) works because root came first";
  EXPECT_EQ(read_file(at("seen")), expected);
}

TEST_F(Process, EndsByAnUncaughtExceptionWithItsText) {
  testsupport::RunOptions options;
  options.environment = {{"LD_PRELOAD", THROWING_SETGID},
                         {"ASAN_OPTIONS", "verify_asan_link_order=0:detect_leaks=0"}};
  EXPECT_EQ(tembrix({"--help"}, options),
            (Outcome{"", "Unexpected error: setgid() throws\n", 1 << 8}));
}

TEST_F(Process, MakesTheStoreWithItsFinalMode) {
  pack("mkdir httpdocs");
  const Outcome outcome = testsupport::run_traced(
      {"-o", at("log"), "-e", "signal=none", "-e", "trace=mkdir,mkdirat"},
      {TEMBRIX_PROGRAM, "--install-skel", "--filename", at("skel.tar"), "--id", "7"});
  EXPECT_EQ(outcome, answer(0));
  EXPECT_EQ(read_file(at("log")).substr(0, read_file(at("log")).find(')')),
            "mkdir(\"" + store("7") + "\", 0755")
      << "tree_set_perms() comes only after the extraction";
}
