#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

#include "vhost/deploy_race_fixture.h"

// Others change what the path of the document root, the CGI directory, the host or the skeleton
// leads to while a deployment is at work.
namespace {

using SetupSkeletonInARace = DeployRaceTest;
using testsupport::Call;
using testsupport::tree_listing;
using testsupport::write_file;
namespace fs = std::filesystem;

const Call kCreationOfDocs{SYS_mkdirat, "docs"};
const Call kOpeningOfNewDocs{SYS_openat, "docs"};
const Call kLookForTheGroup{SYS_openat, "/etc/group"};

/// What the same directory may be called.
const std::vector<std::string> kEnds{"", "/", "//", "/.", "/./", "/././/"};

TEST_F(SetupSkeletonInARace, PassesNoLinkThatGetsIntoThePlaceOfANewDocumentRoot) {
  write_file(skeleton("httpdocs/file"), "text");
  ASSERT_EQ(chmod(skeleton("httpdocs").c_str(), 0777), 0);
  for (const std::string& end : kEnds) {
    SCOPED_TRACE(end);
    fs::remove_all(root("web"));
    fs::create_directories(root("web"));
    const std::string docroot = root("web/docs") + end;
    options_.docrootDir = docroot.c_str();
    EXPECT_EQ(deployStoppedAt(kOpeningOfNewDocs, [] { putLinkAt(root("web/docs")); }),
              done(unexaminedTarget((fs::path(docroot) / "file").string(), ELOOP)));
    EXPECT_EQ(tree_listing(root("web")),
              (Lines{"l - 0:0 docs /mnt/outside", "d 0755 0:0 docs.moved"}));
    expectOutsideUnharmed();
  }
}

TEST_F(SetupSkeletonInARace, StaysWhereItCreatedTheDocumentRoot) {
  write_file(skeleton("httpdocs/file"), "text");
  ASSERT_EQ(chmod(skeleton("httpdocs").c_str(), 0777), 0);
  for (const Call& call : {kCreationOfDocs, kOpeningOfNewDocs}) {
    SCOPED_TRACE(call.number);
    for (const std::string parent : {"web", "web/new"}) {
      SCOPED_TRACE(parent);
      fs::remove_all(root("web"));
      fs::remove_all(root("web.moved"));
      fs::create_directories(root("web"));
      const std::string path = root(parent + "/docs/");
      options_.docrootDir = path.c_str();
      EXPECT_EQ(deployStoppedAt(call, [&] { putLinkAt(root(parent)); }), done());
      EXPECT_EQ(tree_listing(root(parent + ".moved")),
                (Lines{"d 0777 0:4242 docs", "f 0644 0:4242 docs/file text"}));
      expectOutsideUnharmed();
    }
  }
}

TEST_F(SetupSkeletonInARace, WorksOnInTheDirectoriesOfTheOptionsThatItMade) {
  write_file(skeleton("httpdocs/cron.d/file"), "text");
  write_file(skeleton("cgi-bin/cron.d/file"), "text");
  options_.docrootDir = "/var/www/vhosts/docs";
  options_.cgiBinDir = "/var/www/vhosts/programs";
  struct Row {
    Call call;
    const char* swapped;
  };
  for (const Row& row : {Row{{SYS_fchown, "", 1}, "programs"},
                         {{SYS_mkdirat, "cron.d", 1}, "programs"},
                         {{SYS_openat, "file", 1}, "programs"},
                         {{SYS_fchown, "", 4}, "docs"},
                         {{SYS_mkdirat, "cron.d", 2}, "docs"}}) {
    SCOPED_TRACE(row.call.number);
    SCOPED_TRACE(row.swapped);
    for (const char* name : {"docs", "docs.moved", "programs", "programs.moved"})
      fs::remove_all(root(name));
    EXPECT_EQ(deployStoppedAt(row.call, [&] { putLinkAt(root(row.swapped)); }), done());
    EXPECT_EQ(tree_listing(root(std::string(row.swapped) + ".moved")),
              (Lines{"d 0755 0:4242 cron.d", "f 0644 0:4242 cron.d/file text"}));
    expectOutsideUnharmed();
  }
}

TEST_F(SetupSkeletonInARace, LeavesItsOwnDirectoryAloneThatGetsIntoThePlaceOfTheDocumentRoot) {
  fs::create_directories(skeleton("httpdocs"));
  ASSERT_EQ(chmod(skeleton("httpdocs").c_str(), 0777), 0);
  write_file(root("web/priv/file"), "kept");
  ASSERT_EQ(chmod(root("web/priv").c_str(), 0700), 0);
  options_.docrootDir = "/var/www/vhosts/web/docs/";
  EXPECT_EQ(deployStoppedAt(kOpeningOfNewDocs,
                            [] {
                              fs::remove(root("web/docs"));
                              fs::rename(root("web/priv"), root("web/docs"));
                            }),
            done());
  EXPECT_EQ(tree_listing(root("web")), (Lines{"d 0700 0:0 docs", "f 0644 0:0 docs/file kept"}));
}

TEST_F(SetupSkeletonInARace, MakesNoDocumentRootMoreOpenThanItWillBe) {
  fs::create_directories(skeleton("httpdocs"));
  ASSERT_EQ(chmod(skeleton("httpdocs").c_str(), 0050), 0);
  options_.docrootDir = "/var/www/vhosts/docs";
  EXPECT_EQ(deployStoppedAt(kOpeningOfNewDocs, [] { noteModeOf(root("docs")); }), done());
  EXPECT_EQ(notedMode(), "750") << "it must be opened by who made it";
  EXPECT_EQ(testsupport::mode_of(root("docs")), 0050U);
}

TEST_F(SetupSkeletonInARace, CreatesADocumentRootAnewThatWasRemoved) {
  write_file(skeleton("httpdocs/sub/file"), "text");
  for (const bool was_there : {false, true})
    for (const std::string& end : kEnds) {
      SCOPED_TRACE(end);
      fs::remove_all(root("web"));
      fs::create_directories(root(was_there ? "web/docs" : "web"));
      const std::string docroot = root("web/docs") + end;
      options_.docrootDir = docroot.c_str();
      EXPECT_EQ(deployStoppedAt({SYS_mkdirat, "sub"}, [] { fs::remove(root("web/docs")); }),
                done());
      EXPECT_EQ(tree_listing(root("web")), (Lines{"d 0755 0:0 docs", "d 0755 0:4242 docs/sub",
                                                  "f 0644 0:4242 docs/sub/file text"}));
    }
}

TEST_F(SetupSkeletonInARace, CreatesADocumentRootAnewOnlyWhereItWas) {
  fs::create_directories(skeleton("httpdocs/sub"));
  for (const char* docroot : {"/var/www/vhosts/web/docs", "/var/www/vhosts/web/docs/."}) {
    SCOPED_TRACE(docroot);
    options_.docrootDir = docroot;
    const std::string text = "filesystem error: cannot create directories: ";
    const std::string sub = (fs::path(docroot) / "sub").string();
    for (const char* removed : {"web/docs", "web"}) {
      fs::remove_all(root("web"));
      fs::remove_all(root("web.moved"));
      fs::create_directories(root("web/docs"));
      const bool itself = std::string(removed) == "web/docs";
      EXPECT_EQ(deployStoppedAt({SYS_mkdirat, "sub"},
                                [&] {
                                  fs::remove_all(root(removed));
                                  fs::create_directory_symlink("/mnt/outside", root(removed));
                                }),
                thrown(text + strerror(itself ? EEXIST : ENOENT) + " [" + sub + "]"));
      expectOutsideUnharmed();
    }
  }
}

TEST_F(SetupSkeletonInARace, TakesADocumentRootThatSomebodyElseMadeAnew) {
  fs::create_directories(skeleton("httpdocs/sub"));
  fs::create_directories(root("docs"));
  options_.docrootDir = "/var/www/vhosts/docs";
  const auto make_anew = [] {
    fs::remove(root("docs"));
    fs::create_directory(root("docs"));
  };
  EXPECT_EQ(deployStoppedAt({SYS_mkdirat, "sub"}, make_anew), done());
  EXPECT_EQ(tree_listing(root("docs")), Lines{"d 0755 0:4242 sub"});
}

TEST_F(SetupSkeletonInARace, EndsWhereALinkGetsAmongTheParentsOfTheDocumentRoot) {
  fs::create_directories(skeleton("httpdocs"));
  options_.docrootDir = "/var/www/vhosts/new/docs";
  EXPECT_EQ(deployStoppedAt({SYS_mkdirat, "new"},
                            [] { fs::create_directory_symlink("/mnt/outside", root("new")); }),
            thrown("filesystem error: cannot create directories: File exists [" + root("new/docs") +
                   "]"));
  expectOutsideUnharmed();
  fs::remove(root("new"));
  EXPECT_EQ(deployStoppedAt({SYS_mkdirat, "new"}, [] { fs::create_directory(root("new")); }),
            done());
  EXPECT_EQ(tree_listing(root("new")), Lines{"d 0755 0:4242 docs"});
}

TEST_F(SetupSkeletonInARace, WorksOnInTheHostsDirectory) {
  write_file(skeleton("conf/a"), "text");
  write_file(skeleton("webspace/b"), "text");
  for (const bool was_there : {false, true})
    for (const Call& call : {kLookForTheGroup, Call{SYS_openat, "a"}}) {
      SCOPED_TRACE(call.name);
      fs::remove_all(root("example.com"));
      fs::remove_all(root("example.com.moved"));
      if (was_there) fs::create_directory(root("example.com"));
      EXPECT_EQ(deployStoppedAt(call, [] { putLinkAt(root("example.com")); }), done());
      EXPECT_EQ(tree_listing(root("example.com.moved")),
                (Lines{"d 0755 0:4242 conf", "f 0644 0:4242 conf/a text", "d 0755 0:4242 webspace",
                       "f 0644 0:4242 webspace/b text"}));
      expectOutsideUnharmed();
    }
}

TEST_F(SetupSkeletonInARace, PassesNoLinkThatGetsIntoThePlaceOfANewHost) {
  fs::create_directories(skeleton("conf"));
  EXPECT_EQ(deployStoppedAt({SYS_openat, "example.com"}, [] { putLinkAt(root("example.com")); }),
            done(unexaminedTarget(host("anon_ftp"), ELOOP) + unexaminedTarget(host("conf"), ELOOP) +
                 unexaminedTarget(host("error_docs"), ELOOP) +
                 unexaminedTarget(host("statistics"), ELOOP) +
                 unexaminedTarget(host("webspace"), ELOOP)));
  expectOutsideUnharmed();
}

TEST_F(SetupSkeletonInARace, TakesAHostThatAppearsBehindTheCheckUnlessItIsALink) {
  fs::create_directories(skeleton("conf"));
  const Call creation{SYS_mkdirat, "example.com"};
  EXPECT_EQ(deployStoppedAt(creation, [] { fs::create_directory(root("example.com")); }), done());
  EXPECT_EQ(deployed(), Lines{"d 0755 0:4242 conf"});
  fs::remove_all(root("example.com"));
  EXPECT_EQ(
      deployStoppedAt(creation,
                      [] { fs::create_directory_symlink("/mnt/outside", root("example.com")); }),
      thrown("filesystem error: cannot create directory: File exists [" + root("example.com") +
             "]"));
  expectOutsideUnharmed();
}

TEST_F(SetupSkeletonInARace, ReadsOnInTheSkeletonThatItListed) {
  write_file(skeleton("conf/kept"), "@domain_name@");
  EXPECT_EQ(deployStoppedAt(kLookForTheGroup, [] { putLinkAt(store("7")); }), done());
  EXPECT_EQ(deployed(), (Lines{"d 0755 0:4242 conf", "f 0644 0:4242 conf/kept example.com"}));
}

}  // namespace
