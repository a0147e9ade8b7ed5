#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <fstream>
#include <iostream>

#include "fs/tree.h"
#include "fs/tree_walk.private.h"
#include "support/limits.h"
#include "support/opaque_malloc.h"
#include "support/private_mounts.h"
#include "support/scratch.h"
#include "support/stopped_child.h"
#include "support/tree_listing.h"
#include "tree_support.h"

// Trees, file systems and shortages that the walk must cope with, whatever it does to the entries.
namespace {

using fstest::ended;
using fstest::kReturned;
using fstest::report;
using testsupport::in_child;
using testsupport::Outcome;
using testsupport::ScratchDir;
using testsupport::tree_listing;
using testsupport::write_file;
using Lines = std::vector<std::string>;
constexpr int kDeep = 5000;

/// How many directories in a chain of "d" below `top`, itself included, have not the mode.
int levels_without_mode(const std::string& top, mode_t mode) {
  int wrong = 0;
  int dir = open(top.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  while (dir >= 0) {
    struct stat st = {};
    if (fstat(dir, &st) != 0 || (st.st_mode & 07777) != mode) ++wrong;
    const int below = openat(dir, "d", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    close(dir);
    dir = below;
  }
  return wrong;
}

TEST(TreeWalk, GoesDownADeepTree) {
  struct Row {
    bool few;  ///< no more than 1024 descriptors
    bool old;  ///< a system without fchmodat2()
  };
  for (const Row& row : {Row{false, false}, {true, false}, {true, true}}) {
    SCOPED_TRACE(row.few ? "with 1024 descriptors" : "with the descriptors that there are");
    SCOPED_TRACE(row.old ? "on an old system" : "on a young one");
    const ScratchDir scratch(testsupport::memory_directory());
    const std::string top = scratch / "top";
    std::filesystem::create_directory(top);
    fstest::make_chain(top, kDeep, "d");
    ASSERT_EQ(levels_without_mode(top, 0755), 0);
    ASSERT_EQ(levels_without_mode(top, 0700), kDeep + 1);
    EXPECT_EQ(in_child([&] {
                if (row.few) testsupport::limit_descriptors(1024);
                if (row.old) fstest::refuse_fchmodat2(ENOSYS);
                tree_set_perms(top.c_str(), 7, 8, 0640, 0700, 1);
              }),
              ended(0, ""));
    EXPECT_EQ(levels_without_mode(top, 0700), 0);
    EXPECT_EQ(in_child([&] {
                if (row.few) testsupport::limit_descriptors(1024);
                rm_tree(top.c_str(), 1);
              }),
              ended(0, ""));
    EXPECT_EQ(tree_listing(scratch.path()), Lines{});
  }
}

/// At each of `depth` levels below `top` files and directories around the one that leads down.
void make_branching_tree(const std::filesystem::path& top, int depth) {
  std::filesystem::path level = top;
  for (int i = 0; i < depth; ++i) {
    for (const char* name : {"a", "file", "z"}) write_file(level / name, "");
    for (const char* name : {"c/file", "k/file", "y/file"}) write_file(level / name, "");
    level /= "down";
  }
  write_file(level / "last", "");
}

/// In the working directory, with so few descriptors that all but the first levels must do without.
template <typename Walk>
Outcome with_few_descriptors(const std::string& directory, const Walk& walk) {
  return in_child([&] {
    if (chdir(directory.c_str()) != 0) _exit(97);
    const std::vector<int> open = testsupport::open_descriptors();
    testsupport::allow_descriptors(3);
    const int result = walk();
    if (fstest::working_directory() != directory) _exit(95);
    testsupport::limit_descriptors(64);
    if (testsupport::open_descriptors() != open) _exit(94);
    exit(kReturned + result);
  });
}

/// That a run of tree_set_perms() on what is below `top` misses nothing.
void expect_all_changed(const std::string& top, const std::function<Outcome()>& change) {
  const size_t entries = tree_listing(top).size();
  EXPECT_EQ(change(), ended(kReturned, ""));
  EXPECT_EQ(tree_listing(top).size(), entries);
  for (const std::string& line : tree_listing(top))
    EXPECT_TRUE(line.rfind("d 0750 7:8", 0) == 0 || line.rfind("f 0640 7:8", 0) == 0) << line;
}

TEST(TreeWalk, ChangesAllModesWithoutACallOfItsOwnWhereDescriptorsRunOut) {
  for (const int refusal : {ENOSYS, EPERM}) {
    for (const int descriptors : {2, 3, 4, 7, 12}) {
      SCOPED_TRACE(std::to_string(refusal) + " and " + std::to_string(descriptors));
      const ScratchDir scratch(testsupport::memory_directory());
      make_branching_tree(scratch / "top", 12);
      expect_all_changed(scratch / "top", [&] {
        return in_child([&] {
          if (chdir(scratch.path().c_str()) != 0) _exit(97);
          fstest::refuse_fchmodat2(refusal);
          testsupport::allow_descriptors(descriptors);
          errno = E2BIG;
          tree_set_perms("top", 7, 8, 0640, 0750, 1);
          exit(errno == E2BIG ? kReturned : kReturned + 1);
        });
      });
    }
  }
}

TEST(TreeWalk, MissesNothingWhereDescriptorsRunOut) {
  const ScratchDir scratch(testsupport::memory_directory());
  make_branching_tree(scratch / "top", 12);
  expect_all_changed(scratch / "top", [&] {
    return with_few_descriptors(scratch.path(),
                                [] { return tree_set_perms("top", 7, 8, 0640, 0750, 1); });
  });
  EXPECT_EQ(with_few_descriptors(scratch.path(), [] { return rm_tree_aux("top", 1, 0); }),
            ended(kReturned, ""));
  EXPECT_EQ(tree_listing(scratch.path()), Lines{});
}

TEST(TreeWalk, MissesNothingOfLargeDirectoriesWhereDescriptorsRunOut) {
  const ScratchDir scratch(testsupport::memory_directory());
  for (const char* level : {"top", "top/down", "top/down/down", "top/down/down/down"}) {
    std::filesystem::create_directory(scratch / level);
    for (int i = 0; i < 2000; ++i)
      ASSERT_EQ(symlink("nowhere", (scratch / level + "/link " + std::to_string(i)).c_str()), 0);
  }
  EXPECT_EQ(with_few_descriptors(scratch.path(), [] { return rm_tree_aux("top", 1, 0); }),
            ended(kReturned, ""));
  EXPECT_EQ(tree_listing(scratch.path()), Lines{});
}

TEST(TreeWalk, LeavesErrnoAsItWasWhereDescriptorsRunOut) {
  const ScratchDir scratch;
  make_branching_tree(scratch / "top", 6);
  EXPECT_EQ(with_few_descriptors(scratch.path(),
                                 [] {
                                   errno = E2BIG;
                                   rm_tree("top", 1);
                                   return errno == E2BIG ? 0 : 1;
                                 }),
            ended(kReturned, ""));
}

TEST(TreeWalk, ReportsFailuresWhereDescriptorsRunOut) {
  const ScratchDir scratch;
  const std::string file = scratch / "top/a/b/c/d/file";
  write_file(file, "");
  write_file(scratch / "top/a/b/c/d/e/other", "");
  ASSERT_TRUE(testsupport::set_immutable(file, true));
  const Outcome outcome =
      with_few_descriptors(scratch.path(), [] { return rm_tree_aux("top", 1, 0); });
  std::string reports = report("Unable to unlink directory entry ", "file", EPERM);
  for (const char* dir : {"d", "c", "b", "a", "top"})
    reports += report("Unable to remove dir ", dir, ENOTEMPTY);
  EXPECT_EQ(outcome, ended(kReturned + 1, reports));
  EXPECT_FALSE(std::filesystem::exists(scratch / "top/a/b/c/d/e"));
}

/// "e" at the bottom of a chain whose upper end only has descriptors left, and "outside".
constexpr const char* kChain = "top/a/b/c/d/e";

/// Moves the bottom of the chain away while the walk stands in it, before it goes back up.
Outcome walk_with_bottom_moved(const ScratchDir& scratch, const std::function<void()>& walk) {
  std::filesystem::create_directories(scratch / kChain);
  write_file(scratch / "outside/kept", "");
  return testsupport::in_child_stopped_at(
      {SYS_chdir, "", 2}, [&] { std::filesystem::rename(scratch / kChain, scratch / "outside/e"); },
      [&] {
        if (chdir(scratch.path().c_str()) != 0) _exit(97);
        testsupport::allow_descriptors(4);
        walk();
      });
}

TEST(TreeWalk, TouchesNothingWhereTheWayBackLeadsElsewhere) {
  const ScratchDir scratch;
  const Outcome outcome =
      walk_with_bottom_moved(scratch, [] { _exit(kReturned + rm_tree_aux("top", 1, 0)); });
  const std::string lost = report("Unable to restore & close current dir", "", ESTALE);
  EXPECT_EQ(outcome, ended(kReturned + 1, lost + lost + lost +
                                              report("Unable to remove dir ", "b", ENOTEMPTY) +
                                              report("Unable to remove dir ", "a", ENOTEMPTY) +
                                              report("Unable to remove dir ", "top", ENOTEMPTY)));
  EXPECT_EQ(tree_listing(scratch.path()),
            (Lines{"d 0755 0:0 outside", "d 0755 0:0 outside/e", "f 0644 0:0 outside/kept ",
                   "d 0755 0:0 top", "d 0755 0:0 top/a", "d 0755 0:0 top/a/b",
                   "d 0755 0:0 top/a/b/c", "d 0755 0:0 top/a/b/c/d"}));
}

TEST(TreeWalk, EndsAChangeWhereTheWayBackLeadsElsewhere) {
  const ScratchDir scratch;
  const Outcome outcome = walk_with_bottom_moved(scratch, [] { chmod_tree("top", 0640, 0700, 1); });
  EXPECT_EQ(outcome, ended(1, report("Unable to restore & close current dir", "", ESTALE)));
  EXPECT_EQ(tree_listing(scratch / "outside"), (Lines{"d 0755 0:0 e", "f 0644 0:0 kept "}));
}

TEST(TreeWalk, GoesOnWithTheRestWhereOneWayBackIsLost) {
  const ScratchDir scratch;
  for (const char* name : {"top/0", "top/other/file", "top/z"}) write_file(scratch / name, "");
  const Outcome outcome =
      walk_with_bottom_moved(scratch, [] { _exit(kReturned + rm_tree_aux("top", 1, 0)); });
  EXPECT_EQ(outcome.exit_code(), kReturned + 1);
  EXPECT_EQ(tree_listing(scratch / "top"),
            (Lines{"d 0755 0:0 a", "d 0755 0:0 a/b", "d 0755 0:0 a/b/c", "d 0755 0:0 a/b/c/d"}));
}

/// In a private view, a file system in `image` whose directories do not list types, at "/mnt".
/// Where loop devices are missing the process ends with status 99.
void mount_without_types(const std::string& image) {
  testsupport::enter_private_mounts();
  const std::string commands = "truncate -s 4M '" + image + "' && mke2fs -q -F -O ^filetype '" +
                               image + "' && mount -o loop '" + image + "' /mnt && rmdir /mnt/*";
  if (system(commands.c_str()) != 0) _exit(99);
}

/// Changes and then removes what make_each_type() makes, and tells what it sees on the way.
void walk_each_type(const std::string& top) {
  fstest::make_each_type(top);
  errno = 0;
  tree_set_perms(top.c_str(), 7, 8, 0640, 0750, 0);
  for (const std::string& line : tree_listing(top)) std::cout << line << "\n";
  errno = 0;
  rm_tree(top.c_str(), 0);
  std::cout << "errno " << errno << ", left " << tree_listing(top).size() << "\n";
}

constexpr const char* kEachTypeWalked =
    "l - 0:0 dangling nowhere\n"
    "c 0604 0:0 device\n"
    "d 0750 7:8 dir\n"
    "f 0640 7:8 dir/file inner\n"
    "l - 0:0 dirlink dir\n"
    "f 0640 7:8 file outer\n"
    "l - 0:0 link file\n"
    "p 0604 0:0 pipe\n"
    "s 0604 0:0 socket\n"
    "errno 0, left 0\n";

TEST(TreeWalk, LooksAtEntriesThatAreListedWithoutAType) {
  const ScratchDir scratch;
  EXPECT_EQ(
      testsupport::in_child_without_entry_types([&] { walk_each_type(scratch.path().string()); }),
      (Outcome{kEachTypeWalked, "", 0}));
}

TEST(TreeWalk, WorksOnAFileSystemThatKnowsNoTypes) {
  const ScratchDir scratch;
  const Outcome outcome = in_child([&] {
    mount_without_types(scratch / "image");
    walk_each_type("/mnt");
  });
  if (outcome.exit_code() == 99) GTEST_SKIP() << "no loop device to mount: " << outcome.err;
  EXPECT_EQ(outcome, (Outcome{kEachTypeWalked, "", 0}));
}

#ifndef __SANITIZE_ADDRESS__  // it keeps memory of its own, beyond any such limit

/// Leaves no memory for the buffer of a directory, but some for a report.
void use_up_memory() {
  void* const for_the_report = testsupport::opaque_malloc(8192);
  long pages = 0;
  std::ifstream("/proc/self/statm") >> pages;
  const auto most = static_cast<rlim_t>(pages * sysconf(_SC_PAGESIZE));
  const rlimit limit = {most, most};
  if (pages == 0 || setrlimit(RLIMIT_AS, &limit) != 0) _exit(97);
  for (size_t size = 32768; size >= 8192; size /= 2) {
    const volatile void* taken = for_the_report;
    while (taken != nullptr) taken = testsupport::opaque_malloc(size);
  }
  free(for_the_report);
}

TEST(TreeWalk, ReportsThatMemoryHasRunOut) {
  const ScratchDir scratch;
  write_file(scratch / "file", "");
  const std::string top = scratch.path();
  EXPECT_EQ(in_child([&] {
              use_up_memory();
              _exit(kReturned + rm_tree_aux(top.c_str(), 1, 0));
            }),
            ended(kReturned + 1, report("Unable to open dir ", top, ENOMEM)));
}

#endif

/// Notes what a walk gives it, and answers as it is told.
class Notes final : public frask::TreeAction {
 public:
  bool listed_answer = false;
  bool entry_answer = true;
  bool directory_answer = true;
  Lines lines;

  bool on_listed(const frask::Descent& at, unsigned char type) override {
    if (listed_answer)
      lines.push_back(std::string("listed ") + at.name() + " " + std::to_string(type));
    return listed_answer;
  }
  bool on_entry(frask::Descent& at, mode_t mode) override {
    EXPECT_EQ(faccessat(at.dir_fd(), at.name(), F_OK, AT_SYMLINK_NOFOLLOW), 0);
    EXPECT_EQ(access(at.name(), F_OK), 0)
        << "the working directory is the one that holds the entry";
    lines.push_back((S_ISREG(mode) ? "file " : "other ") + std::string(at.name()));
    return entry_answer;
  }
  bool on_directory(frask::Descent& at) override {
    EXPECT_EQ(faccessat(at.dir_fd(), at.name(), F_OK, AT_SYMLINK_NOFOLLOW), 0);
    lines.push_back(std::string("directory ") + at.name());
    return directory_answer;
  }
};

TEST(TreeWalk, GivesADirectoryAfterWhatItHolds) {
  const ScratchDir scratch;
  write_file(scratch / "top/sub/file", "");
  const std::string top = scratch / "top";
  Notes notes;
  EXPECT_TRUE(frask::walk_tree(top.c_str(), {0, false, true}, notes));
  EXPECT_EQ(notes.lines, (Lines{"file file", "directory sub", "directory " + top}));
}

TEST(TreeWalk, GivesTheTopOnlyWhenAsked) {
  const ScratchDir scratch;
  write_file(scratch / "top/sub/file", "");
  Notes notes;
  EXPECT_TRUE(frask::walk_tree((scratch / "top").c_str(), {0, false, false}, notes));
  EXPECT_EQ(notes.lines, (Lines{"file file", "directory sub"}));
}

TEST(TreeWalk, DoesNotLookAtWhatIsDealtWithAsListed) {
  const ScratchDir scratch;
  write_file(scratch / "file", "");
  Notes notes;
  notes.listed_answer = true;
  EXPECT_TRUE(frask::walk_tree(scratch.path().c_str(), {0, false, false}, notes));
  EXPECT_EQ(notes.lines, (Lines{"listed file " + std::to_string(DT_REG)}));
}

TEST(TreeWalk, TellsWhetherAnythingFailed) {
  const ScratchDir scratch;
  write_file(scratch / "top/sub/file", "");
  for (const bool stop : {false, true}) {
    for (const bool of_entry : {false, true}) {
      Notes notes;
      (of_entry ? notes.entry_answer : notes.directory_answer) = false;
      EXPECT_FALSE(frask::walk_tree((scratch / "top").c_str(), {0, stop, true}, notes));
      EXPECT_EQ(notes.lines.size(), 3U) << "directories are given after a failure, too";
    }
  }
}

}  // namespace
