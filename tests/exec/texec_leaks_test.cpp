#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

#include "exec/commands.h"
#include "exec/texec.h"
#include "support/scratch.h"

using frask::Handle;
using frask::sys::TExec;
using frask::sys::TExecsList;
using testexec::capture;
using testexec::command;
using testexec::shell;

namespace {

constexpr auto kWait = frask::sys::wait_mode;
constexpr int kExecutions = 10000;

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

TExec with(const TExec& plain, TExec::TPrepare* preparation) {
  return plain * Handle<TExec::TPrepare>(preparation);
}

/// One way in which an execution begins and ends, and how.
struct Way {
  const char* name;
  std::function<void()> execute;
};

std::vector<Way> ways(const std::string& file) {
  const TExec good = command({"/bin/true"});
  const TExec missing = command({"/nonexistent/program"});
  const auto run = [](TExecsList line) { return [line]() mutable { line.execute(); }; };
  const auto captured = [](const TExecsList& line) { return [line] { capture(line); }; };
  return {{"ends well", run(good)},
          {"ends badly", run(command({"/bin/false"}))},
          {"dies by a signal", run(shell("kill -KILL $$"))},
          {"fails to exec", run(missing)},
          {"throws in the parent", run(with(good, new ThrowingParent))},
          {"throws in the child", run(with(good, new ThrowingChild))},
          {"throws in the middle of a line", run(((good ^ kWait) | good, TExec(frask::sys::el)))},
          {"a pipeline without waiting for its writer", run(good | TExecsList(good))},
          {"a captured command", captured(good)},
          {"a captured command that is not waited for", captured(good ^ kWait)},
          {"a captured pipeline", captured((good ^ kWait) | (good ^ kWait) | (good ^ kWait))},
          {"a captured line that throws", captured(((good ^ kWait) | good, TExec(frask::sys::el)))},
          {"a captured program that is missing", captured(missing ^ kWait)},
          {"text and files",
           run((good << "text" > file, good < file, good & frask::sys::TRedirect(2, 1)))},
          {"a failure that <<= throws", [good] {
             std::string out;
             out <<= command({"/bin/false"}) ^ kWait;
           }}};
}

/// An exception of the execution is one of the ways to end; a child that it reaches ends here.
void execute(const Way& way, pid_t caller) {
  try {
    way.execute();
  } catch (const std::exception&) {
  }
  if (getpid() != caller) _exit(1);
}

}  // namespace

TEST(TenThousandExecutions, LeaveNoDescriptorAndNoZombie) {
  const testsupport::ScratchDir scratch;
  const std::vector<int> before = testsupport::open_descriptors();
  {
    const std::vector<Way> all = ways(scratch / "file");
    for (int i = 0; i < kExecutions; ++i) execute(all[i % all.size()], getpid());
  }
  EXPECT_EQ(testsupport::open_descriptors(), before);
  // What the last ones have started may still be running; it is collected by later executions.
  for (int i = 0; i < 4 && !testexec::childless(); ++i) {
    testexec::await_end_of_a_child();
    command({"/bin/true"}).execute();
  }
  EXPECT_TRUE(testexec::childless());
}

TEST(TenThousandExecutions, LeaveNothingWhenNoProcessCanBeForked) {
  const testsupport::Outcome outcome = testexec::alone([] {
    testexec::limit_processes(1);
    const std::vector<int> before = testsupport::open_descriptors();
    int failures = 0;
    for (int i = 0; i < 1000; ++i) {
      try {
        capture(command({"true"}) | command({"true"}));
      } catch (const frask::sys::TSysCallErr&) {
        ++failures;
      }
    }
    _exit(failures == 1000 && testsupport::open_descriptors() == before ? 20 : 21);
  });
  EXPECT_EQ(outcome.exit_code(), 20) << outcome;
}
