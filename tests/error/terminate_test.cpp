#include "error/terminate.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>

#include <exception>
#include <string>

#include "support/child.h"

namespace {

using testsupport::Outcome;
using testsupport::run;

Outcome escape(const std::string& way) {
  return run({ESCAPE_PROGRAM, way});
}

TEST(TerminateByExceptionUnsafe, WritesTheTextOfAStandardException) {
  struct Row {
    const char* way;
    std::string line;
  };
  const Row rows[] = {
      {"runtime_error", "Unexpected error: boom\n"},
      {"empty", "Unexpected error: \n"},
      {"percent", "Unexpected error: 100%n%s\n"},
      {"noexcept", "Unexpected error: boom\n"},
      {"system_error", std::string("Unexpected error: waitpid() failed: ") + strerror(10) + "\n"}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.way);
    const Outcome outcome = escape(row.way);
    EXPECT_EQ(outcome.err, row.line);
    EXPECT_EQ(outcome.exit_code(), 1);
  }
}

TEST(TerminateByExceptionUnsafe, WritesNoTextForAnythingElse) {
  for (const char* way : {"int", "class", "c_string", "none"}) {
    SCOPED_TRACE(way);
    const Outcome outcome = escape(way);
    EXPECT_EQ(outcome.err, "Unexpected error\n");
    EXPECT_EQ(outcome.exit_code(), 1);
  }
}

TEST(TerminateByExceptionUnsafe, EndsThroughExit) {
  for (const char* way : {"runtime_error", "int", "none"}) {
    SCOPED_TRACE(way);
    EXPECT_EQ(escape(way).out, "buffered\natexit handler\nstatic destructor\n");
  }
}

TEST(TerminateByExceptionUnsafe, AbortsAtOnceWhenWhatThrows) {
  const Outcome outcome = escape("throwing_what");
  EXPECT_EQ(outcome.exit_code(), -SIGABRT);
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(outcome.out, "") << "no handler runs, nothing is flushed";
}

TEST(TerminateByExceptionUnsafe, AbortsWhenAnExitHandlerThrows) {
  const Outcome outcome = escape("at_exit");
  EXPECT_EQ(outcome.err, "Unexpected error: boom\n");
  EXPECT_EQ(outcome.exit_code(), -SIGABRT);
}

TEST(TerminateByExceptionUnsafe, LeavesAnOrdinaryEndAlone) {
  const Outcome outcome = escape("ordinary");
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(outcome.out, "buffered\natexit handler\nstatic destructor\n");
  EXPECT_EQ(outcome.exit_code(), 0);
}

TEST(OxaSetTerminate, InstallsTheHandler) {
  const std::terminate_handler before = std::get_terminate();
  ASSERT_NE(before, &frask::terminateByExceptionUnsafe);
  oxa_set_terminate();
  EXPECT_EQ(std::get_terminate(), &frask::terminateByExceptionUnsafe);
  std::set_terminate(before);
}

}  // namespace
