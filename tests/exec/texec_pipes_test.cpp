#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

#include "exec/commands.h"
#include "exec/texec.h"
#include "support/scratch.h"

using frask::Handle;
using frask::sys::TExec;
using frask::sys::TExecsList;
using frask::sys::TPipe;
using frask::sys::TReadFromPipeline;
using frask::sys::TReadOut;
using frask::sys::TRedirectToFile;
using frask::sys::TSysCallErr;
using frask::sys::TWriteToPipeline;
using testexec::alone;
using testexec::both_starts;
using testexec::command;
using testexec::shell;
using testsupport::open_descriptors;
using testsupport::Outcome;
using testsupport::read_file;
using testsupport::ScratchDir;
using testsupport::write_file;

namespace {

using Prepare = TExec::TPrepare;

TExec with(const TExec& plain, Prepare* preparation) {
  return plain * Handle<Prepare>(preparation);
}

/// Prints the descriptors that a program finds open, without the one it lists them with.
TExec descriptor_lister() {
  return shell(
      "for fd in 0 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15; do"
      " [ -e /proc/self/fd/$fd ] && printf '%s ' $fd; done; true");
}

std::string read_to_end(int fd) {
  std::string text;
  char buffer[4096];
  for (ssize_t got; (got = read(fd, buffer, sizeof buffer)) > 0;)
    text.append(buffer, static_cast<size_t>(got));
  return text;
}

bool is_open(int fd) {
  return fcntl(fd, F_GETFD) != -1;
}

/// Only descriptors below `most` can be opened.
void limit_descriptors(rlim_t most) {
  rlimit limit = {};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = most;
  if (setrlimit(RLIMIT_NOFILE, &limit) != 0) throw std::runtime_error("cannot limit descriptors");
}

}  // namespace

TEST(TPipe, HasNoEndsUntilItIsCreated) {
  const TPipe pipe;
  EXPECT_EQ(pipe.read_end(), -1);
  EXPECT_EQ(pipe.write_end(), -1);
}

TEST(TPipe, HasEndsThatCloseOnExecAndLeaveTheSmallNumbersToRedirections) {
  TPipe pipe;
  pipe.create();
  for (const int end : {pipe.read_end(), pipe.write_end()}) {
    EXPECT_GE(end, 10);
    EXPECT_EQ(fcntl(end, F_GETFD), FD_CLOEXEC);
  }
  ASSERT_EQ(write(pipe.write_end(), "x", 1), 1);
  pipe.close_write_end();
  EXPECT_EQ(pipe.write_end(), -1);
  EXPECT_EQ(read_to_end(pipe.read_end()), "x");
}

TEST(TPipe, IsCreatedUnderATightDescriptorLimit) {
  const Outcome outcome = alone([] {
    limit_descriptors(5);
    TPipe pipe;
    pipe.create();
    _exit(10 * pipe.read_end() + pipe.write_end());
  });
  EXPECT_EQ(outcome.exit_code(), 34) << outcome;
}

TEST(TPipe, ClosesWhatItHeldWhenCreatedAgainAndWhenDestroyed) {
  const std::vector<int> before = open_descriptors();
  {
    TPipe pipe;
    pipe.create();
    pipe.create();
    EXPECT_EQ(open_descriptors().size(), before.size() + 2);
  }
  EXPECT_EQ(open_descriptors(), before);
}

TEST(TPipe, ThrowsTheSystemErrorAndKeepsNothing) {
  struct Row {
    const char* what;
    std::vector<int> closed;  // before the pipe is opened
    rlim_t limit;
    int error;
  };
  for (const Row& row :
       {Row{"no descriptor left", {}, 3, EMFILE}, Row{"one descriptor left", {}, 4, EMFILE},
        Row{"none left but standard ones", {0, 1}, 3, EINVAL},
        Row{"one left that is not a standard one", {0}, 4, EMFILE}}) {
    SCOPED_TRACE(row.what);
    const Outcome outcome = alone([&row] {
      for (const int fd : row.closed) close(fd);
      const std::vector<int> before = open_descriptors();
      limit_descriptors(row.limit);
      TPipe pipe;
      int error = 0;
      try {
        pipe.create();
      } catch (const TSysCallErr& thrown) {
        error = thrown.error_number();
      }
      limit_descriptors(100);
      _exit(error == row.error && open_descriptors() == before ? 1 : 2);
    });
    EXPECT_EQ(outcome.exit_code(), 1) << outcome;
  }
}

