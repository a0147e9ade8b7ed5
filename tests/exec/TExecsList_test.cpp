#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <sstream>
#include <thread>
#include <vector>

#include "exec/children.private.h"
#include "exec/commands.h"
#include "exec/texec.h"
#include "support/scratch.h"
#include "support/traced.h"

using frask::sys::TExec;
using frask::sys::TExecsList;
using frask::sys::TSLProcess;
using testexec::command;
using testexec::shell;
using testsupport::ScratchDir;

namespace {

constexpr auto kWait = frask::sys::wait_mode;

/// A command that adds a letter to a file and exits with a code.
TExec noting(const std::string& file, char letter, int code) {
  return shell(std::string("printf ") + letter + " >> " + file + "; exit " + std::to_string(code));
}

/// Not waited for, it lasts as long as the write end of the pipe is open here.
TExec until_closed(int read_end) {
  return (command({"cat"}) & frask::sys::TRedirect(0, read_end)) ^ kWait;
}

}  // namespace

TEST(TExecsList, IsEmptyByDefault) {
  const TExecsList line;
  EXPECT_TRUE(line.empty());
  EXPECT_EQ(line.size(), 0U);
  EXPECT_EQ(line.begin(), line.end());
}

TEST(TExecsList, HoldsOneCommandWhenMadeOfOne) {
  const TExecsList line(command({"true"}));
  EXPECT_FALSE(line.empty());
  ASSERT_EQ(line.size(), 1U);
  EXPECT_EQ(line.begin()->args()[0], "true");
}

TEST(TExecsListExecute, GivesZerosForAnEmptyLine) {
  const TSLProcess process = TExecsList().execute();
  EXPECT_EQ(process.pid, 0);
  EXPECT_EQ(process.result, 0);
}

TEST(TExecsListExecute, RunsTheCommandsInOrderAndGivesTheLastResult) {
  const ScratchDir scratch;
  const std::string file = scratch / "order";
  TExecsList line = (noting(file, 'a', 1), noting(file, 'b', 2), noting(file, 'c', 3));
  const TSLProcess process = line.execute();
  EXPECT_EQ(process.result, 3);
  EXPECT_GT(process.pid, 0);
  EXPECT_EQ(testsupport::read_file(file), "abc");
}

TEST(TExecsListExecute, StopsAtTheFirstCommandThatThrows) {
  const ScratchDir scratch;
  const std::string file = scratch / "order";
  TExecsList line = (noting(file, 'a', 0), TExec(frask::sys::el), noting(file, 'c', 0));
  EXPECT_THROW(line.execute(), frask::sys::TSysErr);
  EXPECT_EQ(testsupport::read_file(file), "a");
}

TEST(TExecsListExecute, LeavesTheLastCommandToTheCaller) {
  TExecsList line = (command({"true"}), shell("exit 9") ^ kWait);
  const TSLProcess process = line.execute();
  command({"true"}).execute();
  testexec::await_end_of_a_child();
  command({"true"}).execute();
  int status = -1;
  EXPECT_EQ(waitpid(process.pid, &status, 0), process.pid);
  EXPECT_EQ(WEXITSTATUS(status), 9);
}

TEST(TExecsListExecute, DoesNotWaitForEarlierCommandsWithoutWaitMode) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  TExecsList line = (until_closed(ends[0]), shell("exit 4"));
  EXPECT_EQ(line.execute().result, 4);
  EXPECT_FALSE(testexec::childless());
  close(ends[0]);
  close(ends[1]);
  testexec::await_end_of_a_child();
  EXPECT_EQ(command({"true"}).execute().result, 0);
  EXPECT_TRUE(testexec::childless()) << "a later execution has collected it";
}

TEST(TExecsListExecute, CollectsEarlierCommandsAlsoWhenALaterOneThrows) {
  TExecsList line = (command({"true"}) ^ kWait, TExec(frask::sys::el));
  EXPECT_THROW(line.execute(), frask::sys::TSysErr);
  if (!testexec::childless()) testexec::await_end_of_a_child();
  command({"true"}).execute();
  EXPECT_TRUE(testexec::childless());
}

