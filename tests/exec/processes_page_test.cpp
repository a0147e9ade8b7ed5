#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <initializer_list>
#include <stdexcept>
#include <string>

#include "exec/commands.h"
#include "exec/texec.h"
#include "support/scratch.h"

using frask::Handle;
using frask::sys::el;
using frask::sys::TEArgs;
using frask::sys::TExec;
using frask::sys::TReadOut;
using frask::sys::TRedirect;
using frask::sys::TRedirectToFile;
using frask::sys::TSLProcess;
using frask::sys::TSysCallErr;
using frask::sys::wait_mode;

namespace {

// Below stands every block of code of docs/processes.md, in its order.

/// A command of which the program is searched, which is waited for, and which has no redirections.
TExec command(std::initializer_list<std::string> words) {
  TEArgs args = el;
  for (const std::string& word : words) args.push_back(word);
  return TExec(args);
}

bool is_gzip(const std::string& path) {
  TExec quiet = command({"gzip", "-t", path}) & TRedirectToFile(2, "/dev/null", false);
  return quiet.execute().result == 0;
}

int count_lines(const std::string& in, const std::string& out) {
  const TExec cat = command({"cat"}) ^ wait_mode;
  const TExec sort = command({"sort"}) ^ wait_mode;
  const TExec uniq = command({"uniq", "-c"});
  return ((cat < in) | sort | (uniq > out)).execute().result;
}

std::string largest_first(const std::string& numbers) {
  std::string out;
  out <<= (command({"sort", "-rn"}) ^ wait_mode) << numbers;
  return out;
}

std::string entries(const std::string& directory) {
  std::string out;
  try {
    out <<= command({"ls", directory}) ^ wait_mode;
  } catch (const std::runtime_error& error) {
    return std::string("failed: ") + error.what();
  }
  return out;
}

std::string first_lines(const std::string& path, int count) {
  const TExec cat = command({"zcat", path}) ^ wait_mode;
  const TExec head = command({"head", "-n", std::to_string(count)}) ^ wait_mode;
  std::string out;
  out <<= cat | head;
  return out;
}

void backup_in_background(const std::string& directory, const std::string& archive,
                          const std::function<void()>& meanwhile) {
  const TSLProcess tar =
      (command({"tar", "-czf", archive, "-C", directory, "."}) ^ wait_mode).execute();
  meanwhile();
  int status = 0;
  if (waitpid(tar.pid, &status, 0) != tar.pid || status != 0)
    throw std::runtime_error("the backup has failed");
}

std::string two_headings(const std::string& out) {
  (command({"echo", "first"}) > out, command({"echo", "second"}) >> out).execute();
  std::string both;
  both <<= (command({"true"}), command({"cat", out}));
  return both;
}

std::string words_of(const std::string& path) {
  if (access(path.c_str(), R_OK) != 0) throw std::runtime_error(path + " cannot be read");
  std::string out;
  out <<= (command({"wc", "-w"}) < path) ^ wait_mode;
  return out;
}

int run(TExec command) {
  const pid_t caller = getpid();
  try {
    return command.execute().result;
  } catch (const TSysCallErr& error) {
    if (getpid() == caller) throw;  // fork or waitpid
    dprintf(STDERR_FILENO, "%s: %s\n", command.args()[0].c_str(), error.what());
    _exit(127);
  }
}

/// Runs the program in another directory.
class InDirectory : public TExec::TPrepare {
 public:
  explicit InDirectory(const std::string& path) : path_(path) {}
  void bef_exec(TExec&) override {
    if (chdir(path_.c_str()) != 0) _exit(126);
  }

 private:
  std::string path_;
};

std::string working_directory(const std::string& path) {
  TExec pwd = command({"pwd", "-P"}) ^ wait_mode;
  pwd += Handle<TExec::TPrepare>(new InDirectory(path));
  std::string out;
  out <<= pwd;
  return out;
}

std::string both_streams(TExec command) {
  auto* const output = new TReadOut;
  command += Handle<TExec::TPrepare>(output);
  const TSLProcess process = ((command & TRedirect(2, 1)) ^ wait_mode).execute();
  std::string text;
  char chunk[4096];
  for (ssize_t got; (got = read(output->read_end(), chunk, sizeof chunk)) > 0;)
    text.append(chunk, static_cast<std::size_t>(got));
  waitpid(process.pid, nullptr, 0);
  return text;
}

// Above stands every block of code of docs/processes.md.

}  // namespace

using testexec::alone;
using testsupport::Outcome;
using testsupport::read_file;
using testsupport::ScratchDir;
using testsupport::write_file;

namespace {

std::string between(const std::string& text, const std::string& from, const std::string& to) {
  const size_t begin = text.find(from) + from.size();
  return text.substr(begin, text.find(to, begin) - begin);
}

}  // namespace

