#include <errno.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <map>

#include "fs/tree.h"
#include "support/limits.h"
#include "support/private_mounts.h"
#include "support/scratch.h"
#include "support/stopped_child.h"
#include "support/tree_listing.h"
#include "tree_support.h"

// rm_tree_aux() reports each failure and returns; rm_tree() stops at the first and ends the
// process.
namespace {

using fstest::ended;
using fstest::kReturned;
using fstest::make_tree_of_nobody;
using fstest::report;
using testsupport::in_child;
using testsupport::Outcome;
using testsupport::ScratchDir;
using testsupport::set_immutable;
using testsupport::tree_listing;
using testsupport::write_file;
using Lines = std::vector<std::string>;

/// rm_tree_aux() in a child that stands in `directory`, which must be its own still afterwards.
Outcome remove_in(const std::filesystem::path& directory, const std::string& path,
                  int stop_on_error, int remove_top = 1) {
  return in_child([&] {
    if (chdir(directory.c_str()) != 0) _exit(97);
    const std::vector<int> open = testsupport::open_descriptors();
    const int result = rm_tree_aux(path.c_str(), remove_top, stop_on_error);
    if (fstest::working_directory() != directory) _exit(95);
    if (testsupport::open_descriptors() != open) _exit(94);
    _exit(kReturned + result);
  });
}

void make_immutable_file(const std::string& path) {
  write_file(path, "");
  ASSERT_TRUE(set_immutable(path, true)) << path;
}

TEST(RmTreeAux, ReportsAPathThatCannotBeExamined) {
  const ScratchDir scratch;
  write_file(scratch / "file", "");
  for (const int stop : {0, 1})
    EXPECT_EQ(
        remove_in(scratch.path(), "file/below", stop),
        ended(kReturned + 1, report("Unable to check directory entry ", "file/below", ENOTDIR)));
}

TEST(RmTreeAux, ReportsAFileThatResists) {
  const ScratchDir scratch;
  ASSERT_NO_FATAL_FAILURE(make_immutable_file(scratch / "file"));
  for (const int stop : {0, 1})
    EXPECT_EQ(remove_in(scratch.path(), "./file", stop),
              ended(kReturned + 1, report("Unable to unlink entry ", "./file", EPERM)));
}

TEST(RmTreeAux, TakesWhatIsNeitherFileNorLinkNorDirectoryForADirectory) {
  const ScratchDir scratch;
  fstest::make_each_type(scratch.path());
  const Lines before = tree_listing(scratch.path());
  for (const char* name : {"pipe", "socket", "device"}) {
    SCOPED_TRACE(name);
    EXPECT_EQ(remove_in(scratch.path(), name, 1),
              ended(kReturned + 1, report("Unable to open dir ", name, ENOTDIR)));
  }
  EXPECT_EQ(tree_listing(scratch.path()), before);
}

TEST(RmTreeAux, ReportsADirectoryThatResists) {
  const ScratchDir scratch;
  std::filesystem::create_directories(scratch / "busy/sub");
  const auto outcome = in_child([&] {
    testsupport::enter_private_mounts();
    const std::string sub = scratch / "busy/sub";
    if (mount(sub.c_str(), sub.c_str(), "none", MS_BIND, nullptr) != 0) _exit(97);
    _exit(kReturned + rm_tree_aux((scratch / "busy").c_str(), 1, 0));
  });
  EXPECT_EQ(outcome,
            ended(kReturned + 1, report("Unable to remove dir ", "sub", EBUSY) +
                                     report("Unable to remove dir ", scratch / "busy", ENOTEMPTY)));
}

TEST(RmTreeAux, WritesItsReportByteForByte) {
  const ScratchDir scratch;
  ASSERT_NO_FATAL_FAILURE(make_immutable_file(scratch / "top/file"));
  EXPECT_EQ(remove_in(scratch.path(), "top", 1),
            ended(kReturned + 1,
                  "Unable to unlink directory entry file: Operation not permitted\n"
                  "\n"
                  "System error 1: Operation not permitted\n"
                  "Unable to remove dir top: Directory not empty\n"
                  "\n"
                  "System error 39: Directory not empty\n"));
}

/// "top" holding three files that resist in directories of their own, and much that does not.
void make_resisting_tree(const ScratchDir& scratch) {
  for (const char* sub : {"a", "b", "c"}) {
    make_immutable_file(scratch.path() / "top" / sub / "file");
    write_file(scratch.path() / "top" / sub / "sub/other", "");
  }
  fstest::make_each_type(scratch / "top/each");
}

/// How often each report was written, in whatever order the directories gave their entries.
std::map<std::string, int> reports_in(const std::string& text) {
  const std::string beginning = "Unable to ";
  std::map<std::string, int> found;
  for (size_t at = 0; at < text.size();) {
    const size_t next = std::min(text.find(beginning, at + 1), text.size());
    ++found[text.substr(at, next - at)];
    at = next;
  }
  return found;
}

TEST(RmTreeAux, RemovesAllElseWhenNotToStop) {
  const ScratchDir scratch;
  ASSERT_NO_FATAL_FAILURE(make_resisting_tree(scratch));
  const Outcome outcome = remove_in(scratch.path(), "top", 0);
  EXPECT_EQ(outcome.exit_code(), kReturned + 1);
  EXPECT_EQ(outcome.out, outcome.err);
  EXPECT_EQ(
      reports_in(outcome.err),
      (std::map<std::string, int>{{report("Unable to unlink directory entry ", "file", EPERM), 3},
                                  {report("Unable to remove dir ", "a", ENOTEMPTY), 1},
                                  {report("Unable to remove dir ", "b", ENOTEMPTY), 1},
                                  {report("Unable to remove dir ", "c", ENOTEMPTY), 1},
                                  {report("Unable to remove dir ", "top", ENOTEMPTY), 1}}));
  EXPECT_EQ(
      tree_listing(scratch.path()),
      (Lines{"d 0755 0:0 top", "d 0755 0:0 top/a", "f 0644 0:0 top/a/file ", "d 0755 0:0 top/b",
             "f 0644 0:0 top/b/file ", "d 0755 0:0 top/c", "f 0644 0:0 top/c/file "}));
}

TEST(RmTreeAux, LeavesEachDirectoryAtTheFirstFailureWhenToStop) {
  const ScratchDir scratch;
  ASSERT_NO_FATAL_FAILURE(make_resisting_tree(scratch));
  const Outcome outcome = remove_in(scratch.path(), "top", 1);
  const auto stopped_in = [](const char* sub) {
    return ended(kReturned + 1, report("Unable to unlink directory entry ", "file", EPERM) +
                                    report("Unable to remove dir ", sub, ENOTEMPTY) +
                                    report("Unable to remove dir ", "top", ENOTEMPTY));
  };
  EXPECT_TRUE(outcome == stopped_in("a") || outcome == stopped_in("b") ||
              outcome == stopped_in("c"))
      << outcome;
}

TEST(RmTreeAux, StopsAtTheFirstOfSeveralFilesThatResist) {
  const ScratchDir scratch;
  for (const char* name : {"top/file1", "top/file2", "top/file3"})
    ASSERT_NO_FATAL_FAILURE(make_immutable_file(scratch / name));
  const auto unlinks = [&](int stop_on_error) {
    const auto reports = reports_in(remove_in(scratch.path(), "top", stop_on_error).err);
    return reports.size() - reports.count(report("Unable to remove dir ", "top", ENOTEMPTY));
  };
  EXPECT_EQ(unlinks(0), 3U);
  EXPECT_EQ(unlinks(1), 1U);
}

TEST(RmTreeAux, MarksFailureOfADirectoryThatIsToStay) {
  const ScratchDir scratch;
  ASSERT_NO_FATAL_FAILURE(make_immutable_file(scratch / "file"));
  write_file(scratch / "other", "");
  EXPECT_EQ(remove_in(scratch.path(), ".", 0, 0),
            ended(kReturned + 1, report("Unable to unlink directory entry ", "file", EPERM)));
  EXPECT_EQ(tree_listing(scratch.path()), Lines{"f 0644 0:0 file "});
}

TEST(RmTree, EndsTheProcessAfterTheReport) {
  const ScratchDir scratch;
  ASSERT_NO_FATAL_FAILURE(make_immutable_file(scratch / "file"));
  const auto outcome = in_child([&] {
    rm_tree((scratch / "file").c_str(), 1);
    _exit(kReturned);
  });
  EXPECT_EQ(outcome, ended(1, report("Unable to unlink entry ", scratch / "file", EPERM)));
}

TEST(RmTree, StopsAtTheFirstFailure) {
  const ScratchDir scratch;
  ASSERT_NO_FATAL_FAILURE(make_resisting_tree(scratch));
  const auto outcome = in_child([&] { rm_tree(scratch.path().c_str(), 1); });
  EXPECT_EQ(outcome.exit_code(), 1);
  EXPECT_EQ(outcome.out, outcome.err);
  const auto reports = reports_in(outcome.err);
  EXPECT_EQ(reports.at(report("Unable to unlink directory entry ", "file", EPERM)), 1);
  EXPECT_EQ(reports.size(), 4U) << "with a directory, \"top\" and the path, none of them empty";
}

void remove_top_as_nobody(const ScratchDir& scratch) {
  fstest::become_nobody_in(scratch.path());
  _exit(kReturned + rm_tree_aux("top", 1, 0));
}

TEST(RmTreeAux, ReportsAWorkingDirectoryThatCannotBeOpened) {
  const ScratchDir scratch;
  make_tree_of_nobody(scratch);
  ASSERT_EQ(chmod(scratch.path().c_str(), 0111), 0);
  EXPECT_EQ(
      in_child([&] { remove_top_as_nobody(scratch); }),
      ended(kReturned + 1, report("Unable to get file descriptor of current dir", "", EACCES)));
}

TEST(RmTreeAux, ReportsADirectoryThatCannotBeReadOrSearched) {
  struct Row {
    const char* closed;
    mode_t mode;
    std::string reports;
  };
  const std::string not_empty = report("Unable to remove dir ", "top", ENOTEMPTY);
  for (const Row& row :
       {Row{"top", 0111, report("Unable to open dir ", "top", EACCES)},
        {"top", 0444, report("Unable to change dir ", "top", EACCES)},
        {"top/sub", 0111, report("Unable to open dir ", "sub", EACCES) + not_empty},
        {"top/sub", 0444, report("Unable to change dir ", "sub", EACCES) + not_empty}}) {
    SCOPED_TRACE(row.reports);
    const ScratchDir scratch;
    make_tree_of_nobody(scratch);
    ASSERT_EQ(chmod((scratch / row.closed).c_str(), row.mode), 0);
    EXPECT_EQ(in_child([&] { remove_top_as_nobody(scratch); }), ended(kReturned + 1, row.reports));
  }
}

TEST(RmTreeAux, ReportsAnEntryThatCannotBeExamined) {
  const ScratchDir scratch;
  make_tree_of_nobody(scratch);
  const std::string sub = scratch / "top/sub";
  EXPECT_EQ(testsupport::in_child_stopped_at(
                {SYS_unlinkat, "file"}, [&] { chmod(sub.c_str(), 0400); },
                [&] { remove_top_as_nobody(scratch); }),
            ended(kReturned + 1, report("Unable to check directory entry ", "file", EACCES) +
                                     report("Unable to remove dir ", "sub", ENOTEMPTY) +
                                     report("Unable to remove dir ", "top", ENOTEMPTY)));
}

TEST(RmTreeAux, ReportsAWayBackThatIsClosed) {
  struct Row {
    const char* closed;
    int fchdir;  ///< the call that leads back there
    std::string reports;
  };
  const std::string not_restored = report("Unable to restore & close current dir", "", EACCES);
  for (const Row& row : {Row{"top", 3,
                             not_restored + report("Unable to remove dir ", "sub", EACCES) +
                                 report("Unable to remove dir ", "top", ENOTEMPTY)},
                         {".", 4, not_restored + report("Unable to remove dir ", "top", EACCES)}}) {
    SCOPED_TRACE(row.closed);
    const ScratchDir scratch;
    make_tree_of_nobody(scratch);
    const std::string closed = scratch / row.closed;
    EXPECT_EQ(testsupport::in_child_stopped_at(
                  {SYS_fchdir, "", row.fchdir}, [&] { chmod(closed.c_str(), 0); },
                  [&] { remove_top_as_nobody(scratch); }),
              ended(kReturned + 1, row.reports));
  }
}

TEST(RmTreeAux, ReportsDescriptorsThatRunOutAtTheStart) {
  const ScratchDir scratch;
  write_file(scratch / "top/file", "");
  const auto with_descriptors = [&](int more) {
    return in_child([&] {
      testsupport::allow_descriptors(more);
      _exit(kReturned + rm_tree_aux((scratch / "top").c_str(), 1, 0));
    });
  };
  EXPECT_EQ(
      with_descriptors(0),
      ended(kReturned + 1, report("Unable to get file descriptor of current dir", "", EMFILE)));
  EXPECT_EQ(with_descriptors(1),
            ended(kReturned + 1, report("Unable to open dir ", scratch / "top", EMFILE)));
  EXPECT_EQ(with_descriptors(2), ended(kReturned, ""));
}

TEST(RmTreeAux, RemovesAllTheSameWhenItCannotGoBackOrClose) {
  struct Row {
    const char* of;  ///< the directory, from the working directory
    const char* injected;
    std::string reports;
  };
  const std::string not_restored = report("Unable to restore & close current dir", "", EIO);
  for (const Row& row : {Row{"top/..", "close", not_restored},
                         {"top/..", "fchdir", not_restored},
                         {"top", "fchdir:when=2", not_restored},
                         {"top", "close", report("Unable to close dir ", "top", EIO)},
                         {"top/sub", "close", report("Unable to close dir ", "sub", EIO)}}) {
    SCOPED_TRACE(std::string(row.injected) + " of " + row.of);
    const ScratchDir scratch;
    write_file(scratch / "top/sub/file", "");
    write_file(scratch / "other", "");
    std::string inject = std::string("inject=") + row.injected;
    inject.insert(std::min(inject.find(':'), inject.size()), ":error=EIO");
    const auto of = std::filesystem::canonical(scratch.path() / row.of);
    EXPECT_EQ(fstest::run_traced({"-o", "/dev/null", "-P", of, "-e", inject}, "remove", "top",
                                 scratch.path()),
              ended(1, row.reports));
    EXPECT_EQ(tree_listing(scratch.path()), Lines{"f 0644 0:0 other "});
  }
}

TEST(RmTreeAux, ReportsADirectoryThatCannotBeReadOn) {
  const ScratchDir scratch;
  write_file(scratch / "top/sub/file", "");
  EXPECT_EQ(fstest::run_traced(
                {"-o", "/dev/null", "-P", scratch / "top/sub", "-e", "inject=getdents64:error=EIO"},
                "remove", "top", scratch.path()),
            ended(1, report("Unable to check directory entry ", "sub", EIO) +
                         report("Unable to remove dir ", "sub", ENOTEMPTY) +
                         report("Unable to remove dir ", "top", ENOTEMPTY)));
}

}  // namespace
