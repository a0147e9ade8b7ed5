#include "exec/texec.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include "exec/commands.h"
#include "support/scratch.h"

using frask::Handle;
using frask::sys::TExec;
using frask::sys::TExecsList;
using frask::sys::TSLProcess;
using frask::sys::TSysCallErr;
using frask::sys::TSysErr;
using testexec::alone;
using testexec::arguments;
using testexec::command;
using testexec::recorded;
using testexec::Recorder;
using testexec::shell;
using testsupport::Outcome;
using testsupport::ScratchDir;

namespace {

using Prepare = TExec::TPrepare;
using Hooks = std::vector<std::string>;

const std::string kNoSuchFile = strerror(ENOENT);

/// A preparation of which each hook is a function that may be given.
class Acting : public Prepare {
 public:
  using Action = std::function<void(TExec&)>;
  void bef_fork(TExec& exec) override { run(on_bef_fork, exec); }
  void aft_fork4p(TExec& exec) override { run(on_aft_fork4p, exec); }
  void aft_fork4d(TExec& exec) override { run(on_aft_fork4d, exec); }
  void bef_exec(TExec& exec) override { run(on_bef_exec, exec); }
  bool fork_failed(TExec& exec) override {
    run(on_failure, exec);
    return true;
  }
  bool exec_failed(TExec& exec) override {
    run(on_failure, exec);
    return true;
  }

  Action on_bef_fork, on_aft_fork4p, on_aft_fork4d, on_bef_exec, on_failure;

 private:
  static void run(const Action& action, TExec& exec) {
    if (action) action(exec);
  }
};

TExec with(const TExec& plain, Prepare* preparation) {
  return plain * Handle<Prepare>(preparation);
}

TExec acting(const TExec& plain, Acting::Action Acting::*hook, Acting::Action action) {
  auto* const preparation = new Acting;
  preparation->*hook = std::move(action);
  return with(plain, preparation);
}

int exit_code(int pid) {
  int status = -1;
  if (waitpid(pid, &status, 0) != pid) throw std::runtime_error("no such child");
  return WEXITSTATUS(status);
}

void ignore(int) {}

void interrupt_waits_without_restart() {
  struct sigaction action = {};
  action.sa_handler = ignore;
  sigaction(SIGALRM, &action, nullptr);
  const itimerval often{{0, 1000}, {0, 1000}};
  setitimer(ITIMER_REAL, &often, nullptr);
}

}  // namespace

TEST(TExec, StartsInTheDefaultModeWithoutAPreparation) {
  const TExec plain(arguments({"true"}));
  EXPECT_EQ(plain.mode(), TExec::def_mode);
  EXPECT_FALSE(plain.preparation());
  EXPECT_EQ(plain.preparation().count(), 1U);
  EXPECT_EQ(TExec(arguments({"true"}), 5).mode(), std::bitset<3>(5));
}

TEST(TExec, SharesVectorAndPreparationWithItsCopies) {
  const TExec original = with(command({"true"}), new Prepare);
  // NOLINTNEXTLINE(performance-unnecessary-copy-initialization): the copy is what is tested
  const TExec copy = original;
  EXPECT_EQ(&copy.args()[0], &original.args()[0]);
  EXPECT_EQ(copy.preparation().get(), original.preparation().get());
  EXPECT_EQ(original.preparation().count(), 2U);
}

TEST(Execute, CallsTheHooksInTheirOrder) {
  for (unsigned mode = 0; mode < 8; ++mode) {
    SCOPED_TRACE(mode);
    const ScratchDir scratch;
    const std::string record = scratch / "record";
    alone([mode, &record] {
      with(TExec(arguments({"/bin/true"}), mode), new Recorder(record)).execute();
      while (wait(nullptr) > 0) {
      }
    });
    // A process that is replaced is the caller, the one that made the recorder.
    const bool forks = (mode & 1) != 0;
    EXPECT_EQ(recorded(record, "parent"),
              forks ? (Hooks{"bef_fork", "aft_fork4p"}) : (Hooks{"bef_exec"}));
    EXPECT_EQ(recorded(record, "child"), forks ? (Hooks{"aft_fork4d", "bef_exec"}) : Hooks{});
  }
}

