#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <sys/resource.h>
#include <unistd.h>

#include <iostream>
#include <string>

#include "exec/TError.h"
#include "support/child.h"
#include "support/scratch.h"
#include "vhost/layout.h"

namespace {

namespace fs = std::filesystem;
using frask::typeFromPath;
using testsupport::in_child;
using testsupport::Outcome;
using testsupport::RunOptions;
using testsupport::ScratchDir;
using testsupport::write_file;

/// What file(1) itself says, asked without our routine.
std::string file_says(const std::string& operand, const RunOptions& options = {}) {
  return testsupport::run({"/usr/bin/file", "-bL", operand}, options).out;
}

TEST(TypeFromPath, GivesWhatTheProgramSaysOfEveryKindOfPath) {
  const ScratchDir dir;
  write_file(dir / "text", "hello\n");
  write_file(dir / "empty", "");
  write_file(dir / "with blanks", "#!/bin/sh\n");
  write_file(dir / "two\nlines", "hello\n");
  write_file(dir / "$(touch x); 'quoted' \"twice\" *", "hello\n");
  fs::create_symlink("text", dir / "link");
  fs::create_symlink("nowhere", dir / "dangling");
  const struct {
    std::string path;
    const char* expected;
  } rows[] = {
      {dir / "text", "ASCII text\n"},
      {dir / "empty", "empty\n"},
      {dir / "with blanks", "POSIX shell script, ASCII text executable\n"},
      {dir / "two\nlines", "ASCII text\n"},
      {dir / "$(touch x); 'quoted' \"twice\" *", "ASCII text\n"},
      {dir / "link", "ASCII text\n"},
      {dir.path().string(), "directory\n"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.path);
    EXPECT_EQ(typeFromPath(row.path), row.expected);
    EXPECT_EQ(file_says(row.path), row.expected);
  }
  for (const std::string& path : {dir / "missing", dir / "dangling", std::string()}) {
    SCOPED_TRACE(path);
    const std::string said = file_says(path);
    ASSERT_NE(said.find("(No such file or directory)"), std::string::npos) << said;
    EXPECT_EQ(typeFromPath(path), said);
  }
}

TEST(TypeFromPath, TakesNoPathForAnOption) {
  const ScratchDir dir;
  write_file(dir / "--version", "hello\n");
  write_file(dir / "-i", "");
  write_file(dir / "-", "#!/bin/sh\n");
  RunOptions options;
  options.directory = dir.path().string();
  options.input = "<html>";
  ASSERT_EQ(file_says("-", options), "HTML document, ASCII text, with no line terminators\n");
  const Outcome outcome = in_child(
      [] { std::cout << typeFromPath("--version") << typeFromPath("-i") << typeFromPath("-"); },
      options);
  EXPECT_EQ(outcome.out, "ASCII text\nempty\nPOSIX shell script, ASCII text executable\n");
  EXPECT_EQ(outcome.err, "");
}

/// A program called "file" in a directory that stands alone in PATH.
RunOptions with_program(const ScratchDir& dir, const std::string& script) {
  write_file(dir / "file", script, 0755);
  RunOptions options;
  options.environment["PATH"] = dir.path().string();
  options.directory = dir.path().string();
  return options;
}

TEST(TypeFromPath, RunsFileFromThePathWithTwoArguments) {
  const ScratchDir dir;
  const RunOptions options =
      with_program(dir, "#!/bin/sh\nfor arg in \"$@\"; do echo \"<$arg>\"; done\n");
  const Outcome outcome = in_child([] { std::cout << typeFromPath("a b\nc"); }, options);
  EXPECT_EQ(outcome.out, "<-bL>\n<a b\nc>\n");
}

TEST(TypeFromPath, AltersThePathOnlyWhereItBeginsWithAMinus) {
  const ScratchDir dir;
  const RunOptions options = with_program(dir, "#!/bin/sh\necho \"$2\"\n");
  const Outcome outcome = in_child(
      [] {
        for (const char* path : {"-x", "-", "a-b", "./-x", "/-x", ""})
          std::cout << typeFromPath(path);
      },
      options);
  EXPECT_EQ(outcome.out, "./-x\n./-\na-b\n./-x\n/-x\n\n");
}

TEST(TypeFromPath, GivesTheStandardOutputAloneWhateverTheStatus) {
  const ScratchDir dir;
  const RunOptions options =
      with_program(dir, "#!/bin/sh\necho said; echo complained >&2; exit 255\n");
  const Outcome outcome = in_child([] { std::cout << "[" << typeFromPath("x") << "]"; }, options);
  EXPECT_EQ(outcome.out, "[said\n]");
  EXPECT_EQ(outcome.err, "complained\n");
}

TEST(TypeFromPath, TakesMoreThanAPipeHolds) {
  const ScratchDir dir;
  const RunOptions options = with_program(
      dir, "#!/bin/sh\ni=0; while [ $i -lt 20000 ]; do echo line$i; i=$((i+1)); done\n");
  const Outcome outcome = in_child([] { std::cout << typeFromPath("x").size(); }, options);
  EXPECT_EQ(outcome.out, "188890");
}

/// What a careless caller does: a second process would print, and write its buffers, once more.
void ask_carelessly() {
  std::cout << "before;";
  printf("buffered;");
  try {
    std::cout << typeFromPath("/");
  } catch (const frask::sys::TSysCallErr& error) {
    std::cout << "caught " << error.error_number() << " " << error.what() << ";";
  } catch (const std::exception& error) {
    std::cout << "other " << error.what() << ";";
  }
  std::cout << "after;" << std::flush;
}

TEST(TypeFromPath, ThrowsInTheCallerAloneWhenThereIsNoSuchProgram) {
  RunOptions options;
  options.environment["PATH"] = "/nonexistent";
  const Outcome outcome = in_child(ask_carelessly, options);
  EXPECT_EQ(outcome.out, "before;buffered;caught 2 No such file or directory;after;");
  EXPECT_EQ(outcome.err, "");
}

TEST(TypeFromPath, ThrowsInTheCallerAloneWhenTheProgramCannotBeExecuted) {
  const ScratchDir dir;
  RunOptions options = with_program(dir, "");
  ASSERT_EQ(chmod((dir / "file").c_str(), 0644), 0);
  const Outcome outcome = in_child(ask_carelessly, options);
  EXPECT_EQ(outcome.out, "before;buffered;caught 13 Permission denied;after;");
}

TEST(TypeFromPath, ThrowsInTheCallerAloneWhenThePathIsTooLongForAnArgument) {
  EXPECT_THROW(
      try {
        typeFromPath(std::string(4 << 20, 'x'));
      } catch (const frask::sys::TSysCallErr& error) {
        EXPECT_EQ(error.error_number(), E2BIG);
        throw;
      },
      frask::sys::TSysCallErr);
}

TEST(TypeFromPath, LeavesNoProcessAndNoDescriptorBehind) {
  RunOptions nowhere;
  nowhere.environment["PATH"] = "/nonexistent";
  const auto leaves_nothing = [] {
    const std::vector<int> before = testsupport::open_descriptors();
    ask_carelessly();
    if (testsupport::open_descriptors() != before) _exit(1);
    if (waitpid(-1, nullptr, WNOHANG) != -1 || errno != ECHILD) _exit(2);
  };
  EXPECT_EQ(in_child(leaves_nothing).exit_code(), 0);
  EXPECT_EQ(in_child(leaves_nothing, nowhere).exit_code(), 0);
}

TEST(TypeFromPath, ThrowsWhenNothingCanBeSharedWithTheChild) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "AddressSanitizer's allocator ends the process when the kernel refuses memory";
#endif
  const Outcome outcome = in_child([] {
    std::cout << std::flush;
    const rlimit none = {1, 1};
    if (setrlimit(RLIMIT_AS, &none) != 0) _exit(1);
    ask_carelessly();
  });
  EXPECT_EQ(outcome.out, "before;buffered;caught 12 Cannot allocate memory;after;");
}

TEST(TypeFromPath, ThrowsWhenNoProcessCanBeStarted) {
  const Outcome outcome = in_child([] {
    const rlimit none = {0, 0};
    if (setrlimit(RLIMIT_NPROC, &none) != 0 || setuid(65534) != 0) _exit(1);
    ask_carelessly();
  });
  EXPECT_EQ(outcome.out, "before;buffered;caught 11 Resource temporarily unavailable;after;");
}

}  // namespace
