#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <stdexcept>

#include "exec/commands.h"
#include "exec/texec.h"
#include "support/repetitions.h"
#include "support/scratch.h"

using frask::Handle;
using frask::sys::TExec;
using frask::sys::TExecsList;
using testexec::capture;
using testexec::command;
using testexec::shell;
using testexec::Unforkable;
using testsupport::open_descriptors;

namespace {

constexpr auto kWait = frask::sys::wait_mode;
constexpr size_t kExecutions = testsupport::repetitions(10000);
constexpr size_t kFailedForks = testsupport::repetitions(2000);

/// Throws before the fork.
class ThrowingStart : public TExec::TPrepare {
 public:
  void bef_fork(TExec&) override { throw std::runtime_error("before the fork"); }
};

/// Throws in the parent, after the fork.
class ThrowingParent : public TExec::TPrepare {
 public:
  void aft_fork4p(TExec&) override { throw std::runtime_error("in the parent"); }
};

/// Throws in the child. The caller ends it.
class ThrowingChild : public TExec::TPrepare {
 public:
  void aft_fork4d(TExec&) override { throw std::runtime_error("in the child"); }
};

/// Has the child go on with the caller's code. The caller ends it.
class QuietExec : public TExec::TPrepare {
 public:
  bool exec_failed(TExec&) override { return false; }
};

TExec with(const TExec& plain, TExec::TPrepare* preparation) {
  return plain * Handle<TExec::TPrepare>(preparation);
}

/// The preparation acts behind the pipe that the command reads, so that its answer counts.
TExecsList with(TExecsList line, TExec::TPrepare* preparation) {
  line += Handle<TExec::TPrepare>(preparation);
  return line;
}

void ignore(int) {}

/// A wait for a program that lasts until the wait has been interrupted.
void interrupt_a_wait() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw std::logic_error("no pipe");
  struct sigaction usual = {};
  struct sigaction interrupting = {};
  interrupting.sa_handler = ignore;
  sigaction(SIGALRM, &interrupting, &usual);
  const itimerval often{{0, 500}, {0, 500}};
  const itimerval never{};
  setitimer(ITIMER_REAL, &often, nullptr);
  int error = 0;
  try {
    (command({"/bin/cat"}) & frask::sys::TRedirect(0, ends[0])).execute();
  } catch (const frask::sys::TSysCallErr& thrown) {
    error = thrown.error_number();
  }
  setitimer(ITIMER_REAL, &never, nullptr);
  sigaction(SIGALRM, &usual, nullptr);
  close(ends[0]);
  close(ends[1]);
  if (error != EINTR) throw std::logic_error("the wait was not interrupted");
}

/// One way in which an execution begins and ends, and how.
struct Way {
  const char* name;
  std::function<void()> execute;
};

std::function<void()> run(const TExecsList& line) {
  return [line] { TExecsList(line).execute(); };
}

std::function<void()> captured(const TExecsList& line) {
  return [line] { capture(line); };
}

std::vector<Way> ways(const std::string& file) {
  const TExec good = command({"/bin/true"});
  const TExec missing = command({"/nonexistent/program"});
  const TExec beside = good ^ kWait;
  return {
      {"ends well", run(good)},
      {"ends badly", run(command({"/bin/false"}))},
      {"dies by a signal", run(shell("kill -KILL $$"))},
      {"fails to exec", run(missing)},
      {"fails to exec and keeps that quiet", run(with(missing, new QuietExec))},
      {"fails to exec quietly within a line", run((beside | with(missing, new QuietExec) | good))},
      {"throws before the fork", run(with(good, new ThrowingStart))},
      {"throws before the fork of a reader", run(with(beside | good, new ThrowingStart))},
      {"throws in the parent", run(with(good, new ThrowingParent))},
      {"throws in the child", run(with(good, new ThrowingChild))},
      {"throws in the middle of a line", run(((beside | good), TExec(frask::sys::el)))},
      {"an interrupted wait", interrupt_a_wait},
      {"a pipeline without waiting for its writer", run(good | TExecsList(good))},
      {"a captured command", captured(good)},
      {"a captured command that is not waited for", captured(beside)},
      {"a captured pipeline", captured(beside | (command({"/bin/cat"}) ^ kWait) | beside)},
      {"a captured line that throws", captured(((beside | good), TExec(frask::sys::el)))},
      {"a captured program that is missing", captured(missing ^ kWait)},
      {"text and files",
       run((good << "text" > file, good < file, good & frask::sys::TRedirect(2, 1)))},
      {"a text with a reader that ends early",
       captured((command({"head", "-c1"}) ^ kWait) << std::string(200000, 'x'))},
      {"a failure that <<= throws", [] {
         std::string out;
         out <<= command({"/bin/false"}) ^ kWait;
       }}};
}

