// Lines of which one command fails to start, and a preparation keeps that quiet.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "exec/commands.h"
#include "exec/texec.h"
#include "support/scratch.h"

using frask::Handle;
using frask::sys::TExec;
using frask::sys::TExecsList;
using frask::sys::TSLProcess;
using testexec::alone;
using testexec::command;
using testexec::shell;
using testsupport::open_descriptors;
using testsupport::Outcome;
using testsupport::read_file;
using testsupport::ScratchDir;

namespace {

using Prepare = TExec::TPrepare;

/// Reads to the end, adds a letter to a file and ends with status 5.
TExec noting(const std::string& file, char letter) {
  return shell(std::string("cat > /dev/null 2>&1; printf ") + letter + " >> " + file + "; exit 5");
}

/// "a | b | c", where the one at `position` is `odd` if that is given, and has a preparation of
/// ours behind its pipes: what the pipes' own would answer does not count then.
TExecsList line_of_three(const std::string& file, int position, const TExec* odd,
                         Prepare* preparation) {
  const auto at = [&](int i) {
    return i == position && odd != nullptr ? *odd : noting(file, static_cast<char>('a' + i));
  };
  TExecsList line = (at(0) < "/dev/null") | at(1) | at(2);
  *std::next(line.begin(), position) += Handle<Prepare>(preparation);
  return line;
}

}  // namespace

TEST(QuietForkFailure, LetsTheLineGoOnWithoutTheCommand) {
  struct Row {
    int position;
    const char* letters;
    bool started;
  };
  for (const Row& row : {Row{0, "bc", true}, Row{1, "ac", true}, Row{2, "ab", false}}) {
    SCOPED_TRACE(row.position);
    const ScratchDir scratch;
    const std::string file = scratch / "file";
    testsupport::write_file(file, "");
    ASSERT_EQ(chmod(file.c_str(), 0666), 0);
    ASSERT_EQ(chmod(scratch.path().c_str(), 0755), 0);
    const Outcome outcome = alone([&] {
      testexec::limit_processes(20);
      alarm(60);
      TExecsList line = line_of_three(file, row.position, nullptr, new testexec::Unforkable(false));
      const TSLProcess process = line.execute();
      if (process.result != (row.started ? 5 : -1)) _exit(80);
      if ((process.pid > 0) != row.started || process.pid == 0) _exit(81);
      _exit(open_descriptors() == std::vector<int>{0, 1, 2} && testexec::childless() ? 82 : 83);
    });
    EXPECT_EQ(outcome.exit_code(), 82) << outcome;
    EXPECT_EQ(read_file(file), row.letters) << "the next one has found the end of its input";
  }
}

TEST(QuietForkFailure, IsOverruledByAPipeThatIsAddedBehindIt) {
  const Outcome outcome = alone([] {
    testexec::limit_processes(20);
    const TExec quiet = command({"cat"}) * Handle<Prepare>(new testexec::Unforkable(false));
    (command({"true"}) | quiet).execute();
  });
  EXPECT_EQ(outcome.exit_code(), testexec::kFailedInCaller) << outcome;
}

TEST(QuietExecFailure, LetsTheChildRunTheRestOfTheLineAsWell) {
  struct Row {
    int position;
    const char* letters;
    const char* results;
  };
  for (const Row& row :
       {Row{0, "bcbc", "child 5, caller 5, "}, Row{1, "acc", "child 5, caller 5, "},
        Row{2, "ab", "child -1, caller 9, "}}) {
    SCOPED_TRACE(row.position);
    const ScratchDir scratch;
    const Outcome outcome = alone([&] {
      alarm(60);
      const TExec missing = command({"/nonexistent/program"});
      auto* const recorder = new testexec::Recorder(scratch / "record");
      recorder->exec_answer = false;
      TExecsList line = line_of_three(scratch / "file", row.position, &missing, recorder);
      const pid_t caller = getpid();
      const int result = line.execute().result;
      dprintf(STDERR_FILENO, "%s %d, ", getpid() == caller ? "caller" : "child", result);
      _exit(9);
    });
    EXPECT_EQ(outcome.err, row.results) << outcome;
    EXPECT_EQ(read_file(scratch / "file"), row.letters);
    EXPECT_EQ(testexec::recorded(scratch / "record", "child"),
              (std::vector<std::string>{"aft_fork4d", "bef_exec", "exec_failed"}));
  }
}
