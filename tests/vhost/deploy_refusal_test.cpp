#include <errno.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "support/limits.h"
#include "support/odd_trees.h"
#include "vhost/deploy_fixture.h"
#include "vhost/misc.h"

// What a deployment meets and does not put up with, or does.
namespace {

using SetupSkeleton = DeployTest;
using testsupport::tree_listing;
using testsupport::write_file;
namespace fs = std::filesystem;

/// What the standard library says when it does the same in the same place.
template <class Call>
std::string words_of(const Call& call) {
  try {
    call();
  } catch (const fs::filesystem_error& failure) {
    return failure.what();
  }
  return "no failure";
}

void mount_on(const std::string& place, unsigned long flags, const char* options) {
  fs::create_directories(place);
  ASSERT_EQ(mount("tmpfs", place.c_str(), "tmpfs", flags, options), 0);
}

TEST_F(SetupSkeleton, ReportsAndLeavesWhatExists) {
  write_file(skeleton("conf/dir_on_dir/new"), "new");
  write_file(skeleton("conf/dir_on_file/new"), "new");
  write_file(skeleton("conf/file_on_dir"), "new");
  write_file(skeleton("conf/file_on_file"), "new");
  write_file(skeleton("conf/file_on_link"), "new");
  write_file(skeleton("conf/file_on_nothing"), "new");
  fs::create_symlink("nowhere", skeleton("conf/link_on_file"));
  write_file(host("conf/dir_on_dir/old"), "old");
  write_file(host("conf/dir_on_file"), "old");
  write_file(host("conf/file_on_dir/old"), "old");
  write_file(host("conf/file_on_file"), "old");
  write_file(host("conf/link_on_file"), "old");
  fs::create_symlink("/mnt/planted", host("conf/file_on_link"));
  EXPECT_EQ(deploy(),
            done(existing(host("conf/dir_on_file")) +
                 unexaminedTarget(host("conf/dir_on_file/new"), ENOTDIR) +
                 existing(host("conf/file_on_dir")) + existing(host("conf/file_on_file")) +
                 existing(host("conf/file_on_link")) + existing(host("conf/link_on_file"))));
  EXPECT_EQ(deployed(),
            (Lines{"d 0755 0:0 conf", "d 0755 0:0 conf/dir_on_dir",
                   "f 0644 0:4242 conf/dir_on_dir/new new", "f 0644 0:0 conf/dir_on_dir/old old",
                   "f 0644 0:0 conf/dir_on_file old", "d 0755 0:0 conf/file_on_dir",
                   "f 0644 0:0 conf/file_on_dir/old old", "f 0644 0:0 conf/file_on_file old",
                   "l - 0:0 conf/file_on_link /mnt/planted",
                   "f 0644 0:4242 conf/file_on_nothing new", "f 0644 0:0 conf/link_on_file old"}));
  EXPECT_FALSE(fs::exists("/mnt/planted"));
}

TEST_F(SetupSkeleton, ReportsASectionThatOnlyTheHostHas) {
  fs::create_directories(skeleton("httpdocs"));
  fs::create_directories(host("conf"));
  fs::create_directories(host("cgi-bin"));
  EXPECT_EQ(deploy(), done(existing(host("cgi-bin")) + existing(host("conf"))));
}

TEST_F(SetupSkeleton, NeverDeploysLinksAndSpecialFiles) {
  testsupport::make_each_type(skeleton("httpdocs"));
  std::string reports;
  for (const char* name : {"dangling", "device", "dirlink", "link", "pipe", "socket"})
    reports += special(host(std::string("httpdocs/") + name));
  EXPECT_EQ(deploy(), done(reports));
  EXPECT_EQ(deployed(),
            (Lines{"d 0755 0:4242 httpdocs", "d 0705 0:4242 httpdocs/dir",
                   "f 0604 0:4242 httpdocs/dir/file inner", "f 0604 0:4242 httpdocs/file outer"}));
}

TEST_F(SetupSkeleton, NamesTheTargetOfWhatItNeverDeploys) {
  options_.docrootDir = "/mnt/docs";
  fs::create_directories(skeleton("httpdocs"));
  fs::create_symlink("nowhere", skeleton("httpdocs/link"));
  fs::create_directory_symlink("httpdocs", skeleton("conf"));
  EXPECT_EQ(deploy(), done(special(host("conf")) + special("/mnt/docs/link")));
}

TEST_F(SetupSkeleton, PassesNoLinkBelowTheHost) {
  write_file(skeleton("conf/sub/file"), "new");
  write_file(skeleton("error_docs/file"), "new");
  fs::create_directories("/mnt/outside");
  fs::create_directories(host("conf"));
  fs::create_directory_symlink("/mnt/outside", host("conf/sub"));
  fs::create_directory_symlink("/mnt/outside", host("error_docs"));
  EXPECT_EQ(deploy(),
            done(existing(host("conf/sub")) + unexaminedTarget(host("conf/sub/file"), ELOOP) +
                 existing(host("error_docs")) + unexaminedTarget(host("error_docs/file"), ELOOP)));
  EXPECT_EQ(tree_listing("/mnt/outside"), Lines{});
}

TEST_F(SetupSkeleton, PassesNoLinkBelowTheDocumentRoot) {
  write_file(skeleton("httpdocs/sub/file"), "new");
  fs::create_directories("/mnt/outside");
  fs::create_directories(host("httpdocs"));
  fs::create_directory_symlink("/mnt/outside", host("httpdocs/sub"));
  EXPECT_EQ(deploy(), done(existing(host("httpdocs/sub")) +
                           unexaminedTarget(host("httpdocs/sub/file"), ELOOP)));
  EXPECT_EQ(tree_listing("/mnt/outside"), Lines{});
}

TEST_F(SetupSkeleton, PassesNoLinkBelowTheCgiDirectory) {
  write_file(skeleton("cgi-bin/sub/file"), "new");
  fs::create_directories("/mnt/outside");
  fs::create_directories(host("cgi-bin"));
  fs::create_directory_symlink("/mnt/outside", host("cgi-bin/sub"));
  EXPECT_EQ(deploy(), done(existing(host("cgi-bin/sub")) +
                           unexaminedTarget(host("cgi-bin/sub/file"), ELOOP)));
  EXPECT_EQ(tree_listing("/mnt/outside"), Lines{});
}

TEST_F(SetupSkeleton, TakesItsModeAsGivenWhateverSkipHttpdocsSays) {
  write_file(skeleton("httpdocs/file"), "");
  options_.skipHttpdocs = 1;
  EXPECT_EQ(deploy(), done());
  EXPECT_EQ(deployed(), (Lines{"d 0755 0:4242 httpdocs", "f 0644 0:4242 httpdocs/file "}));
}

TEST_F(SetupSkeleton, ReachesTheDirectoriesThemselvesThroughLinks) {
  write_file(skeleton("conf/file"), "");
  write_file(skeleton("httpdocs/file"), "");
  fs::create_directories("/mnt/host");
  fs::create_directories("/mnt/docs");
  fs::create_directory_symlink("/mnt/host", root("example.com"));
  fs::create_directory_symlink("/mnt/docs", "/mnt/link");
  options_.docrootDir = "/mnt/link";
  EXPECT_EQ(deploy(), done(existing("/mnt/link")));
  EXPECT_EQ(tree_listing("/mnt/host"), (Lines{"d 0755 0:4242 conf", "f 0644 0:4242 conf/file "}));
  EXPECT_EQ(tree_listing("/mnt/docs"), Lines{"f 0644 0:4242 file "});
}

TEST_F(SetupSkeleton, WritesPathsAsTheyAre) {
  write_file(skeleton("conf/100%1% \"a\\b\" \n"), "");
  const std::string path = host("conf/100%1% \"a\\b\" \n");
  ASSERT_EQ(deploy(), done());
  EXPECT_EQ(deploy(), done(existing(path)));
}

TEST_F(SetupSkeleton, FillsTheSiteOfAUserWhoRunsItAndReadsWhatThatUserMay) {
  write_file(skeleton("conf/closed"), "secret", 0600);
  write_file(skeleton("conf/open"), "text", 0604);
  write_file(skeleton("conf/dark/inside"), "");
  fs::create_directories(host(""));
  ASSERT_EQ(chown(host("").c_str(), 65534, 65534), 0);
  ASSERT_EQ(chmod(skeleton("conf/dark").c_str(), 0700), 0);
  fs::create_directory(skeleton("conf/others"));
  ASSERT_EQ(chmod(skeleton("conf/others").c_str(), 01007), 0);
  const auto outcome = deployAfter([] { testsupport::become_nobody_in("/"); });
  EXPECT_EQ(outcome, done("filesystem error: directory iterator cannot open directory: Permission "
                          "denied [" +
                          skeleton("conf/dark") + "]\n"));
  EXPECT_EQ(deployed(), (Lines{"d 0755 65534:65534 conf", "f 0600 65534:65534 conf/closed ",
                               "d 0700 65534:65534 conf/dark", "f 0604 65534:65534 conf/open text",
                               "d 1007 65534:65534 conf/others"}));
}

TEST_F(SetupSkeleton, ReportsATargetThatCannotBeExamined) {
  write_file(skeleton("conf/file"), "");
  write_file(skeleton("httpdocs/file"), "");
  fs::create_directories(host("conf"));
  fs::create_directories("/mnt/closed/docs");
  ASSERT_EQ(chmod(host("conf").c_str(), 0644), 0);
  ASSERT_EQ(chmod("/mnt/closed", 0700), 0);
  options_.docrootDir = "/mnt/closed/docs";
  EXPECT_EQ(deployAfter([] { testsupport::become_nobody_in("/"); }),
            done(unexaminedTarget(host("conf/file"), EACCES) +
                 unexaminedTarget("/mnt/closed/docs", EACCES) +
                 unexaminedTarget("/mnt/closed/docs/file", EACCES)));
}

TEST_F(SetupSkeleton, ReportsAnOriginalThatCannotBeExamined) {
  write_file(skeleton("conf/file"), "");
  ASSERT_EQ(chmod(skeleton("conf").c_str(), 0644), 0);
  fs::create_directories(host("conf"));
  const std::string path = skeleton("conf/file");
  EXPECT_EQ(deployAfter([] { testsupport::become_nobody_in("/"); }),
            done(path + ": Permission denied\n" + unexaminedOriginal(path, EACCES)));
}

TEST_F(SetupSkeleton, IgnoresWhatCannotBeWritten) {
  write_file(skeleton("conf/1"), std::string(16384, '1'), 0640);
  write_file(skeleton("conf/2"), "2");
  write_file(skeleton("conf/3"), "");
  ASSERT_NO_FATAL_FAILURE(mount_on(host("conf"), 0, "size=8k,mode=0755"));
  EXPECT_EQ(deploy(), done());
  EXPECT_EQ(tree_listing(host("conf")), (Lines{"f 0640 0:4242 1 " + std::string(8192, '1'),
                                               "f 0644 0:4242 2 ", "f 0644 0:4242 3 "}));
}

TEST_F(SetupSkeleton, IgnoresAFileThatCannotBeCreated) {
  write_file(skeleton("conf/file"), "text");
  write_file(skeleton("webspace/file"), "text");
  ASSERT_NO_FATAL_FAILURE(mount_on(host("conf"), MS_RDONLY, "mode=0755"));
  EXPECT_EQ(deploy(), done());
  EXPECT_EQ(tree_listing(host("conf")), Lines{});
  EXPECT_EQ(tree_listing(host("webspace")), Lines{"f 0644 0:4242 file text"});
}

TEST_F(SetupSkeleton, EndsAtADirectoryThatCannotBeCreated) {
  write_file(skeleton("anon_ftp/file"), "");
  write_file(skeleton("conf/sub/file"), "");
  write_file(skeleton("webspace/file"), "");
  ASSERT_NO_FATAL_FAILURE(mount_on(host("conf"), MS_RDONLY, "mode=0755"));
  const std::string text = words_of([] { fs::create_directory(host("conf/sub")); });
  ASSERT_NE(text.find("Read-only file system"), std::string::npos) << text;
  EXPECT_EQ(deploy(), thrown(text));
  EXPECT_EQ(deployed(),
            (Lines{"d 0755 0:4242 anon_ftp", "f 0644 0:4242 anon_ftp/file ", "d 0755 0:0 conf"}));
}

TEST_F(SetupSkeleton, EndsAtADirectoryOfTheDocumentsThatCannotBeCreated) {
  write_file(skeleton("httpdocs/sub/file"), "");
  ASSERT_NO_FATAL_FAILURE(mount_on("/mnt/docs", MS_RDONLY, "mode=0755"));
  for (const char* docroot : {"/mnt/docs", "/mnt/docs/", "/mnt/docs/new", "/mnt/docs/new/deep/",
                              "/mnt/docs/new/./deep", ""}) {
    SCOPED_TRACE(docroot);
    options_.docrootDir = docroot;
    const bool exists = fs::exists(docroot);
    const fs::path first = exists ? fs::path(docroot) / "sub" : fs::path(docroot);
    const std::string text = words_of([&] { fs::create_directories(first); });
    ASSERT_NE(text, "no failure");
    EXPECT_EQ(deploy(), thrown(text));
  }
}

TEST_F(SetupSkeleton, ReportsADocumentRootBelowAFile) {
  fs::create_directories(skeleton("httpdocs"));
  write_file("/mnt/file", "");
  options_.docrootDir = "/mnt/file/docs";
  EXPECT_EQ(deploy(), done(unexaminedTarget("/mnt/file/docs", ENOTDIR)));
}

TEST_F(SetupSkeleton, EndsBelowADocumentRootThatIsALinkToNowhere) {
  write_file(skeleton("httpdocs/a"), "");
  fs::create_directories(skeleton("httpdocs/sub"));
  fs::create_symlink("nowhere", "/mnt/docs");
  options_.docrootDir = "/mnt/docs";
  EXPECT_EQ(deploy(),
            thrown("filesystem error: cannot create directories: File exists [/mnt/docs/sub]",
                   existing("/mnt/docs")));
  options_.docrootDir = "/mnt/docs/new";
  EXPECT_EQ(deploy(),
            thrown("filesystem error: cannot create directories: File exists [/mnt/docs/new]"));
  EXPECT_FALSE(fs::exists("/mnt/nowhere"));
}

TEST_F(SetupSkeleton, NeedsADocumentRootForItsDocuments) {
  fs::create_directories(skeleton("conf"));
  const std::vector<const char*> none{nullptr, ""};
  for (const char* docroot : none) {
    options_.docrootDir = docroot;
    fs::remove_all(skeleton("httpdocs"));
    EXPECT_EQ(deploy(), done());
    fs::create_directories(skeleton("httpdocs"));
    EXPECT_EQ(deploy(), thrown("filesystem error: cannot create directories: Invalid argument []"));
  }
}

TEST_F(SetupSkeleton, EndsWhereTheHostCannotBeExamined) {
  fs::create_directories(skeleton("conf"));
  fs::create_directories(root("closed"));
  ASSERT_EQ(chmod(root("closed").c_str(), 0700), 0);
  fs::create_symlink("closed/host", root("example.com"));
  EXPECT_EQ(deployAfter([] { testsupport::become_nobody_in("/"); }),
            thrown("filesystem error: status: Permission denied [" + root("example.com") + "]"));
}

TEST_F(SetupSkeleton, EndsWhereTheHostCannotBeCreated) {
  fs::create_directories(skeleton("conf"));
  fs::create_symlink("nowhere", root("example.com"));
  const std::string text = words_of([] { fs::create_directory(root("example.com")); });
  ASSERT_NE(text, "no failure");
  EXPECT_EQ(deploy(), thrown(text));
  for (const char* path : {"/mnt/new/host", "/mnt/new/.", "/mnt/new/./", "/mnt/file/host", ""}) {
    SCOPED_TRACE(path);
    write_file("/mnt/file", "");
    frask::VhostPath site;
    site.vhostsDir = root("");
    site.fullPath = path;
    const std::string theirs = words_of([&] { fs::create_directory(path); });
    ASSERT_NE(theirs, "no failure");
    EXPECT_EQ(words_of([&] { frask::setup_skeleton(site, frask::SETUP_SKELETON_ALL, "7", {}); }),
              theirs);
  }
}

TEST_F(SetupSkeleton, GoesFarDownInEverySectionWithFewDescriptors) {
  options_.docrootDir = "/mnt/docs";
  options_.cgiBinDir = "/mnt/programs";
  struct Row {
    const char* section;
    std::string target;
    int depth;
  };
  const std::vector<Row> rows{{"anon_ftp", host("anon_ftp"), 100},
                              {"cgi-bin", "/mnt/programs", 100},
                              {"httpdocs", "/mnt/docs", 5000},
                              {"webspace", host("webspace"), 100}};
  for (const Row& row : rows) {
    fs::create_directories(skeleton(row.section));
    testsupport::make_chain(skeleton(row.section), row.depth, "directory");
  }
  EXPECT_EQ(deployAfter([] { testsupport::limit_descriptors(52); }), done());
  for (const Row& row : rows) {
    SCOPED_TRACE(row.section);
    int depth = 0;
    ASSERT_EQ(chdir(row.target.c_str()), 0);
    while (chdir("directory") == 0) ++depth;
    EXPECT_EQ(depth, row.depth);
  }
}

}  // namespace
