#include <errno.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "fs/tree.h"
#include "support/limits.h"
#include "support/private_mounts.h"
#include "support/scratch.h"
#include "support/stopped_child.h"
#include "support/tree_listing.h"
#include "tree_support.h"

// Each failure of a change of owners or modes ends the process with status 1 after one report.
namespace {

using fstest::Change;
using fstest::changes;
using fstest::ended;
using fstest::make_tree_of_nobody;
using fstest::report;
using testsupport::in_child;
using testsupport::ScratchDir;
using testsupport::set_immutable;
using testsupport::write_file;

struct Failure {
  const char* what;
  std::function<void(const std::filesystem::path&)> prepare;  ///< in a new directory
  std::string path;                                           ///< from there
  std::function<std::string(const Change&)> expected;
};

void make_immutable(const std::filesystem::path& path) {
  ASSERT_TRUE(set_immutable(path, true)) << path;
}

const std::vector<Failure>& failures_of_root() {
  static const std::vector<Failure> all{
      {"a path below a file", [](const auto& top) { write_file(top / "file", ""); }, "file/below",
       [](const Change&) { return report("Unable to get entry ", "file/below", ENOTDIR); }},
      {"a file given as the path",
       [](const auto& top) {
         write_file(top / "file", "");
         make_immutable(top / "file");
       },
       "./file", [](const Change& c) { return report(c.top_file, "./file", EPERM); }},
      {"a file at the top",
       [](const auto& top) {
         write_file(top / "file", "");
         make_immutable(top / "file");
       },
       ".", [](const Change& c) { return report(c.entry, "file", EPERM); }},
      {"a file further down",
       [](const auto& top) {
         write_file(top / "top/sub/file", "");
         make_immutable(top / "top/sub/file");
       },
       "top", [](const Change& c) { return report(c.entry, "file", EPERM); }},
      {"a directory inside",
       [](const auto& top) {
         write_file(top / "top/sub/file", "");
         make_immutable(top / "top/sub");
       },
       "top", [](const Change& c) { return report(c.dir, "sub", EPERM); }},
      {"a directory given as the path",
       [](const auto& top) {
         write_file(top / "top/file", "");
         make_immutable(top / "top");
       },
       "./top/", [](const Change& c) { return report(c.dir, "./top/", EPERM); }},
      {"a pipe given as the path", [](const auto& top) { fstest::make_each_type(top); }, "pipe",
       [](const Change&) { return report("Unable to open dir ", "pipe", ENOTDIR); }},
      {"a socket given as the path", [](const auto& top) { fstest::make_each_type(top); }, "socket",
       [](const Change&) { return report("Unable to open dir ", "socket", ENOTDIR); }},
      {"a device given as the path", [](const auto& top) { fstest::make_each_type(top); }, "device",
       [](const Change&) { return report("Unable to open dir ", "device", ENOTDIR); }},
  };
  return all;
}

TEST(EitherChange, EndsAtTheFirstFailure) {
  for (const Change& change : changes()) {
    for (const Failure& failure : failures_of_root()) {
      SCOPED_TRACE(change.name + ": " + failure.what);
      const ScratchDir scratch;
      ASSERT_NO_FATAL_FAILURE(failure.prepare(scratch.path()));
      const auto outcome = in_child([&] {
        if (chdir(scratch.path().c_str()) != 0) _exit(97);
        change.run(failure.path, 1);
      });
      EXPECT_EQ(outcome, ended(1, failure.expected(change)));
    }
  }
}

TEST(EitherChange, WritesItsReportByteForByte) {
  const ScratchDir scratch;
  write_file(scratch / "file", "");
  ASSERT_NO_FATAL_FAILURE(make_immutable(scratch / "file"));
  const auto outcome = in_child([&] { chown_tree(scratch.path().c_str(), 7, 8, 1); });
  EXPECT_EQ(outcome.err,
            "Unable to chown directory entry file: Operation not permitted\n"
            "\n"
            "System error 1: Operation not permitted\n");
  EXPECT_EQ(outcome.out, outcome.err);
  EXPECT_EQ(outcome.exit_code(), 1);
}

TEST(EitherChange, ReportsOneOfSeveralFailures) {
  for (const Change& change : changes()) {
    SCOPED_TRACE(change.name);
    const ScratchDir scratch;
    for (const char* name : {"a/file", "b/file", "c/file"}) {
      write_file(scratch / name, "");
      ASSERT_NO_FATAL_FAILURE(make_immutable(scratch / name));
    }
    const auto outcome = in_child([&] { change.run(scratch.path(), 1); });
    EXPECT_EQ(outcome, ended(1, report(change.entry, "file", EPERM)));
  }
}

TEST(EitherChange, PassesOverAnImmutableTopThatIsNotAskedFor) {
  for (const Change& change : changes()) {
    SCOPED_TRACE(change.name);
    const ScratchDir scratch;
    write_file(scratch / "top/file", "");
    ASSERT_NO_FATAL_FAILURE(make_immutable(scratch / "top"));
    EXPECT_EQ(in_child([&] { change.run(scratch / "top", 0); }), ended(0, ""));
  }
}

TEST(EitherChange, EndsOnAReadOnlyFileSystem) {
  for (const Change& change : changes()) {
    SCOPED_TRACE(change.name);
    const ScratchDir scratch;
    write_file(scratch / "file", "");
    const auto outcome = in_child([&] {
      testsupport::enter_private_mounts();
      const char* place = scratch.path().c_str();
      if (mount(place, place, "none", MS_BIND, nullptr) != 0 ||
          mount("none", place, "none", MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) != 0)
        _exit(97);
      change.run(scratch.path(), 1);
    });
    EXPECT_EQ(outcome, ended(1, report(change.entry, "file", EROFS)));
  }
}

TEST(EitherChange, EndsWhereTheWorkingDirectoryCannotBeOpened) {
  for (const Change& change : changes()) {
    SCOPED_TRACE(change.name);
    const ScratchDir scratch;
    make_tree_of_nobody(scratch);
    ASSERT_EQ(chmod(scratch.path().c_str(), 0111), 0);
    const auto outcome = in_child([&] {
      fstest::become_nobody_in(scratch.path());
      change.run("top", 1);
    });
    EXPECT_EQ(outcome,
              ended(1, report("Unable to get file descriptor of current dir", "", EACCES)));
  }
}

TEST(EitherChange, EndsAtADirectoryThatCannotBeReadOrSearched) {
  struct Row {
    const char* closed;
    mode_t mode;
    const char* text;
  };
  for (const Row& row : {Row{"top", 0111, "Unable to open dir "},
                         {"top", 0444, "Unable to change dir "},
                         {"sub", 0111, "Unable to open dir "},
                         {"sub", 0444, "Unable to change dir "}}) {
    for (const Change& change : changes()) {
      SCOPED_TRACE(change.name + ", " + row.closed + ": " + row.text);
      const ScratchDir scratch;
      make_tree_of_nobody(scratch);
      const std::string closed = scratch / (row.closed == std::string("top") ? "top" : "top/sub");
      ASSERT_EQ(chmod(closed.c_str(), row.mode), 0);
      const auto outcome = in_child([&] {
        fstest::become_nobody_in(scratch.path());
        change.run("top", 1);
      });
      EXPECT_EQ(outcome, ended(1, report(row.text, row.closed, EACCES)));
    }
  }
}

TEST(EitherChange, EndsWhenAnEntryCannotBeExamined) {
  for (const Change& change : changes()) {
    SCOPED_TRACE(change.name);
    const ScratchDir scratch;
    make_tree_of_nobody(scratch);
    const std::string sub = scratch / "top/sub";
    const auto outcome = testsupport::in_child_stopped_at(
        {SYS_newfstatat, "file"}, [&] { chmod(sub.c_str(), 0400); },
        [&] {
          fstest::become_nobody_in(scratch.path());
          change.run("top", 1);
        });
    EXPECT_EQ(outcome, ended(1, report("Unable to check directory entry ", "file", EACCES)));
  }
}

TEST(EitherChange, EndsWhenTheWayBackIsClosed) {
  struct Row {
    const char* tree;    ///< the directories, one inside the other
    const char* closed;  ///< where the way back leads
    int fchdir;          ///< the call that makes it
  };
  for (const Row& row : {Row{"top", ".", 2}, {"top/sub", "top", 3}}) {
    for (const Change& change : changes()) {
      SCOPED_TRACE(change.name + " in " + row.tree);
      const ScratchDir scratch;
      std::filesystem::create_directories(scratch / row.tree);
      chown_tree(scratch.path().c_str(), 65534, 65534, 1);
      const std::string closed = scratch / row.closed;
      const auto outcome = testsupport::in_child_stopped_at(
          {SYS_fchdir, "", row.fchdir}, [&] { chmod(closed.c_str(), 0); },
          [&] {
            fstest::become_nobody_in(scratch.path());
            change.run("top", 1);
          });
      EXPECT_EQ(outcome, ended(1, report("Unable to restore & close current dir", "", EACCES)));
    }
  }
}

TEST(EitherChange, EndsWhereDescriptorsRunOutAtTheStart) {
  for (const Change& change : changes()) {
    SCOPED_TRACE(change.name);
    const ScratchDir scratch;
    write_file(scratch / "file", "");
    const std::string top = scratch.path();
    EXPECT_EQ(in_child([&] {
                testsupport::allow_descriptors(0);
                change.run(top, 1);
              }),
              ended(1, report("Unable to get file descriptor of current dir", "", EMFILE)));
    EXPECT_EQ(in_child([&] {
                testsupport::allow_descriptors(1);
                change.run(top, 1);
              }),
              ended(1, report("Unable to open dir ", top, EMFILE)));
  }
}

TEST(EitherChange, EndsWhenADescriptorIsNotClosedOrRead) {
  struct Row {
    const char* of;  ///< the directory, from the working directory
    const char* injected;
    const char* text;
    const char* name;
  };
  for (const Row& row : {Row{"top/..", "close", "Unable to restore & close current dir", ""},
                         {"top", "close", "Unable to close dir ", "top"},
                         {"top/sub", "close", "Unable to close dir ", "sub"},
                         {"top", "getdents64", "Unable to check directory entry ", "top"},
                         {"top/sub", "getdents64", "Unable to check directory entry ", "sub"}}) {
    for (const char* routine : {"chown", "chmod"}) {
      SCOPED_TRACE(std::string(routine) + ": " + row.injected + " of " + row.name);
      const ScratchDir scratch;
      write_file(scratch / "top/sub/file", "");
      const std::string inject = std::string("inject=") + row.injected + ":error=EIO";
      const auto outcome =
          fstest::run_traced({"-o", "/dev/null", "-P",
                              std::filesystem::canonical(scratch.path() / row.of), "-e", inject},
                             routine, "top", scratch.path());
      EXPECT_EQ(outcome, ended(1, report(row.text, row.name, EIO)));
    }
  }
}

}  // namespace
