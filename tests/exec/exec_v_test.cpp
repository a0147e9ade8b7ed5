#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "exec/commands.h"
#include "exec/texec.h"
#include "support/scratch.h"

using frask::sys::exec_v;
using frask::sys::TEArgs;
using testexec::alone;
using testexec::arguments;
using testsupport::Outcome;
using testsupport::ScratchDir;

TEST(ExecV, GivesMinusOneAndTheErrorNumber) {
  const ScratchDir scratch;
  testsupport::write_file(scratch / "file", "", 0644);
  struct Row {
    std::string program;
    int error;
  };
  for (const Row& row : {Row{"/nonexistent/program", ENOENT}, Row{scratch / "file", EACCES}}) {
    for (const bool search_path : {true, false}) {
      SCOPED_TRACE(row.program);
      errno = 0;
      EXPECT_EQ(exec_v(arguments({row.program, "argument"}), search_path), -1);
      EXPECT_EQ(errno, row.error);
    }
  }
}

TEST(ExecV, PassesEveryArgument) {
  TEArgs args = arguments({"sh", "-c", "echo $# \"$@\"", "$0"});
  while (args.size() < 100) args.push_back("a");
  const Outcome outcome = alone([&args] { exec_v(args, true); });
  std::string expected = "96";
  for (int i = 0; i < 96; ++i) expected += " a";
  EXPECT_EQ(outcome.out, expected + "\n");
}

TEST(ExecV, SearchesThePathOnlyWhenTold) {
  for (const bool search_path : {true, false}) {
    const Outcome outcome = alone([search_path] {
      exec_v(arguments({"sh", "-c", "exit 4"}), search_path);
      _exit(5);
    });
    EXPECT_EQ(outcome.exit_code(), search_path ? 4 : 5);
  }
}

TEST(ExecV, CutsArgumentsAtTheirFirstNul) {
  const Outcome outcome = alone([] {
    exec_v(arguments({"echo", std::string("a\0b", 3), "", "c"}), true);
  });
  EXPECT_EQ(outcome.out, "a  c\n");
}

TEST(ExecV, ThrowsForAnEmptyVector) {
  EXPECT_THROW(exec_v(frask::sys::el, true), TEArgs::TOutOfRange);
}