TEST(Execute, LetsTheParentsHooksActBeforeItWaits) {
  for (unsigned mode = 1; mode < 8; mode += 2) {
    SCOPED_TRACE(mode);
    const ScratchDir scratch;
    const std::string record = scratch / "record";
    const Outcome outcome = alone([mode, &record] {
      alarm(60);  // the program ends when the hook lets it
      int ends[2];
      if (pipe2(ends, O_CLOEXEC) != 0) _exit(80);
      auto* const releasing = new Acting;
      releasing->on_aft_fork4p = [&ends](TExec&) { close(ends[1]); };
      TExec reading(arguments({"/bin/sh", "-c", "cat; echo program ends >> " + record}), mode);
      reading = with(reading, new Recorder(record)) & frask::sys::TRedirect(0, ends[0]);
      reading += Handle<Prepare>(releasing);
      reading.execute();
      if (testexec::childless() != ((mode & 2) != 0)) _exit(81);
      while (wait(nullptr) > 0) {
      }
      _exit(82);
    });
    EXPECT_EQ(outcome.exit_code(), 82) << outcome;
    EXPECT_EQ(recorded(record, "parent"), (Hooks{"bef_fork", "aft_fork4p"}));
    const std::string all = testsupport::read_file(record);
    EXPECT_LT(all.find("parent aft_fork4p"), all.find("program ends")) << all;
    EXPECT_NE(all.find("program ends"), std::string::npos) << all;
  }
}

TEST(Execute, LeavesErrnoAsItWasWhenItSucceeds) {
  for (TExec plain : testexec::both_starts(command({"true"}))) {
    errno = 0;  // the search path has directories without the program
    plain.execute();
    EXPECT_EQ(errno, 0);
  }
}

TEST(Execute, GivesMinusOneForADeathBySignal) {
  for (TExec killed : testexec::both_starts(shell("kill -KILL $$"))) {
    const TSLProcess process = killed.execute();
    EXPECT_GT(process.pid, 0);
    EXPECT_EQ(process.result, -1);
  }
  EXPECT_EQ(shell("exit 255").execute().result, 255) << "no exit code reads as a signal";
}

TEST(Execute, RefusesAnEmptyVectorBeforeAnyHook) {
  const ScratchDir scratch;
  for (unsigned mode = 0; mode < 8; ++mode) {
    SCOPED_TRACE(mode);
    try {
      with(TExec(frask::sys::el, mode), new Recorder(scratch / "record")).execute();
      FAIL() << "there is no program";
    } catch (const TSysErr& error) {
      EXPECT_EQ(typeid(error), typeid(TSysErr)) << "no system call has failed";
      EXPECT_EQ(error.what(), TExec::bad_args_m);
    }
  }
  EXPECT_EQ(TExec::bad_args_m, "Bad execute arguments");
  EXPECT_EQ(recorded(scratch / "record", "parent"), Hooks{});
  EXPECT_TRUE(testexec::childless());
}

TEST(Execute, ThrowsInTheChildWhenTheProgramIsMissing) {
  for (const TExec& missing : testexec::both_starts(command({"/nonexistent/program"}))) {
    const Outcome outcome = alone([&missing] {
      const TSLProcess process = TExec(missing).execute();
      _exit(process.result);
    });
    EXPECT_EQ(outcome.exit_code(), testexec::kFailedInChild) << outcome;
    EXPECT_EQ(outcome.err, kNoSuchFile);
  }
}

TEST(Execute, ThrowsInTheCallerWhenItCannotBeReplaced) {
  const Outcome outcome = alone([] {
    try {
      (command({"/nonexistent/program"}) ^ TExec::fork_mode).execute();
    } catch (const TSysCallErr& error) {
      _exit(error.error_number() == ENOENT ? 7 : 8);
    }
  });
  EXPECT_EQ(outcome.exit_code(), 7);
}

TEST(Execute, KeepsTheErrorNumberWhateverTheHookDoesToErrno) {
  const Outcome outcome = alone([] {
    TExec missing = acting(command({"/nonexistent/program"}) ^ TExec::fork_mode,
                           &Acting::on_failure, [](TExec&) {
                             dprintf(STDOUT_FILENO, "%d", errno);
                             errno = EPERM;
                           });
    missing.execute();
  });
  EXPECT_EQ(outcome.out, std::to_string(ENOENT)) << "the hook sees why";
  EXPECT_EQ(outcome.err, kNoSuchFile);
}