TEST(TExecsListExecute, ToleratesACallerWhoCollectsEveryChild) {
  TExecsList line = (command({"true"}) ^ kWait, command({"true"}) ^ kWait);
  line.execute();
  while (wait(nullptr) > 0) {
  }
  EXPECT_EQ(shell("exit 2").execute().result, 2);
}

TEST(TExecsListExecute, CollectsLaterWhatAThreadThatHasEndedLeft) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  std::thread([&ends] {
    TExecsList line = (until_closed(ends[0]), shell("exit 4"));
    EXPECT_EQ(line.execute().result, 4);
  }).join();
  EXPECT_FALSE(testexec::childless());
  close(ends[0]);
  close(ends[1]);
  testexec::await_end_of_a_child();
  command({"true"}).execute();
  EXPECT_TRUE(testexec::childless());
}

TEST(TExecsListExecute, LosesNoChildToAnotherThread) {
  constexpr int kThreads = 2;
  constexpr int kChildren = 300;
  constexpr int kEntriesBetween = 64;  // that the threads may meet: no children, and soon forgotten
  std::atomic<int> ready{0};
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int i = 0; i < kThreads; ++i)
    threads.emplace_back([&ready] {
      std::vector<pid_t> children(kChildren);
      for (pid_t& child : children)
        if ((child = fork()) == 0) _exit(0);
      for (++ready; ready < kThreads;) std::this_thread::yield();
      for (const pid_t child : children) {
        frask::sys::abandon(child);
        for (int entry = 0; entry < kEntriesBetween; ++entry) frask::sys::abandon(getpid());
        frask::sys::collectAbandoned();
      }
    });
  for (std::thread& thread : threads) thread.join();
  for (int most = kThreads * kChildren; most > 0 && !testexec::childless(); --most) {
    testexec::await_end_of_a_child();
    frask::sys::collectAbandoned();  // that one at least, unless it is in no list any more
  }
  EXPECT_TRUE(testexec::childless());
}

// Run by the test after it, under a tracer.
TEST(TExecsListExecute, DISABLED_LosesAChildToTheCaller) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  TExecsList line = (until_closed(ends[0]), command({"true"}));
  line.execute();
  close(ends[0]);
  close(ends[1]);
  while (wait(nullptr) > 0) {
  }
  for (int i = 0; i < 3; ++i) command({"true"}).execute();
}

TEST(TExecsListExecute, ForgetsAChildThatTheCallerHasCollected) {
  // Or it would some day take another child of that number from the caller.
  const ScratchDir scratch;
  const testsupport::Outcome outcome = testsupport::run_traced(
      {"-o", scratch / "waits", "-e", "trace=wait4"},
      {std::filesystem::read_symlink("/proc/self/exe"), "--gtest_also_run_disabled_tests",
       "--gtest_filter=TExecsListExecute.DISABLED_LosesAChildToTheCaller"});
  ASSERT_EQ(outcome.status, 0) << outcome;
  std::istringstream waits(testsupport::read_file(scratch / "waits"));
  int in_vain = 0;
  for (std::string line; std::getline(waits, line);)
    if (line.find("WNOHANG") != std::string::npos && line.find("ECHILD") != std::string::npos)
      ++in_vain;
  EXPECT_EQ(in_vain, 1) << waits.str();
}

TEST(TExecsListExecute, NeverCollectsAChildThatIsNotItsOwn) {
  const pid_t own = fork();
  if (own == 0) _exit(77);
  testexec::await_end_of_a_child();
  (command({"true"}) ^ kWait, command({"true"})).execute();
  command({"true"}).execute();
  int status = -1;
  EXPECT_EQ(waitpid(own, &status, 0), own);
  EXPECT_EQ(WEXITSTATUS(status), 77);
  command({"true"}).execute();
}

TEST(TExecsListExecute, LeavesErrnoOfACollectionAlone) {
  TExecsList line = (command({"true"}) ^ kWait, command({"true"}));
  errno = 0;
  line.execute();
  EXPECT_EQ(errno, 0);
  while (wait(nullptr) > 0) {
  }
}
