#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "exec/commands.h"
#include "exec/texec.h"
#include "support/scratch.h"

using frask::Handle;
using frask::sys::TExec;
using frask::sys::TSLProcess;
using testexec::alone;
using testexec::arguments;
using testsupport::Outcome;

namespace {

int exit_code(int pid) {
  int status = -1;
  if (waitpid(pid, &status, 0) != pid) throw std::runtime_error("no such child");
  return WEXITSTATUS(status);
}

}  // namespace

TEST(Modes, AreThreeBitsInBothPlaces) {
  EXPECT_EQ(frask::sys::fork_mode, std::bitset<3>(1));
  EXPECT_EQ(frask::sys::wait_mode, std::bitset<3>(2));
  EXPECT_EQ(frask::sys::path_mode, std::bitset<3>(4));
  EXPECT_EQ(TExec::fork_mode, frask::sys::fork_mode);
  EXPECT_EQ(TExec::wait_mode, frask::sys::wait_mode);
  EXPECT_EQ(TExec::path_mode, frask::sys::path_mode);
  EXPECT_EQ(TExec::def_mode, std::bitset<3>(7));
}

/// Every mode with a program found by the path that it gives (modes without path_mode) or by its
/// name, and with or without a preparation.
class EveryMode : public testing::TestWithParam<std::tuple<unsigned, bool>> {
 protected:
  std::bitset<3> mode() const { return std::get<0>(GetParam()); }
  bool forks() const { return mode().test(0); }
  bool waits() const { return mode().test(0) && mode().test(1); }

  TExec program(const std::string& script) const {
    const TExec plain(arguments({mode().test(2) ? "sh" : "/bin/sh", "-c", script}), mode());
    const bool prepared = std::get<1>(GetParam());
    return prepared ? plain * Handle<TExec::TPrepare>(new testexec::Recorder(scratch_ / "record"))
                    : plain;
  }

  testsupport::ScratchDir scratch_;
};

TEST_P(EveryMode, RunsTheProgramAsItSays) {
  const Outcome outcome = alone([this] {
    const pid_t caller = getpid();
    dprintf(STDOUT_FILENO, "%d ", caller);
    const TSLProcess process = program("echo $$; exit 5").execute();
    if (!forks() || getpid() != caller || process.pid <= 0) _exit(90);
    if (process.result != (waits() ? 5 : 0)) _exit(91);
    if (waits() != testexec::childless()) _exit(92);
    if (!waits() && exit_code(process.pid) != 5) _exit(93);
    _exit(94);
  });
  EXPECT_EQ(outcome.exit_code(), forks() ? 94 : 5) << outcome;
  const size_t blank = outcome.out.find(' ');
  const std::string caller = outcome.out.substr(0, blank);
  const std::string program_process = outcome.out.substr(blank + 1);
  EXPECT_NE(program_process, "");
  EXPECT_EQ(program_process == caller + "\n", !forks());
}

TEST_P(EveryMode, SearchesTheProgramOnlyWithPathMode) {
  const Outcome outcome = alone([this] {
    // A program of that name stands on the search path, and none in the working directory.
    TSLProcess process = (TExec(arguments({"true"}), mode()) * program("").preparation()).execute();
    if (!mode().test(1)) process.result = exit_code(process.pid);
    _exit(process.result);
  });
  if (mode().test(2))
    EXPECT_EQ(outcome.exit_code(), 0) << outcome;
  else if (forks())
    EXPECT_EQ(outcome.exit_code(), testexec::kFailedInChild) << outcome;
  else
    EXPECT_EQ(outcome.exit_code(), testexec::kFailedInCaller) << outcome;
  EXPECT_EQ(outcome.err, mode().test(2) ? "" : strerror(ENOENT));
}

INSTANTIATE_TEST_SUITE_P(All, EveryMode, testing::Combine(testing::Range(0U, 8U), testing::Bool()));