TEST(Execute, GoesOnInTheChildWhenExecFailedSaysSo) {
  const ScratchDir scratch;
  const Outcome outcome = alone([&scratch] {
    auto* const recorder = new Recorder(scratch / "record");
    recorder->exec_answer = false;
    const pid_t caller = getpid();
    const TSLProcess process = with(command({"/nonexistent/program"}), recorder).execute();
    if (getpid() != caller) _exit(process.pid == -1 && process.result == -1 ? 33 : 34);
    _exit(process.result);
  });
  EXPECT_EQ(outcome.exit_code(), 33) << outcome;
  EXPECT_EQ(recorded(scratch / "record", "child"),
            (Hooks{"aft_fork4d", "bef_exec", "exec_failed"}));
}

TEST(Execute, GoesOnInTheCallerWhenExecFailedSaysSoWithoutFork) {
  const ScratchDir scratch;
  auto* const recorder = new Recorder(scratch / "record");
  recorder->exec_answer = false;
  const TExec missing = with(command({"/nonexistent/program"}) ^ TExec::fork_mode, recorder);
  EXPECT_EQ(TExec(missing).execute().pid, -1);
  EXPECT_EQ(recorded(scratch / "record", "parent"), (Hooks{"bef_exec", "exec_failed"}));
}

TEST(Execute, ThrowsWhenNoProcessCanBeForked) {
  for (const TExec& plain : testexec::both_starts(command({"true"}))) {
    const Outcome outcome = alone([&plain] {
      testexec::limit_processes(1);
      TExec(plain).execute();
    });
    EXPECT_EQ(outcome.exit_code(), testexec::kFailedInCaller) << outcome;
    EXPECT_EQ(outcome.err, strerror(EAGAIN));
  }
}

TEST(Execute, AsksForkFailedWhetherToThrow) {
  for (const bool answer : {true, false}) {
    SCOPED_TRACE(answer);
    const ScratchDir scratch;
    testsupport::write_file(scratch / "record", "", 0666);
    const Outcome outcome = alone([&] {
      chmod(scratch.path().c_str(), 0755);
      testexec::limit_processes(1);
      auto* const recorder = new Recorder(scratch / "record");
      recorder->fork_answer = answer;
      const TSLProcess process = with(command({"true"}), recorder).execute();
      _exit(process.pid == -1 && process.result == -1 ? 40 : 41);
    });
    EXPECT_EQ(outcome.exit_code(), answer ? testexec::kFailedInCaller : 40) << outcome;
    EXPECT_EQ(recorded(scratch / "record", "parent"), (Hooks{"bef_fork", "fork_failed"}));
    EXPECT_EQ(recorded(scratch / "record", "child"), Hooks{});
  }
}

TEST(Execute, KeepsTheForksErrorNumberWhateverTheHookDoesToErrno) {
  const Outcome outcome = alone([] {
    testexec::limit_processes(1);
    acting(command({"true"}), &Acting::on_failure, [](TExec&) {
      dprintf(STDOUT_FILENO, "%d", errno);
      errno = EPERM;
    }).execute();
  });
  EXPECT_EQ(outcome.out, std::to_string(EAGAIN));
  EXPECT_EQ(outcome.err, strerror(EAGAIN));
}

TEST(Execute, LetsAHooksExceptionGoOnInTheChild) {
  for (const auto hook : {&Acting::on_aft_fork4d, &Acting::on_bef_exec}) {
    const Outcome outcome = alone([hook] {
      const pid_t caller = getpid();
      try {
        TExec thrower = acting(command({"true"}), hook, [](TExec&) { throw 20; });
        _exit(thrower.execute().result);
      } catch (int thrown) {
        _exit(getpid() != caller ? thrown + 1 : thrown);
      }
    });
    EXPECT_EQ(outcome.exit_code(), 21) << outcome;
  }
}

TEST(Execute, StartsNothingWhenBefForkThrows) {
  TExec thrower = acting(command({"true"}), &Acting::on_bef_fork, [](TExec&) { throw 20; });
  EXPECT_THROW(thrower.execute(), int);
  EXPECT_TRUE(testexec::childless());
}

