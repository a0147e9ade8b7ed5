#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <iostream>

#include "exec/commands.h"
#include "exec/exec_support.h"
#include "exec/texec.h"
#include "support/scratch.h"

using frask::Handle;
using frask::sys::TExec;
using frask::sys::TFromFile;
using frask::sys::TReadFromStr;
using frask::sys::TRedirect;
using frask::sys::TRedirectToFile;
using frask::sys::TToFile;
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

constexpr auto kWait = frask::sys::wait_mode;

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

void limit_descriptors(rlim_t most) {
  const rlimit limit{most, most};
  if (setrlimit(RLIMIT_NOFILE, &limit) != 0) throw std::runtime_error("cannot limit descriptors");
}

}  // namespace

TEST(TPrepare, DoesNothingAndLetsFailuresBeThrown) {
  TExec plain = command({"true"});
  Prepare root;
  root.bef_fork(plain);
  root.aft_fork4p(plain);
  root.aft_fork4d(plain);
  root.bef_exec(plain);
  EXPECT_TRUE(root.fork_failed(plain));
  EXPECT_TRUE(root.exec_failed(plain));
  EXPECT_EQ(plain.mode(), TExec::def_mode);
}

TEST(TRedirect, MakesTheTargetACopyOfTheSource) {
  const ScratchDir scratch;
  const int fd = open((scratch / "file").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  ASSERT_GE(fd, 0);
  for (const TExec& redirected : both_starts(shell("echo text >&2") & TRedirect(2, fd)))
    EXPECT_EQ(TExec(redirected).execute().result, 0);
  close(fd);
  EXPECT_EQ(read_file(scratch / "file"), "text\ntext\n");
}

TEST(TRedirect, LeavesTheSourceOpen) {
  for (const TExec& redirected : both_starts(descriptor_lister() & TRedirect(5, 2))) {
    const Outcome outcome = alone([&redirected] { TExec(redirected).execute(); });
    EXPECT_EQ(outcome.out, "0 1 2 5 ");
  }
}

TEST(TRedirect, ClosesTheTargetWhenTheSourceIsNotOpen) {
  for (const TExec& redirected : both_starts(descriptor_lister() & TRedirect(2, 7))) {
    const Outcome outcome = alone([&redirected] { TExec(redirected).execute(); });
    EXPECT_EQ(outcome.out, "0 1 ");
  }
}

TEST(TRedirect, ClosesADescriptorThatIsRedirectedToItself) {
  for (const TExec& redirected : both_starts(descriptor_lister() & TRedirect(2, 2))) {
    const Outcome outcome = alone([&redirected] { TExec(redirected).execute(); });
    EXPECT_EQ(outcome.out, "0 1 ");
  }
}

TEST(TRedirectToFile, CreatesTruncatesOrAppends) {
  const ScratchDir scratch;
  const std::string file = scratch / "file";
  const mode_t usual = umask(0);
  const auto write_through = [&file](bool append) {
    return (shell("echo text >&5") & TRedirectToFile(5, file, append)).execute().result;
  };
  EXPECT_EQ(write_through(false), 0);
  EXPECT_EQ(testsupport::mode_of(file), 0664U);
  EXPECT_EQ(read_file(file), "text\n");
  EXPECT_EQ(write_through(true), 0);
  EXPECT_EQ(read_file(file), "text\ntext\n");
  EXPECT_EQ(write_through(false), 0);
  EXPECT_EQ(read_file(file), "text\n");
  ASSERT_EQ(unlink(file.c_str()), 0);
  EXPECT_EQ(write_through(true), 0);
  EXPECT_EQ(testsupport::mode_of(file), 0664U) << "appending creates, too";
  umask(usual);
}

TEST(TRedirectToFile, AppendsEvenWhenOthersWriteMeanwhile) {
  const ScratchDir scratch;
  const std::string file = scratch / "file";
  TExec appending = shell("echo other >> " + file + "; echo text") & TRedirectToFile(1, file, true);
  appending.execute();
  EXPECT_EQ(read_file(file), "other\ntext\n");
}

TEST(TRedirectToFile, OpensForWritingOnlyAndKeepsNoSecondDescriptor) {
  const ScratchDir scratch;
  const std::string file = scratch / "file";
  const Outcome outcome = alone([&file] {
    (descriptor_lister() & TRedirectToFile(5, file, false)).execute();
    (shell("cat <&5 || echo refused") & TRedirectToFile(5, file, false)).execute();
  });
  EXPECT_EQ(outcome.out, "0 1 2 5 refused\n");
}

TEST(TRedirectToFile, FillsADescriptorThatWasClosed) {
  const ScratchDir scratch;
  const std::string file = scratch / "file";
  alone([&file] {
    close(1);
    (shell("echo text") > file).execute();
  });
  EXPECT_EQ(read_file(file), "text\n");
}

TEST(TRedirectToFile, LeavesTheDescriptorClosedWhereTheFileCannotBeOpened) {
  const Outcome outcome = alone(
      [] { (descriptor_lister() & TRedirectToFile(2, "/nonexistent/file", false)).execute(); });
  EXPECT_EQ(outcome.out, "0 1 ");
}

TEST(TToFile, WritesStandardOutputToTheFile) {
  const ScratchDir scratch;
  const std::string file = scratch / "file";
  const mode_t usual = umask(0);
  EXPECT_EQ(with(shell("echo one"), new TToFile(file, false)).execute().result, 0);
  EXPECT_EQ(testsupport::mode_of(file), 0664U);
  EXPECT_EQ(with(shell("echo two"), new TToFile(file, true)).execute().result, 0);
  EXPECT_EQ(read_file(file), "one\ntwo\n");
  EXPECT_EQ(with(shell("echo three"), new TToFile(file, false)).execute().result, 0);
  EXPECT_EQ(read_file(file), "three\n");
  umask(usual);
}

TEST(TToFile, LetsTheProgramFailWhereTheFileCannotBeOpened) {
  const Outcome outcome = alone([] {
    const int result = (shell("echo text") > "/nonexistent/file").execute().result;
    _exit(result == 0 ? 50 : 51);
  });
  EXPECT_EQ(outcome.exit_code(), 51) << "the program cannot write";
  EXPECT_EQ(outcome.out, "");
}

TEST(TFromFile, FeedsTheFile) {
  const ScratchDir scratch;
  write_file(scratch / "in", "the text");
  EXPECT_EQ(testexec::capture(command({"cat"}) < (scratch / "in")).out, "the text");
}

TEST(TFromFile, OpensForReadingOnlyAndKeepsNoSecondDescriptor) {
  const ScratchDir scratch;
  write_file(scratch / "in", "");
  const Outcome outcome = alone([&scratch] {
    with(descriptor_lister(), new TFromFile(scratch / "in")).execute();
    with(shell("(echo x >&0) 2>&- || echo refused"), new TFromFile(scratch / "in")).execute();
  });
  EXPECT_EQ(outcome.out, "0 1 2 refused\n");
}

TEST(TFromFile, FillsStandardInputThatWasClosed) {
  const ScratchDir scratch;
  write_file(scratch / "in", "the text");
  const Outcome outcome = alone([&scratch] {
    close(0);
    (command({"cat"}) < (scratch / "in")).execute();
  });
  EXPECT_EQ(outcome.out, "the text");
}

TEST(TFromFile, LeavesStandardInputClosedWhereTheFileCannotBeOpened) {
  const Outcome outcome =
      alone([] { with(descriptor_lister(), new TFromFile("/nonexistent/file")).execute(); });
  EXPECT_EQ(outcome.out, "1 2 ");
}

TEST(TReadFromStr, FeedsTheText) {
  std::string every_byte;
  for (int i = 0; i < 256; ++i) every_byte += static_cast<char>(i);
  for (const std::string& text :
       {std::string("some text"), std::string(), every_byte, std::string(1 << 20, 'x') + "end"}) {
    EXPECT_EQ(testexec::capture((command({"cat"}) ^ kWait) << text).out, text);
  }
}

TEST(TReadFromStr, FeedsOnlyTheText) {
  const Outcome outcome = alone([] {
    // Both are still in the streams' buffers when the process is copied.
    printf("stdio ");
    std::cout << "cout ";
    atexit([] { fputs("handler ", stdout); });
    (command({"cat"}) << "text ").execute();
  });
  EXPECT_EQ(outcome.out, "text stdio cout handler ");
}

TEST(TReadFromStr, GivesTheProgramStandardInputAlone) {
  const Outcome outcome = alone([] { (descriptor_lister() << "text").execute(); });
  EXPECT_EQ(outcome.out, "0 1 2 ");
}

TEST(TReadFromStr, EndsItsWriterWhenTheProgramDoesNotRead) {
  // The capture ends only when the writer has let go of its copy of standard output.
  EXPECT_EQ(testexec::capture(shell("echo done") << std::string(1 << 20, 'x')).out, "done\n");
}

TEST(TReadFromStr, LeavesItsWriterToTheReaperOfOrphans) {
  const Outcome outcome = alone([] {
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    const int program = (command({"true"}) << std::string(200000, 'x')).execute().pid;
    int status = -1;
    const int orphan = wait(&status);
    if (orphan <= 0 || orphan == program || !testexec::childless()) _exit(50);
    _exit(WIFSIGNALED(status) && WTERMSIG(status) == SIGPIPE ? 51 : 52);
  });
  EXPECT_EQ(outcome.exit_code(), 51) << outcome;
}

TEST(TReadFromStr, EndsItsWriterWithStatus0WhateverBecameOfTheTextWhereSigpipeIsIgnored) {
  const auto status_of = [](bool reader) {
    return alone([reader] {
             signal(SIGPIPE, SIG_IGN);
             int ends[2];
             if (reader && pipe(ends) == 0) TReadFromStr("text").action_of_d(ends[0], ends[1]);
             TReadFromStr("text").action_of_d(-1, -1);
           })
        .exit_code();
  };
  EXPECT_EQ(status_of(true), 0) << "its reader has gone";
  EXPECT_EQ(status_of(false), 0) << "nothing to write to";
}

TEST(TReadFromStr, ThrowsInTheChildWithoutAPipe) {
  const Outcome outcome = alone([] {
    limit_descriptors(4);
    _exit((command({"cat"}) << "text").execute().result);
  });
  EXPECT_EQ(outcome.exit_code(), testexec::kFailedInChild) << outcome;
  EXPECT_EQ(outcome.err, strerror(EMFILE));
}

TEST(TReadFromStr, ThrowsInTheChildWithoutASecondProcess) {
  const Outcome outcome = alone([] {
    testexec::limit_processes(2);
    _exit((command({"cat"}) << "text").execute().result);
  });
  EXPECT_EQ(outcome.exit_code(), testexec::kFailedInChild) << outcome;
  EXPECT_EQ(outcome.err, strerror(EAGAIN));
}

TEST(TReadFromStr, HasARoutineForEachSide) {
  const Outcome reading = alone([] {
    int ends[2];
    if (pipe(ends) != 0 || write(ends[1], "text", 4) != 4) _exit(80);
    TReadFromStr("unused").action_of_p(ends[0], ends[1]);
    const std::string text = read_to_end(0);
    _exit(text == "text" && open_descriptors() == std::vector<int>{0, 1, 2} ? 81 : 82);
  });
  EXPECT_EQ(reading.exit_code(), 81);
  const Outcome writing = alone([] {
    int ends[2];
    if (pipe(ends) != 0) _exit(80);
    const pid_t pid = fork();
    if (pid == 0) TReadFromStr("the text").action_of_d(ends[0], ends[1]);
    close(ends[1]);
    int status = -1;
    waitpid(pid, &status, 0);
    _exit(read_to_end(ends[0]) == "the text" && status == 0 ? 81 : 82);
  });
  EXPECT_EQ(writing.exit_code(), 81);
}