TEST(TReadOut, LetsTheParentReadStandardOutput) {
  for (const TExec& plain : both_starts(shell("echo text"))) {
    auto* const output = new TReadOut;
    TExec reading = plain;
    reading += Handle<Prepare>(output);
    EXPECT_EQ(output->read_end(), -1);
    EXPECT_EQ(reading.execute().result, 0);
    EXPECT_EQ(output->write_end(), -1) << "or the end of data would never come";
    EXPECT_EQ(read_to_end(output->read_end()), "text\n");
  }
}

TEST(TReadOut, GivesTheProgramStandardOutputAlone) {
  for (const TExec& plain : both_starts(descriptor_lister())) {
    const Outcome outcome =
        alone([&plain] { dprintf(STDERR_FILENO, "%s", testexec::capture(plain).out.c_str()); });
    EXPECT_EQ(outcome.err, "0 1 2 ");
  }
}

TEST(TReadOut, WorksInAProcessWithoutStandardDescriptors) {
  const ScratchDir scratch;
  for (const TExec& plain : both_starts(shell("cat; echo text") < (scratch / "in"))) {
    write_file(scratch / "in", "in ");
    alone([&plain, &scratch] {
      for (const int fd : {0, 1, 2}) close(fd);
      const testexec::Captured captured = testexec::capture(plain);
      write_file(scratch / "out", captured.out);
    });
    EXPECT_EQ(read_file(scratch / "out"), "in text\n");
  }
}

TEST(TReadOut, ClosesWhatItHeldWhenUsedAgainAndWhenDestroyed) {
  const std::vector<int> before = open_descriptors();
  {
    TExec reading = with(command({"true"}), new TReadOut);
    reading.execute();
    reading.execute();
    EXPECT_EQ(open_descriptors().size(), before.size() + 1);
  }
  EXPECT_EQ(open_descriptors(), before);
}

TEST(TReadOut, ThrowsBeforeTheForkWhenThereIsNoDescriptorLeft) {
  const ScratchDir scratch;
  const Outcome outcome = alone([] {
    limit_descriptors(3);
    try {
      with(command({"true"}), new TReadOut).execute();
    } catch (const TSysCallErr& error) {
      _exit(error.error_number() == EMFILE && testexec::childless() ? 61 : 62);
    }
  });
  EXPECT_EQ(outcome.exit_code(), 61) << outcome;
}

TEST(Pipeline, JoinsTwoProgramsAndLeavesNeitherTheOthersEnd) {
  for (const TExec& writer : both_starts(descriptor_lister())) {
    for (const TExec& reader : both_starts(shell("cat; for fd in 3 4 5 6 7 8 9 10 11 12; do"
                                                 " [ -e /proc/self/fd/$fd ] && echo $fd; done;"
                                                 " echo end"))) {
      const Outcome outcome = alone([&] {
        const Handle<TPipe> pipe(new TPipe);
        TExec writing = writer;
        writing += Handle<Prepare>(new TWriteToPipeline(pipe));
        TExec reading = reader;
        reading += Handle<Prepare>(new TReadFromPipeline(pipe));
        writing.execute();
        if (!is_open(pipe->read_end()) || !is_open(pipe->write_end())) _exit(70);
        reading.execute();
        if (pipe->read_end() != -1 || pipe->write_end() != -1) _exit(71);
        _exit(open_descriptors() == std::vector<int>{0, 1, 2} ? 72 : 73);
      });
      EXPECT_EQ(outcome.out, "0 1 2 end\n");
      EXPECT_EQ(outcome.exit_code(), 72) << outcome;
    }
  }
}

/// Throws before anything of its command is started.
class ThrowingStart : public Prepare {
  void bef_fork(TExec&) override { throw std::runtime_error("not started"); }
};