/// The first half of a line has started when the fork fails, or nothing has.
std::vector<Way> ways_to_fail_to_fork() {
  const TExec good = command({"/bin/true"});
  const TExec beside = good ^ kWait;
  std::vector<Way> all;
  for (const bool thrown : {true, false}) {
    all.push_back({"no fork", run(with(good, new Unforkable(thrown)))});
    all.push_back({"no fork of a reader", run(with(beside | good, new Unforkable(thrown)))});
    all.push_back(
        {"no fork of a writer", run(with(TExecsList(good), new Unforkable(thrown)) | good)});
    all.push_back({"no fork of a captured reader",
                   captured(with((command({"yes"}) ^ kWait) | good, new Unforkable(thrown)))});
  }
  return all;
}

/// An exception of the execution is one of the ways to end; a child that it reaches ends here.
void execute(const Way& way, pid_t caller) {
  try {
    way.execute();
  } catch (const std::logic_error& error) {
    ADD_FAILURE() << way.name << ": " << error.what();
  } catch (const std::exception&) {
  }
  if (getpid() != caller) _exit(1);
}

/// Any number of those that the executions have started may still be running; each later execution
/// collects what has ended. What none of them collects is still there in the end.
bool all_are_collected() {
  for (size_t i = 0; i < kExecutions && !testexec::childless(); ++i) {
    testexec::await_end_of_a_child();
    command({"/bin/true"}).execute();
  }
  return testexec::childless();
}

/// Executed again and again, does this way leave something? With its name if so.
testing::AssertionResult leaves_nothing(const Way& way, size_t executions) {
  const std::vector<int> before = open_descriptors();
  const pid_t caller = getpid();
  for (size_t i = 0; i < executions; ++i) {
    execute(way, caller);
    if (open_descriptors() != before)
      return testing::AssertionFailure() << way.name << ": a descriptor";
  }
  if (all_are_collected()) return testing::AssertionSuccess();
  return testing::AssertionFailure() << way.name << ": a child";
}

/// The ways, as parameters by their number: each has a test of its own, with its share.
size_t number_of_ways() {
  return ways("").size();
}

std::string name_of_way(const testing::TestParamInfo<size_t>& info) {
  std::string name = ways("")[info.param].name;
  for (char& c : name)
    if (isalnum(static_cast<unsigned char>(c)) == 0) c = '_';
  return name;
}

class TenThousandExecutions : public testing::TestWithParam<size_t> {};

}  // namespace

TEST_P(TenThousandExecutions, LeaveNoDescriptorAndNoZombie) {
  const testsupport::ScratchDir scratch;
  const Way way = ways(scratch / "file")[GetParam()];
  EXPECT_TRUE(leaves_nothing(way, kExecutions / number_of_ways() + 1));
}

INSTANTIATE_TEST_SUITE_P(Ways, TenThousandExecutions, testing::Range(size_t{0}, number_of_ways()),
                         name_of_way);

TEST(ThousandsOfExecutions, LeaveNothingWhenForksFail) {
  const testsupport::Outcome outcome = testexec::alone([] {
    testexec::limit_processes(50);
    alarm(250);  // a pipe that stays open would have its writer wait for ever
    const std::vector<Way> all = ways_to_fail_to_fork();
    for (const Way& way : all) {
      const testing::AssertionResult result = leaves_nothing(way, kFailedForks / all.size());
      if (!result) throw std::runtime_error(result.message());
    }
    _exit(20);
  });
  EXPECT_EQ(outcome.exit_code(), 20) << outcome;
}