TEST(ProcessesPage, ShowsTheCodeThatIsTestedHere) {
  const std::filesystem::path source = SOURCE_DIR;
  const std::string page = read_file(source / "docs/processes.md");
  const std::string fence = "```cpp\n";
  std::string code;
  size_t blocks = 0;
  for (size_t at = page.find(fence); at != std::string::npos; at = page.find(fence, at + 1)) {
    const size_t begin = at + fence.size();
    code += "\n" + page.substr(begin, page.find("```", begin) - begin);
    ++blocks;
  }
  EXPECT_GT(blocks, 5U);
  const std::string here = read_file(source / "tests/exec/processes_page_test.cpp");
  EXPECT_EQ(
      code,
      between(here, "// Below stands every block of code of docs/processes.md, in its order.\n",
              "\n// Above"));
}

TEST(ProcessesPage, TestsAnArchiveQuietly) {
  const ScratchDir scratch;
  write_file(scratch / "text", "no archive");
  ASSERT_EQ(testsupport::run({"sh", "-c", "echo x | gzip > " + (scratch / "good.gz")}).status, 0);
  const Outcome outcome = alone([&scratch] {
    _exit((is_gzip(scratch / "good.gz") ? 10 : 0) + (is_gzip(scratch / "text") ? 1 : 0));
  });
  EXPECT_EQ(outcome.exit_code(), 10);
  EXPECT_EQ(outcome.err, "");
}

TEST(ProcessesPage, CountsTheLinesOfAFile) {
  const ScratchDir scratch;
  std::string text;
  for (int i = 0; i < 100000; ++i) text += i % 4 == 0 ? "b\n" : "a\n";  // more than a pipe holds
  write_file(scratch / "in", text);
  EXPECT_EQ(count_lines(scratch / "in", scratch / "out"), 0);
  EXPECT_EQ(read_file(scratch / "out"), "  75000 a\n  25000 b\n");
}

TEST(ProcessesPage, SortsAText) {
  EXPECT_EQ(largest_first("2\n10\n1\n"), "10\n2\n1\n");
}

TEST(ProcessesPage, ReportsAFailureWithItsExitCode) {
  const ScratchDir scratch;
  write_file(scratch / "file", "");
  EXPECT_EQ(entries(scratch.path()), "file\n");
  const Outcome outcome = alone([] { printf("%s", entries("/nonexistent").c_str()); });
  EXPECT_EQ(outcome.out, "failed: child failed (exit code=2): ");
}

TEST(ProcessesPage, CutsALongOutput) {
  const ScratchDir scratch;
  ASSERT_EQ(testsupport::run({"sh", "-c", "seq 1000000 | gzip > " + (scratch / "n.gz")}).status, 0);
  EXPECT_EQ(first_lines(scratch / "n.gz", 2), "1\n2\n");
}

TEST(ProcessesPage, DoesOtherWorkMeanwhile) {
  const ScratchDir scratch;
  write_file(scratch / "tree/file", "text");
  bool done = false;
  backup_in_background(scratch / "tree", scratch / "a.tgz", [&done] { done = true; });
  EXPECT_TRUE(done);
  EXPECT_TRUE(is_gzip(scratch / "a.tgz"));
  const Outcome failed =
      alone([&scratch] { backup_in_background("/nonexistent", scratch / "a.tgz", [] {}); });
  EXPECT_NE(failed.err.find("the backup has failed"), std::string::npos) << failed;
}

TEST(ProcessesPage, RunsOneAfterTheOther) {
  const ScratchDir scratch;
  EXPECT_EQ(two_headings(scratch / "out"), "first\nsecond\n");
}

TEST(ProcessesPage, ChecksAFileBeforehand) {
  const ScratchDir scratch;
  write_file(scratch / "in", "three words here");
  EXPECT_EQ(words_of(scratch / "in"), "3\n");
  EXPECT_THROW(words_of("/nonexistent/file"), std::runtime_error);
}

TEST(ProcessesPage, EndsTheChildThatCannotStartItsProgram) {
  EXPECT_EQ(run(command({"sh", "-c", "exit 4"})), 4);
  const Outcome outcome = alone([] { _exit(run(command({"/nonexistent/program"}))); });
  EXPECT_EQ(outcome.exit_code(), 127);
  EXPECT_EQ(outcome.err, "/nonexistent/program: No such file or directory\n");
}

TEST(ProcessesPage, RunsAProgramInAnotherDirectory) {
  const ScratchDir scratch;
  const std::string real = std::filesystem::canonical(scratch.path());
  EXPECT_EQ(working_directory(scratch.path()), real + "\n");
  EXPECT_THROW(working_directory("/nonexistent"), std::runtime_error);
}

TEST(ProcessesPage, CapturesBothStreams) {
  EXPECT_EQ(both_streams(command({"sh", "-c", "echo out; echo error >&2"})), "out\nerror\n");
}
