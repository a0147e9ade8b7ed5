#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>

#include "content_support.h"
#include "support/limits.h"
#include "support/odd_trees.h"
#include "support/private_mounts.h"
#include "support/stopped_child.h"
#include "support/tree_listing.h"

namespace {

using testsupport::Outcome;
using testsupport::set_immutable;
using testsupport::tree_listing;
using testsupport::write_file;
using vhosttest::failed;
using vhosttest::Host;
using vhosttest::Lines;
using vhosttest::reported;

const Lines kEmptied{"d 0755 0:0 cgi", "d 0755 0:0 documents", "d 0755 0:0 site",
                     "d 0755 0:0 site/private"};

TEST(CleanDocroot, EmptiesTheThreeContentDirectoriesAndLeavesThemselves) {
  const Host host;
  for (const char* name : {"documents", "cgi", "site/private"}) {
    testsupport::make_each_type(host / name);
    write_file(host / (std::string(name) + "/a/b/c/.d"), "");
  }
  EXPECT_EQ(host.clean(), reported(""));
  EXPECT_EQ(tree_listing(host.path()), kEmptied);
}

TEST(CleanDocroot, EmptiesThemInsideTheHostToo) {
  Host host;
  host.documents = host / "site/httpdocs";
  host.cgi = host / "site/cgi-bin";
  for (const char* name :
       {"httpdocs/a/b", "cgi-bin/a/b", "private/a/b", "httpsdocs/a", "conf/a", "error_docs/a", "a"})
    write_file(host / ("site/" + std::string(name)), "");
  EXPECT_EQ(host.clean(), reported(""));
  EXPECT_EQ(tree_listing(host.site),
            (Lines{"f 0644 0:0 a ", "d 0755 0:0 cgi-bin", "d 0755 0:0 conf", "f 0644 0:0 conf/a ",
                   "d 0755 0:0 error_docs", "f 0644 0:0 error_docs/a ", "d 0755 0:0 httpdocs",
                   "d 0755 0:0 httpsdocs", "f 0644 0:0 httpsdocs/a ", "d 0755 0:0 private"}));
}

TEST(CleanDocroot, EmptiesTheSameWhateverIsSaidOfTheOthers) {
  Host host;
  host.skip_httpdocs = 1;
  host.keep_error_docs = 1;
  for (const char* name : {"documents/a", "cgi/a", "site/private/a"}) write_file(host / name, "");
  EXPECT_EQ(host.clean(), reported(""));
  EXPECT_EQ(tree_listing(host.path()), kEmptied);
}

TEST(CleanDocroot, DropsSeparatorsBehindTheDirectories) {
  Host host;
  write_file(host / "documents/documents/a", "");
  write_file(host / "cgi/cgi/a", "");
  write_file(host / "site/private/private/a", "");
  write_file(host / "site/a", "");
  host.site += "//";
  host.documents += "/";
  host.cgi += "///";
  EXPECT_EQ(host.clean(), reported(""));
  Lines expected = kEmptied;
  expected.insert(expected.begin() + 3, "f 0644 0:0 site/a ");
  EXPECT_EQ(tree_listing(host.path()), expected);
}

TEST(CleanDocroot, DropsADotBehindTheDirectories) {
  Host host;
  for (const char* file : {"documents/documents/a", "cgi/cgi/a", "site/private/private/a"})
    write_file(host / file, "");
  ASSERT_TRUE(set_immutable(host / "cgi/cgi/a", true));
  host.site += "/.";
  host.documents += "/.";
  host.cgi += "/./";
  EXPECT_EQ(host.clean(), reported(failed("unlink", host / "cgi/./cgi/a", EPERM) +
                                   failed("rmdir", host / "cgi/./cgi", ENOTEMPTY)));
  EXPECT_EQ(tree_listing(host.path()).size(), kEmptied.size() + 2);
}

TEST(CleanDocroot, TakesRelativeDirectories) {
  const Host host;
  write_file(host / "documents/a/b", "");
  write_file(host / "site/private/a/b", "");
  const auto outcome = testsupport::in_child([&] {
    if (chdir(host.path().c_str()) != 0) _exit(97);
    const DocrootCleanOptions options = {"./documents", 0, 0, 0, "cgi"};
    exit(vhosttest::kReturned + clean_docroot("site", &options));
  });
  EXPECT_EQ(outcome, reported(""));
  EXPECT_EQ(tree_listing(host.path()), kEmptied);
}

TEST(CleanDocroot, LeavesAKeptCgiDirectoryUnlisted) {
  Host host;
  write_file(host / "cgi/closed/a", "");
  write_file(host / "documents/a", "");
  ASSERT_EQ(chmod(host.path().c_str(), 0755), 0);
  ASSERT_EQ(chmod((host / "documents").c_str(), 0777), 0);
  ASSERT_EQ(chmod((host / "cgi/closed").c_str(), 0700), 0);
  const auto clean = [&] {
    return testsupport::in_child([&] {
      testsupport::become_nobody_in("/");
      const DocrootCleanOptions options = host.options();
      exit(vhosttest::kReturned + clean_docroot(host.site.c_str(), &options));
    });
  };
  EXPECT_FALSE(clean() == reported("")) << "to list it would be reported";
  host.keep_cgi_bin = 2;
  EXPECT_EQ(clean(), reported(""));
  EXPECT_EQ(host.clean(), reported(""));
  EXPECT_EQ(tree_listing(host / "cgi"), (Lines{"d 0700 0:0 closed", "f 0644 0:0 closed/a "}));
  EXPECT_EQ(tree_listing(host / "documents"), Lines{});
}

TEST(CleanDocroot, PassesSilentlyOverDirectoriesThatAreMissingOrNotGiven) {
  const Host host;
  for (const char* name : {"documents", "cgi", "site/private"})
    std::filesystem::remove(host / name);
  EXPECT_EQ(host.clean(), reported(""));
  const auto outcome = testsupport::in_child([&] {
    if (chdir(host.path().c_str()) != 0) _exit(97);
    const DocrootCleanOptions options = {nullptr, 0, 0, 0, ""};
    exit(vhosttest::kReturned + clean_docroot((host / "missing").c_str(), &options));
  });
  EXPECT_EQ(outcome, reported(""));
  EXPECT_EQ(tree_listing(host.path()), Lines{"d 0755 0:0 site"});
}

TEST(CleanDocroot, LeavesAloneWhatStandsInTheirPlace) {
  Host host;
  host.documents = host / "file";
  write_file(host.documents, "text");
  std::filesystem::remove(host.cgi);
  write_file(host / "elsewhere/a", "");
  std::filesystem::create_symlink("elsewhere", host.cgi);
  std::filesystem::remove(host / "site/private");
  std::filesystem::create_symlink("../elsewhere", host / "site/private");
  const Lines before = tree_listing(host.path());
  EXPECT_EQ(host.clean(), reported(""));
  for (const char* link : {"cgi/", "cgi/.", "cgi/.//./"}) {
    host.documents = host / link;
    EXPECT_EQ(host.clean(), reported("")) << link << " makes no directory of a link";
  }
  EXPECT_EQ(tree_listing(host.path()), before);
}

TEST(CleanDocroot, RemovesLinksAndNeverWhatTheyLeadTo) {
  const Host host;
  write_file(host / "outside/dir/file", "kept");
  const Lines outside = tree_listing(host / "outside");
  std::filesystem::create_symlink("../outside", host / "documents/link");
  std::filesystem::create_directories(host / "documents/dir");
  std::filesystem::create_symlink("../../outside/dir/file", host / "documents/dir/file");
  std::filesystem::create_symlink("/", host / "site/private/root");
  EXPECT_EQ(host.clean(), reported(""));
  EXPECT_EQ(tree_listing(host / "outside"), outside);
  EXPECT_EQ(tree_listing(host / "documents"), Lines{});
  EXPECT_EQ(tree_listing(host / "site/private"), Lines{});
}

TEST(CleanDocroot, ReportsWhatResistsAndRemovesAllElse) {
  const Host host;
  for (const char* name : {"documents", "cgi", "site/private"})
    for (const char* file : {"/a/immutable", "/a/other", "/b/c"})
      write_file(host / (std::string(name) + file), "");
  for (const char* name : {"documents/a", "cgi/a", "site/private/a"})
    ASSERT_TRUE(set_immutable(host / (std::string(name) + "/immutable"), true));
  std::string expected;
  for (const char* name : {"site/private/a", "documents/a", "cgi/a"}) {
    const std::string path = host / name;
    expected += failed("unlink", path + "/immutable", EPERM) + failed("rmdir", path, ENOTEMPTY);
  }
  EXPECT_EQ(host.clean(), reported(expected));
  EXPECT_EQ(tree_listing(host / "site/private"),
            (Lines{"d 0755 0:0 a", "f 0644 0:0 a/immutable "}));
  EXPECT_EQ(tree_listing(host / "documents").size(), 2U);
  EXPECT_EQ(tree_listing(host / "cgi").size(), 2U);
}

TEST(CleanDocroot, WritesItsReportsByteForByte) {
  Host host;
  host.documents = host / "documents%1%";
  write_file(host / "documents%1%/a \"b\"/file", "");
  ASSERT_TRUE(set_immutable(host / "documents%1%/a \"b\"/file", true));
  const std::string dir = host / "documents%1%/a \"b\"";
  EXPECT_EQ(host.clean(), reported("unlink(\"" + dir + "/file\"): Operation not permitted\n" +
                                   "rmdir(\"" + dir + "\"): Directory not empty\n"));
}

TEST(CleanDocroot, ReportsEachEntryInDescendingOrder) {
  const Host host;
  for (const char* file : {"a", "a.b", "a/c", "b/d", "a!"})
    if (file != std::string("a")) write_file(host / ("documents/" + std::string(file)), "");
  ASSERT_TRUE(set_immutable(host / "documents/a", true));
  ASSERT_TRUE(set_immutable(host / "documents/b", true));
  ASSERT_TRUE(set_immutable(host / "documents", true));
  const std::string top = host / "documents/";
  EXPECT_EQ(host.clean(),
            reported(failed("unlink", top + "b/d", EPERM) + failed("rmdir", top + "b", EPERM) +
                     failed("unlink", top + "a.b", EPERM) + failed("unlink", top + "a!", EPERM) +
                     failed("unlink", top + "a/c", EPERM) + failed("rmdir", top + "a", EPERM)));
  EXPECT_EQ(tree_listing(host / "documents").size(), 6U);
}

TEST(CleanDocroot, SurvivesAFileSystemThatCannotBeWritten) {
  Host host;
  const auto outcome = testsupport::in_child([&] {
    testsupport::enter_private_mounts();
    host.documents = "/mnt/documents";
    write_file("/mnt/documents/dir/file", "");
    write_file(host / "cgi/file", "");
    if (mount("none", "/mnt", nullptr, MS_REMOUNT | MS_RDONLY, nullptr) != 0) _exit(97);
    const DocrootCleanOptions options = host.options();
    exit(vhosttest::kReturned + clean_docroot(host.site.c_str(), &options));
  });
  EXPECT_EQ(outcome, reported(failed("unlink", "/mnt/documents/dir/file", EROFS) +
                              failed("rmdir", "/mnt/documents/dir", EROFS)));
  EXPECT_EQ(tree_listing(host / "cgi"), Lines{});
}

TEST(CleanDocroot, ReportsWhatAnotherUserMayNotReachOrRemove) {
  const Host host;
  write_file(host / "documents/closed/file", "");
  write_file(host / "documents/names/file", "");
  write_file(host / "documents/open/file", "");
  ASSERT_EQ(chmod(host.path().c_str(), 0755), 0);
  ASSERT_EQ(chmod((host / "documents/closed").c_str(), 0700), 0);
  ASSERT_EQ(chmod((host / "documents/names").c_str(), 0744), 0);
  const auto outcome = testsupport::in_child([&] {
    testsupport::become_nobody_in("/");
    const DocrootCleanOptions options = host.options();
    exit(vhosttest::kReturned + clean_docroot(host.site.c_str(), &options));
  });
  const std::string top = host / "documents/";
  // The two reports of the listing come as the file system gives the directories.
  const std::string listing_closed =
      "filesystem error: directory iterator cannot open directory: Permission denied [" + top +
      "closed]\n";
  const std::string listing_names = top + "names/file: Permission denied\n";
  const std::string removal =
      failed("unlink", top + "open/file", EACCES) + failed("rmdir", top + "open", EACCES) +
      failed("lstat", top + "names/file", EACCES) + failed("rmdir", top + "names", EACCES) +
      failed("rmdir", top + "closed", EACCES);
  EXPECT_TRUE(outcome == reported(listing_closed + listing_names + removal) ||
              outcome == reported(listing_names + listing_closed + removal))
      << outcome;
}

TEST(CleanDocroot, PassesOverWhatSomebodyElseRemovesMeanwhile) {
  for (const char* vanishing : {"documents/sub/file", "documents/sub"}) {
    const Host host;
    write_file(host / "documents/sub/file", "");
    const auto outcome = testsupport::in_child_stopped_at(
        {SYS_unlinkat, "file"}, [&] { std::filesystem::remove_all(host / vanishing); },
        [&] {
          const DocrootCleanOptions options = host.options();
          exit(vhosttest::kReturned + clean_docroot(host.site.c_str(), &options));
        });
    EXPECT_EQ(outcome, reported("")) << vanishing;
    EXPECT_EQ(tree_listing(host / "documents"), Lines{});
  }
}

TEST(CleanDocroot, TakesAnEntryForWhatItHasBecome) {
  const Host host;
  write_file(host / "documents/dir/file", "");
  const std::string dir = host / "documents/dir";
  const auto clean = [&] {
    const DocrootCleanOptions options = host.options();
    exit(vhosttest::kReturned + clean_docroot(host.site.c_str(), &options));
  };
  EXPECT_EQ(testsupport::in_child_stopped_at(
                {SYS_unlinkat, "dir"},
                [&] {
                  std::filesystem::remove_all(dir);
                  write_file(dir, "");
                },
                clean),
            reported(""));
  EXPECT_EQ(tree_listing(host / "documents"), Lines{});
  write_file(host / "documents/dir", "");
  EXPECT_EQ(testsupport::in_child_stopped_at(
                {SYS_unlinkat, "dir"},
                [&] {
                  std::filesystem::remove_all(dir);
                  std::filesystem::create_directories(dir);
                },
                clean),
            reported(""));
  EXPECT_EQ(tree_listing(host / "documents"), Lines{});
}

TEST(CleanDocroot, LeavesWhatIsCreatedMeanwhile) {
  const Host host;
  write_file(host / "documents/dir/file", "");
  const auto outcome = testsupport::in_child_stopped_at(
      {SYS_unlinkat, "file"}, [&] { write_file(host / "documents/dir/new", ""); },
      [&] {
        const DocrootCleanOptions options = host.options();
        exit(vhosttest::kReturned + clean_docroot(host.site.c_str(), &options));
      });
  EXPECT_EQ(outcome, reported(failed("rmdir", host / "documents/dir", ENOTEMPTY)));
  EXPECT_EQ(tree_listing(host / "documents"), (Lines{"d 0755 0:0 dir", "f 0644 0:0 dir/new "}));
}

/// A tree of the same names as a host's, which a link may lead to at the worst moment.
void make_victim(const Host& host) {
  for (const char* file : {"victim/a/b/file", "victim/b/file", "victim/file"})
    write_file(host / file, "kept");
}

TEST(CleanDocroot, NeverPassesALinkThatAppearsAtTheWorstMoment) {
  struct Row {
    const char* replaced;  ///< by a link to the victim
    const char* target;
    testsupport::Call before;
    bool reported;  ///< an entry that lay behind the link, which was not entered yet
  };
  for (const Row& row : {Row{"documents/a/b", "victim/b", {SYS_openat, "b", 2}, true},
                         {"documents/a", "victim/a", {SYS_openat, "a", 2}, true},
                         {"documents/a", "victim/a", {SYS_unlinkat, "file"}, false},
                         {"documents/a/b", "victim/b", {SYS_unlinkat, "b"}, false},
                         {"documents", "victim", {SYS_openat, "a", 2}, false},
                         {"documents", "victim", {SYS_unlinkat, "file"}, false}}) {
    SCOPED_TRACE(std::string(row.replaced) + " before " + row.before.name);
    const Host host;
    make_victim(host);
    const Lines victim = tree_listing(host / "victim");
    write_file(host / "documents/a/b/file", "");
    const auto outcome = testsupport::in_child_stopped_at(
        row.before,
        [&] {
          std::filesystem::rename(host / row.replaced, host / "moved");
          std::filesystem::create_symlink(host / row.target, host / row.replaced);
        },
        [&] {
          const DocrootCleanOptions options = host.options();
          exit(vhosttest::kReturned + clean_docroot(host.site.c_str(), &options));
        });
    EXPECT_EQ(tree_listing(host / "victim"), victim);
    EXPECT_EQ(outcome.exit_code(), vhosttest::kReturned) << outcome;
    const std::string expected = failed("lstat", host / "documents/a/b/file", ELOOP);
    EXPECT_EQ(outcome.err.find(expected) == 0, row.reported) << outcome;
  }
}

TEST(CleanDocroot, WorksInTheDirectoriesThatItListed) {
  const Host host;
  make_victim(host);
  const Lines victim = tree_listing(host / "victim");
  for (const char* file : {"documents/a/b/file", "cgi/b/file", "site/private/first"})
    write_file(host / file, "");
  // All is listed by then, and only "private" was begun.
  const auto outcome = testsupport::in_child_stopped_at(
      {SYS_unlinkat, "first"},
      [&] {
        for (const char* name : {"documents", "cgi"}) {
          std::filesystem::rename(host / name, host / (std::string("moved-") + name));
          std::filesystem::create_symlink("victim", host / name);
        }
      },
      [&] {
        const DocrootCleanOptions options = host.options();
        exit(vhosttest::kReturned + clean_docroot(host.site.c_str(), &options));
      });
  EXPECT_EQ(outcome, reported(""));
  EXPECT_EQ(tree_listing(host / "victim"), victim);
  EXPECT_EQ(tree_listing(host / "moved-documents"), Lines{});
  EXPECT_EQ(tree_listing(host / "moved-cgi"), Lines{});
}

TEST(CleanDocroot, WorksInTheHostsDirectoryThatItOpenedFirst) {
  const Host host;
  write_file(host / "victim/private/file", "kept");
  write_file(host / "site/private/file", "");
  for (const int occurrence : {1, 2}) {  // before "private" is listed, and before it is emptied
    SCOPED_TRACE(occurrence);
    const auto outcome = testsupport::in_child_stopped_at(
        {SYS_openat, "private", occurrence},
        [&] {
          std::filesystem::rename(host / "site", host / "moved");
          std::filesystem::create_symlink("victim", host / "site");
        },
        [&] {
          const DocrootCleanOptions options = host.options();
          exit(vhosttest::kReturned + clean_docroot(host.site.c_str(), &options));
        });
    EXPECT_EQ(outcome, reported(""));
    EXPECT_EQ(tree_listing(host / "victim"),
              (Lines{"d 0755 0:0 private", "f 0644 0:0 private/file kept"}));
    EXPECT_EQ(tree_listing(host / "moved"), Lines{"d 0755 0:0 private"});
    std::filesystem::remove(host / "site");
    std::filesystem::rename(host / "moved", host / "site");
    write_file(host / "site/private/file", "");
  }
}

TEST(CleanDocroot, RemovesNothingBelowAHostThatComesBack) {
  const Host host;
  write_file(host / "moved/private/file", "kept");
  std::filesystem::remove_all(host.site);
  const auto outcome = testsupport::in_child_stopped_at(
      {SYS_openat, host / "documents"},  // the host was looked for before
      [&] { std::filesystem::rename(host / "moved", host / "site"); },
      [&] {
        const DocrootCleanOptions options = host.options();
        exit(vhosttest::kReturned + clean_docroot(host.site.c_str(), &options));
      });
  EXPECT_EQ(outcome, reported(""));
  EXPECT_EQ(tree_listing(host.site), (Lines{"d 0755 0:0 private", "f 0644 0:0 private/file kept"}));
}

TEST(CleanDocroot, ReportsWhatLiesInAHostThatCannotBeOpened) {
  const Host host;
  write_file(host / "site/private/file", "kept");
  const DocrootCleanOptions options = host.options();
  const auto outcome = testsupport::in_child([&] {
    testsupport::limit_descriptors(3);
    exit(vhosttest::kReturned + clean_docroot(host.site.c_str(), &options));
  });
  EXPECT_NE(outcome.err.find(host / "site/private" + ": Too many open files\n"), std::string::npos)
      << outcome;
  EXPECT_EQ(vhosttest::kReturned, outcome.exit_code());
  EXPECT_EQ(testsupport::read_file(host / "site/private/file"), "kept");
}

TEST(CleanDocroot, ReachesTheHostsDirectoryThroughLinks) {
  Host host;
  write_file(host / "site/private/file", "");
  std::filesystem::create_symlink("site", host / "link");
  for (const char* site : {"link", "link/"}) {
    host.site = host / site;
    write_file(host / "site/private/file", "");
    EXPECT_EQ(host.clean(), reported(""));
    EXPECT_EQ(tree_listing(host / "site"), Lines{"d 0755 0:0 private"});
  }
}

TEST(CleanDocroot, StandsATreeOfFiveThousandLevelsWithFewDescriptors) {
  const Host host(testsupport::memory_directory());
  testsupport::make_chain(host / "documents", 5000, "directory");
  testsupport::make_chain(host / "cgi", 300, "d");
  testsupport::make_chain(host / "site/private", 300, "d");
  const auto outcome = testsupport::in_child([&] {
    testsupport::limit_descriptors(64);
    const std::vector<int> before = testsupport::open_descriptors();
    const DocrootCleanOptions options = host.options();
    const int result = clean_docroot(host.site.c_str(), &options);
    if (testsupport::open_descriptors() != before) _exit(95);
    exit(vhosttest::kReturned + result);
  });
  EXPECT_EQ(outcome, reported(""));
  EXPECT_EQ(tree_listing(host.path()), kEmptied);
}

}  // namespace