TEST(Pipeline, IsClosedWhenItsReaderIsNotStarted) {
  struct Row {
    const char* why;
    TExec reader;
    Prepare* behind_the_pipe;
  };
  for (const Row& row : {Row{"no program", TExec(frask::sys::el), new Prepare},
                         Row{"an exception before the fork", command({"cat"}), new ThrowingStart},
                         Row{"a failed fork", command({"cat"}), new testexec::Unforkable(true)},
                         Row{"a failed fork that is kept quiet", command({"cat"}),
                             new testexec::Unforkable(false)}}) {
    SCOPED_TRACE(row.why);
    const Handle<Prepare> behind_the_pipe(row.behind_the_pipe);
    const Outcome outcome = alone([&] {
      testexec::limit_processes(20);
      alarm(60);
      TExecsList line = (command({"yes"}) ^ TExec::wait_mode) | row.reader;
      line += behind_the_pipe;
      try {
        if (line.execute().pid != -1) _exit(80);
      } catch (const std::exception&) {
      }
      if (open_descriptors() != std::vector<int>{0, 1, 2}) _exit(81);
      siginfo_t ended = {};
      if (waitid(P_ALL, 0, &ended, WEXITED | WNOWAIT) != 0) _exit(82);
      _exit(ended.si_code == CLD_KILLED && ended.si_status == SIGPIPE ? 83 : 84);
    });
    EXPECT_EQ(outcome.exit_code(), 83) << outcome;
  }
}

TEST(Pipeline, IsClosedWhenItsReaderCannotOpenTheNextOne) {
  const TExec cat = command({"cat"}) ^ TExec::wait_mode;
  TExecsList line = cat | shell("cat") | cat;
  const Outcome outcome = alone([&line] {
    limit_descriptors(6);  // enough for one pipe, not for two at a time
    try {
      line.execute();
      _exit(84);
    } catch (const TSysCallErr& error) {
      if (error.error_number() != EMFILE) _exit(85);
    }
    _exit(open_descriptors() == std::vector<int>{0, 1, 2} ? 86 : 87);
  });
  EXPECT_EQ(outcome.exit_code(), 86) << outcome;
}

TEST(Pipeline, IsClosedWhenACommandBeforeItsReaderThrows) {
  const Outcome outcome = alone([] {
    alarm(60);
    TExecsList joined = (command({"yes"}) ^ TExec::wait_mode) | command({"cat"});
    TExecsList line = (*joined.begin(), TExec(frask::sys::el), *std::next(joined.begin()));
    try {
      line.execute();
      _exit(80);
    } catch (const frask::sys::TSysErr&) {
    }
    siginfo_t ended = {};
    if (waitid(P_ALL, 0, &ended, WEXITED | WNOWAIT) != 0) _exit(82);
    _exit(ended.si_code == CLD_KILLED && ended.si_status == SIGPIPE ? 83 : 84);
  });
  EXPECT_EQ(outcome.exit_code(), 83) << outcome;
}

TEST(Pipeline, IsCreatedAnewOnEachExecution) {
  TExecsList line = shell("echo text") | command({"cat"});
  for (int i = 0; i < 3; ++i) EXPECT_EQ(testexec::capture(line).out, "text\n");
}

TEST(Pipeline, ThrowsBeforeTheForkWhenThereIsNoDescriptorLeft) {
  const Outcome outcome = alone([] {
    limit_descriptors(4);
    try {
      (command({"true"}) | command({"true"})).execute();
    } catch (const TSysCallErr& error) {
      _exit(error.error_number() == EMFILE && testexec::childless() ? 61 : 62);
    }
  });
  EXPECT_EQ(outcome.exit_code(), 61) << outcome;
}

TEST(Pipeline, ReadsNothingFromAPipeThatWasNeverCreated) {
  const Outcome outcome = alone(
      [] { with(descriptor_lister(), new TReadFromPipeline(Handle<TPipe>(new TPipe))).execute(); });
  EXPECT_EQ(outcome.out, "1 2 ") << "standard input is closed";
}

TEST(Redirections, MayUseTheSmallNumbersBesideACapture) {
  const ScratchDir scratch;
  for (int fd = 3; fd < 10; ++fd) {
    SCOPED_TRACE(fd);
    const std::string file = scratch / std::to_string(fd);
    const std::string number = std::to_string(fd);
    const Outcome outcome = alone([&] {
      const TExec talking =
          shell("echo file >&" + number + "; echo captured") & TRedirectToFile(fd, file, false);
      fputs(testexec::capture(talking | command({"cat"})).out.c_str(), stdout);
    });
    EXPECT_EQ(outcome.out, "captured\n") << outcome;
    EXPECT_EQ(read_file(file), "file\n");
  }
}