TEST(Execute, CollectsAChildWhoseParentSideHookHasThrown) {
  TExec thrower = acting(command({"true"}), &Acting::on_aft_fork4p, [](TExec&) { throw 20; });
  EXPECT_THROW(thrower.execute(), int);
  testexec::await_end_of_a_child();
  EXPECT_EQ(command({"true"}).execute().result, 0);
  EXPECT_TRUE(testexec::childless());
}

TEST(Execute, ThrowsAnInterruptedWaitAndCollectsTheChildLater) {
  const Outcome outcome = alone([] {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) _exit(80);
    interrupt_waits_without_restart();
    try {
      (command({"cat"}) & frask::sys::TRedirect(0, ends[0])).execute();  // until the pipe closes
      _exit(81);
    } catch (const TSysCallErr& error) {
      if (error.error_number() != EINTR) _exit(82);
    }
    setitimer(ITIMER_REAL, nullptr, nullptr);
    close(ends[1]);
    testexec::await_end_of_a_child();
    command({"true"}).execute();
    _exit(testexec::childless() ? 83 : 84);
  });
  EXPECT_EQ(outcome.exit_code(), 83) << outcome;
}

TEST(Execute, ThrowsWhenTheSystemHasCollectedTheChild) {
  const Outcome outcome = alone([] {
    signal(SIGCHLD, SIG_IGN);
    command({"true"}).execute();
  });
  EXPECT_EQ(outcome.exit_code(), testexec::kFailedInCaller);
  EXPECT_EQ(outcome.err, strerror(ECHILD));
}

TEST(Execute, RunsWhatTheHooksHaveMadeOfTheCommand) {
  TExec changed = acting(shell("exit 3"), &Acting::on_bef_exec, [](TExec& exec) {
    exec = TExec(arguments({"/bin/sh", "-c", "exit 6"}), TExec::fork_mode);
  });
  EXPECT_EQ(changed.execute().result, 6) << "in the child";
  TExec unwaited = acting(shell("exit 3"), &Acting::on_bef_fork,
                          [](TExec& exec) { exec.set_mode(exec.mode() ^ TExec::wait_mode); });
  const TSLProcess process = unwaited.execute();
  EXPECT_EQ(process.result, 0);
  EXPECT_EQ(exit_code(process.pid), 3);
}

TEST(Execute, KeepsAPreparationThatAHookReplaces) {
  const ScratchDir scratch;
  auto* const dropping = new Acting;
  dropping->on_bef_fork = [](TExec& exec) { exec.set_preparation(Handle<Prepare>()); };
  const std::string record = scratch / "record";
  dropping->on_aft_fork4p = [record](TExec&) { testsupport::write_file(record, "reached"); };
  EXPECT_EQ(with(command({"true"}), dropping).execute().result, 0);
  EXPECT_EQ(testsupport::read_file(record), "reached");
}

TEST(Execute, CopiesTheProcessOnlyForCodeThatIsNotItsOwn) {
  class Derived : public frask::sys::TReadOut {};
  using namespace frask::sys;  // NOLINT(google-build-using-namespace): the operators
  const Outcome outcome = alone([] {
    static int copies = 0;
    pthread_atfork([] { ++copies; }, nullptr, nullptr);
    const auto report = [](const char* what, TExecsList line) {
      copies = 0;
      line.execute();
      dprintf(STDOUT_FILENO, "%s %d, ", what, copies);
    };
    report("plain", command({"true"}));
    report("path", command({"/bin/true"}) & TExec::def_mode);
    report("redirected", command({"true"}) & TRedirect(2, 1));
    report("read", with(command({"true"}), new TReadOut) & TRedirect(2, 1));
    report("pipeline", command({"true"}) | command({"true"}));
    report("derived", with(command({"true"}), new Derived));
    report("to file", command({"true"}) > "/dev/null");
    report("to closed", command({"true"}) & TRedirect(2, 77));
    report("to itself", command({"true"}) & TRedirect(2, 2));
  });
  EXPECT_EQ(outcome.out,
            "plain 0, path 0, redirected 0, read 0, pipeline 0, derived 1, to file 1, to closed 1, "
            "to itself 1, ")
      << outcome;
}

TEST(Execute, RunsAScriptWithoutAnInterpreterAsExecvpDoes) {
  const ScratchDir scratch;
  testsupport::write_file(scratch / "script", "exit 12", 0755);
  EXPECT_EQ(command({scratch / "script"}).execute().result, 12);
}
