#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>

#include "fs/unique_fd.h"
#include "support/private_mounts.h"
#include "vhost/deploy_fixture.h"
#include "vhost/misc.h"

// What a deployment copies, and where to.
namespace {

using SetupSkeleton = DeployTest;
using testsupport::tree_listing;
using testsupport::write_file;
namespace fs = std::filesystem;

void make_directory(const std::string& path, mode_t mode = 0755) {
  fs::create_directories(path);
  ASSERT_EQ(chmod(path.c_str(), mode), 0);
}

TEST_F(SetupSkeleton, CopiesDirectoriesAndFilesWithTheSitesName) {
  write_file(skeleton("httpdocs/index.html"), "<p>@domain_name@@domain_name@</p>");
  write_file(skeleton("httpdocs/img/logo.png"), std::string("\0@domain_name@\0", 15), 0600);
  write_file(skeleton("error_docs/empty.html"), "");
  write_file(skeleton("README"), "not in a section");
  EXPECT_EQ(deploy(), done());
  EXPECT_EQ(deployed(),
            (Lines{"d 0755 0:4242 error_docs", "f 0644 0:4242 error_docs/empty.html ",
                   "d 0755 0:4242 httpdocs", "d 0755 0:4242 httpdocs/img",
                   "f 0600 0:4242 httpdocs/img/logo.png " + std::string("\0example.com\0", 13),
                   "f 0644 0:4242 httpdocs/index.html <p>example.comexample.com</p>"}));
}

TEST_F(SetupSkeleton, GivesTheSkeletonsModesWhateverTheMask) {
  write_file(skeleton("conf/open"), "", 0666);
  write_file(skeleton("conf/closed"), "", 0000);
  write_file(skeleton("conf/readonly"), "text", 0444);
  make_directory(skeleton("conf/shared"), 03777);
  make_directory(skeleton("conf/dark"), 0000);
  write_file(skeleton("conf/passage/file"), "inside");
  make_directory(skeleton("conf/passage"), 0311);
  EXPECT_EQ(deployAfter([] { umask(077); }), done());
  EXPECT_EQ(deployed(),
            (Lines{"d 0755 0:4242 conf", "f 0000 0:4242 conf/closed ", "d 0000 0:4242 conf/dark",
                   "f 0666 0:4242 conf/open ", "d 0311 0:4242 conf/passage",
                   "f 0644 0:4242 conf/passage/file inside", "f 0444 0:4242 conf/readonly text",
                   "d 3777 0:4242 conf/shared"}));
}

/// An access control list for what is created in a directory: user 0777, group 0770, others none.
void give_default_access(const std::string& directory) {
  const unsigned char list[] = {2,    0,    0, 0, 1,    0,    7,    0,    0xff, 0xff,
                                0xff, 0xff, 4, 0, 7,    0,    0xff, 0xff, 0xff, 0xff,
                                0x20, 0,    0, 0, 0xff, 0xff, 0xff, 0xff};
  ASSERT_EQ(setxattr(directory.c_str(), "system.posix_acl_default", list, sizeof list, 0), 0);
}

TEST_F(SetupSkeleton, GivesTheSkeletonsModesWhateverAccessIsInherited) {
  make_directory(skeleton("conf/sub/deep"), 0777);
  make_directory(skeleton("conf/sub"), 0705);
  make_directory(host("conf"));
  ASSERT_NO_FATAL_FAILURE(give_default_access(host("conf")));
  EXPECT_EQ(deploy(), done());
  EXPECT_EQ(deployed(),
            (Lines{"d 0755 0:0 conf", "d 0705 0:4242 conf/sub", "d 0777 0:4242 conf/sub/deep"}));
}

TEST_F(SetupSkeleton, LeavesTheMaskAndTheWorkingDirectoryOfItsCaller) {
  write_file(skeleton("httpdocs/img/logo.png"), "");
  fs::create_directory(root("elsewhere"));
  const auto outcome = testsupport::in_child([&] {
    umask(0137);
    fs::current_path(root("elsewhere"));
    deployHere();
    std::cout << std::oct << umask(0) << " " << (fs::current_path() == root("elsewhere"));
  });
  EXPECT_EQ(outcome.out, "0\n137 1");
}

// The group comes after the mode, and takes the set-id bits of a program away; set-group-ID on a
// file that the group may not execute means something else, and stays.
TEST_F(SetupSkeleton, LosesTheSetIdBitsOfPrograms) {
  write_file(skeleton("cgi-bin/both"), "", 06755);
  write_file(skeleton("cgi-bin/user"), "", 04711);
  write_file(skeleton("cgi-bin/locked"), "", 02644);
  write_file(skeleton("cgi-bin/plain"), "", 04644);
  write_file(skeleton("cgi-bin/sticky"), "", 01644);
  make_directory(skeleton("cgi-bin/dir"), 06755);
  EXPECT_EQ(deploy(), done());
  EXPECT_EQ(deployed(), (Lines{"d 0755 0:4242 cgi-bin", "f 0755 0:4242 cgi-bin/both ",
                               "d 6755 0:4242 cgi-bin/dir", "f 2644 0:4242 cgi-bin/locked ",
                               "f 0644 0:4242 cgi-bin/plain ", "f 1644 0:4242 cgi-bin/sticky ",
                               "f 0711 0:4242 cgi-bin/user "}));
}

TEST_F(SetupSkeleton, DoesNothingWithoutASkeleton) {
  EXPECT_EQ(deploy(nullptr), done());
  EXPECT_FALSE(fs::exists(root("example.com")));
}

TEST_F(SetupSkeleton, ChecksTheDirectoryEvenWithoutASkeleton) {
  const auto outcome = testsupport::in_child(
      [&] { tell([&] { return setup_skeleton("/srv/example.com", 0, nullptr, &options_); }); });
  EXPECT_EQ(outcome,
            thrown("Virtual host /srv/example.com is not a subdirectory of /var/www/vhosts"));
}

TEST_F(SetupSkeleton, RefusesADirectoryThatIsNoHost) {
  const std::string path = host("httpdocs");
  const auto outcome = testsupport::in_child(
      [&] { tell([&] { return setup_skeleton(path.c_str(), 0, "7", &options_); }); });
  EXPECT_EQ(outcome, thrown("Directory " + path + " does not represent a virtual host"));
}

TEST_F(SetupSkeleton, CreatesTheHostsDirectoryAsTheCallerCreatesDirectories) {
  fs::create_directory(skeleton(""));
  EXPECT_EQ(deployAfter([] { umask(027); }), done());
  EXPECT_EQ(testsupport::mode_of(root("example.com")), 0750U);
  struct stat st = {};
  ASSERT_EQ(stat(root("example.com").c_str(), &st), 0);
  EXPECT_EQ(st.st_gid, 0U);
}

TEST_F(SetupSkeleton, LeavesThePresentHostsDirectoryAsItIs) {
  write_file(skeleton("conf/file"), "");
  make_directory(root("example.com"), 0711);
  ASSERT_EQ(chown(root("example.com").c_str(), 7, 8), 0);
  EXPECT_EQ(deploy(), done());
  const Lines hosts = tree_listing("/var/www/vhosts");
  EXPECT_NE(std::find(hosts.begin(), hosts.end(), "d 0711 7:8 example.com"), hosts.end());
}

TEST_F(SetupSkeleton, TakesTheDefaultSkeletonForAMissingOne) {
  write_file(store("0/conf/from"), "default");
  write_file(skeleton("conf/from"), "seven");
  EXPECT_EQ(deploy("8"), done());
  EXPECT_EQ(deployed(), (Lines{"d 0755 0:4242 conf", "f 0644 0:4242 conf/from default"}));
}

TEST_F(SetupSkeleton, TakesTheDefaultSkeletonForALinkThatLeadsNowhere) {
  write_file(store("0/conf/from"), "default");
  fs::create_symlink("nowhere", store("7"));
  EXPECT_EQ(deploy(), done());
  EXPECT_EQ(deployed(), (Lines{"d 0755 0:4242 conf", "f 0644 0:4242 conf/from default"}));
}

TEST_F(SetupSkeleton, TakesNoDefaultForASkeletonThatCannotBeExamined) {
  write_file(store("0/conf/from"), "default");
  write_file(store("file"), "");
  const std::string path = store("file/7");
  EXPECT_EQ(
      deploy("file/7", frask::SETUP_SKELETON_CONTENT),
      done(path + "/httpdocs: Not a directory\n" + path + "/cgi-bin: Not a directory\n" + path +
           "/private: Not a directory\n" + unexaminedOriginal(path + "/cgi-bin", ENOTDIR) +
           unexaminedOriginal(path + "/httpdocs", ENOTDIR) +
           unexaminedOriginal(path + "/private", ENOTDIR)));
  EXPECT_EQ(deployed(), Lines{});
}

TEST_F(SetupSkeleton, NamesTheDefaultSkeletonWhereNoneExists) {
  EXPECT_EQ(deploy("8"), thrown("Skeleton directory `/var/www/vhosts/.skel/0' does not exist"));
  EXPECT_TRUE(fs::is_directory(root("example.com")));
}

TEST_F(SetupSkeleton, TakesASkeletonThatIsReachedThroughLinks) {
  write_file(root("templates/7/conf/file"), "text");
  fs::create_symlink("../templates/7", store("7"));
  EXPECT_EQ(deploy(), done());
  EXPECT_EQ(deployed(), (Lines{"d 0755 0:4242 conf", "f 0644 0:4242 conf/file text"}));
}

TEST_F(SetupSkeleton, TakesASkeletonWithASeparatorAtTheEnd) {
  write_file(skeleton("conf/file"), "text");
  for (const char* id : {"7/", "7//", "7/.", "7/./"}) {
    SCOPED_TRACE(id);
    fs::remove_all(root("example.com"));
    EXPECT_EQ(deploy(id), done());
    EXPECT_EQ(deployed(), (Lines{"d 0755 0:4242 conf", "f 0644 0:4242 conf/file text"}));
  }
}

TEST_F(SetupSkeleton, CreatesNothingWithoutTheGroup) {
  write_file(skeleton("conf/file"), "");
  testsupport::mount_file_over("/etc/group", "root:x:0:\n");
  EXPECT_EQ(deploy(), thrown("group oxacln not found"));
  EXPECT_TRUE(fs::is_directory(root("example.com")));
  EXPECT_EQ(deployed(), Lines{});
}

TEST_F(SetupSkeleton, ListsTheSkeletonBeforeItLooksForTheGroup) {
  write_file(store("7"), "");
  testsupport::mount_file_over("/etc/group", "root:x:0:\n");
  EXPECT_EQ(deploy("7", frask::SETUP_SKELETON_CONTENT),
            thrown("group oxacln not found", skeleton("httpdocs") + ": Not a directory\n" +
                                                 skeleton("cgi-bin") + ": Not a directory\n" +
                                                 skeleton("private") + ": Not a directory\n"));
}

TEST_F(SetupSkeleton, SelectsSectionsByTheMode) {
  for (const char* section : {"anon_ftp", "cgi-bin", "conf", "error_docs", "httpdocs", "httpsdocs",
                              "private", "statistics", "webspace", "other"})
    fs::create_directories(skeleton(section));
  struct Row {
    int mode;
    std::vector<std::string> sections;
  };
  for (const Row& row :
       {Row{0, {"anon_ftp", "cgi-bin", "conf", "error_docs", "httpdocs", "statistics", "webspace"}},
        {1, {"cgi-bin", "httpdocs", "private"}},
        {2, {"anon_ftp", "cgi-bin", "conf", "error_docs", "statistics", "webspace"}},
        {3, {}},
        {-1, {}}}) {
    SCOPED_TRACE(row.mode);
    fs::remove_all(root("example.com"));
    EXPECT_EQ(deploy("7", row.mode), done());
    Lines expected;
    for (const std::string& section : row.sections) expected.push_back("d 0755 0:4242 " + section);
    EXPECT_EQ(deployed(), expected);
  }
}

TEST_F(SetupSkeleton, LeavesOutWhatTheOptionsKeep) {
  for (const char* file : {"cgi-bin/a", "error_docs/b", "conf/c"}) write_file(skeleton(file), "");
  struct Row {
    int keep_error_docs;
    int keep_cgi_bin;
    Lines expected;
  };
  const Lines cgi_bin{"d 0755 0:4242 cgi-bin", "f 0644 0:4242 cgi-bin/a "};
  for (const Row& row : {Row{2,
                             0,
                             {"d 0755 0:4242 cgi-bin", "f 0644 0:4242 cgi-bin/a ",
                              "d 0755 0:4242 conf", "f 0644 0:4242 conf/c "}},
                         {0,
                          -1,
                          {"d 0755 0:4242 conf", "f 0644 0:4242 conf/c ",
                           "d 0755 0:4242 error_docs", "f 0644 0:4242 error_docs/b "}},
                         {1, 1, {"d 0755 0:4242 conf", "f 0644 0:4242 conf/c "}}}) {
    SCOPED_TRACE(row.keep_cgi_bin);
    fs::remove_all(root("example.com"));
    options_.keepErrorDocs = row.keep_error_docs;
    options_.keepCgiBin = row.keep_cgi_bin;
    EXPECT_EQ(deploy(), done());
    EXPECT_EQ(deployed(), row.expected);
  }
}

TEST_F(SetupSkeleton, CreatesTheDirectoriesOfTheOptionsWithTheirParents) {
  write_file(skeleton("httpdocs/sub/index.html"), "@domain_name@");
  write_file(skeleton("cgi-bin/run"), "", 0750);
  make_directory(skeleton("httpdocs"), 0750);
  fs::create_directory(root("content"));
  options_.docrootDir = "/var/www/vhosts/content/a/b/docs";
  options_.cgiBinDir = "/var/www/vhosts/content/programs/";
  EXPECT_EQ(deploy(), done());
  EXPECT_EQ(
      tree_listing(root("content")),
      (Lines{"d 0755 0:0 a", "d 0755 0:0 a/b", "d 0750 0:4242 a/b/docs",
             "d 0755 0:4242 a/b/docs/sub", "f 0644 0:4242 a/b/docs/sub/index.html example.com",
             "d 0755 0:4242 programs", "f 0750 0:4242 programs/run "}));
  EXPECT_EQ(deployed(), Lines{});
}

TEST_F(SetupSkeleton, CopiesASectionThatIsAFile) {
  write_file(skeleton("httpdocs"), "@domain_name@", 0604);
  write_file(skeleton("conf"), "text", 0640);
  EXPECT_EQ(deploy(), done());
  EXPECT_EQ(deployed(), (Lines{"f 0640 0:4242 conf text", "f 0604 0:4242 httpdocs example.com"}));
}

TEST_F(SetupSkeleton, RestoresOnlyWhatIsMissingTheSecondTime) {
  for (const char* file : {"conf/a", "conf/sub/b", "httpdocs/c", "httpdocs/sub/d"})
    write_file(skeleton(file), "skeleton");
  ASSERT_EQ(deploy(), done());
  const Lines first = deployed();
  write_file(host("conf/a"), "edited", 0600);
  fs::remove_all(host("httpdocs/sub"));
  ASSERT_EQ(chmod(host("conf/sub").c_str(), 0700), 0);
  EXPECT_EQ(deploy(), done(existing(host("conf/a")) + existing(host("conf/sub/b")) +
                           existing(host("httpdocs/c"))));
  Lines expected = first;
  expected[1] = "f 0600 0:4242 conf/a edited";
  expected[2] = "d 0700 0:4242 conf/sub";
  EXPECT_EQ(deployed(), expected);
}

// "a b" would come before "a/x" if paths were compared as texts.
TEST_F(SetupSkeleton, GoesByTheOrderOfPaths) {
  const Lines names{"anon_ftp/z", "conf/B",   "conf/a",     "conf/a/x",
                    "conf/a b",   "conf/a.b", "conf/a.b/x", "webspace/\377"};
  for (const std::string& name : names)
    if (name != "conf/a" && name != "conf/a.b") write_file(skeleton(name), "");
  ASSERT_EQ(deploy(), done());
  std::string reports;
  for (const std::string& name : names)
    if (name != "conf/a" && name != "conf/a.b") reports += existing(host(name));
  EXPECT_EQ(deploy(), done(reports));
}

TEST_F(SetupSkeleton, DeploysFarMoreThanOneReadOfALargeFile) {
  constexpr size_t kRead = 262144;
  std::string text(5 * kRead + 100, '.');
  std::string expected = text;
  for (size_t at = 5 * kRead - 6; at > kRead; at -= kRead) {
    text.replace(at, 13, "@domain_name@");
    expected.replace(at, 13, "example.com");
  }
  text.replace(text.size() - 12, 12, "@domain_name");
  expected.replace(expected.size() - 12, 12, "@domain_name");
  write_file(skeleton("conf/large"), text);
  EXPECT_EQ(deploy(), done());
  EXPECT_TRUE(testsupport::read_file(host("conf/large")) == expected);
}

TEST_F(SetupSkeleton, ReplacesPlaceholdersWhereverAReadEnds) {
  constexpr size_t kReads = 1310720;  // five of them
  for (const size_t gap : {4, 6, 10}) {
    SCOPED_TRACE(gap);
    std::string text;
    std::string expected;
    while (text.size() < kReads) {
      text.append(gap, '.').append("@domain_name@");
      expected.append(gap, '.').append("example.com");
    }
    write_file(skeleton("conf/large"), text);
    fs::remove_all(root("example.com"));
    EXPECT_EQ(deploy(), done());
    EXPECT_TRUE(testsupport::read_file(host("conf/large")) == expected);
  }
}

long most_kilobytes_used() {
  rusage usage = {};
  EXPECT_EQ(getrusage(RUSAGE_SELF, &usage), 0);
  return usage.ru_maxrss;
}

TEST_F(SetupSkeleton, DeploysAFileOf256MiBInLittleMemory) {
  constexpr off_t kSize = 268435456;
  constexpr long kKilobytes = 16384;
  const std::string placeholder = "@domain_name@";
  write_file(skeleton("conf/large"), placeholder);
  const frask::UniqueFd large(open(skeleton("conf/large").c_str(), O_WRONLY | O_CLOEXEC));
  ASSERT_EQ(posix_fallocate(large.get(), 0, kSize), 0) << "with no hole";
  std::ofstream(skeleton("conf/large"), std::ios::app) << placeholder;
  const auto outcome = testsupport::in_child([&] {
    const long before = most_kilobytes_used();
    deployHere();
    std::cout << (most_kilobytes_used() - before < kKilobytes ? "little" : "much");
  });
  EXPECT_EQ(outcome.out, "0\nlittle");
  std::ifstream copy(host("conf/large"));
  std::string head(12, 'x');
  std::string tail(12, 'x');
  copy.read(head.data(), 12).seekg(-12, std::ios::end).read(tail.data(), 12);
  EXPECT_EQ(head, std::string("example.com\0", 12));
  EXPECT_EQ(tail, std::string("\0example.com", 12));
  EXPECT_EQ(fs::file_size(host("conf/large")), static_cast<size_t>(kSize) - 13 + 11 + 11);
}

TEST_F(SetupSkeleton, LeavesTheHolesOfAFileOfManyTerabytes) {
  const off_t size = off_t{1} << 42;
  write_file(skeleton("conf/large"), "@domain_name@");
  ASSERT_EQ(truncate(skeleton("conf/large").c_str(), size), 0);
  EXPECT_EQ(deploy(), done());
  struct stat st = {};
  ASSERT_EQ(stat(host("conf/large").c_str(), &st), 0);
  EXPECT_EQ(st.st_size, size - 2) << "the name is shorter than the placeholder";
  EXPECT_LE(st.st_blocks, 16);
  std::ifstream copy(host("conf/large"));
  std::string head(13, 'x');
  copy.read(head.data(), 13);
  EXPECT_EQ(head, std::string("example.com\0\0", 13));
}

TEST_F(SetupSkeleton, LeavesNoDescriptorOpen) {
  write_file(skeleton("conf/sub/file"), "");
  write_file(skeleton("httpdocs/file"), "");
  const auto before = testsupport::open_descriptors();
  testing::internal::CaptureStdout();
  deployHere();
  deployHere("none");
  options_.docrootDir = "/proc/nowhere/httpdocs";  // "conf" comes first, and is open by then
  deployHere();
  EXPECT_NE(testing::internal::GetCapturedStdout().find("cannot create directories"),
            std::string::npos);
  EXPECT_EQ(testsupport::open_descriptors(), before);
}

TEST_F(SetupSkeleton, TakesTheCompiledInRoot) {
  write_file("/etc/oxa/oxa.conf", "HTTPD_VHOSTS_D /mnt/elsewhere\n");
  write_file(skeleton("conf/file"), "");
  EXPECT_EQ(deploy(), done());
  EXPECT_EQ(deployed().size(), 2U);
}

TEST_F(SetupSkeleton, TakesEveryMemberOfTheHostFromItsCaller) {
  write_file("/mnt/hosts/.skel/5/conf/file", "@domain_name@");
  frask::VhostPath given;
  given.vhostsDir = "/mnt/hosts";
  given.fullPath = "/mnt/hosts/any";
  given.domainName = "given.test";
  frask::setup_skeleton(given, frask::SETUP_SKELETON_ALL, "5", {});
  EXPECT_EQ(tree_listing("/mnt/hosts/any"),
            (Lines{"d 0755 0:4242 conf", "f 0644 0:4242 conf/file given.test"}));
}

class SetupSkeletonOnSubdomain : public DeployTest {
 protected:
  testsupport::Outcome deployOn(const char* domain, const char* name, const char* id = "7") const {
    return testsupport::in_child(
        [&] { tell([&] { return setup_skeleton_on_subdomain(domain, name, id, &options_); }); });
  }
};

TEST_F(SetupSkeletonOnSubdomain, DeploysBelowTheSiteWithTheSitesName) {
  write_file(skeleton("conf/file"), "@domain_name@");
  write_file(skeleton("httpdocs/index.html"), "@domain_name@");
  fs::create_directories(host("subdomains"));
  options_.docrootDir = "/var/www/vhosts/example.com/subdomains/shop/httpdocs";
  EXPECT_EQ(deployOn("example.com", "shop"), done());
  EXPECT_EQ(tree_listing(host("subdomains")),
            (Lines{"d 0755 0:0 shop", "d 0755 0:4242 shop/conf",
                   "f 0644 0:4242 shop/conf/file example.com", "d 0755 0:4242 shop/httpdocs",
                   "f 0644 0:4242 shop/httpdocs/index.html example.com"}));
}

TEST_F(SetupSkeletonOnSubdomain, LeavesTheDocumentsOutWhenTold) {
  write_file(skeleton("conf/file"), "");
  write_file(skeleton("httpdocs/index.html"), "");
  fs::create_directories(host("subdomains"));
  options_.skipHttpdocs = 2;
  EXPECT_EQ(deployOn("example.com", "shop"), done());
  EXPECT_EQ(tree_listing(host("")), (Lines{"d 0755 0:0 subdomains", "d 0755 0:0 subdomains/shop",
                                           "d 0755 0:4242 subdomains/shop/conf",
                                           "f 0644 0:4242 subdomains/shop/conf/file "}));
}

TEST_F(SetupSkeletonOnSubdomain, TakesTheCompiledInRoot) {
  write_file("/etc/oxa/oxa.conf", "HTTPD_VHOSTS_D /mnt/elsewhere\n");
  fs::create_directories(skeleton(""));
  fs::create_directories(host("subdomains"));
  EXPECT_EQ(deployOn("example.com", "shop"), done());
  EXPECT_TRUE(fs::is_directory(host("subdomains/shop")));
}

TEST_F(SetupSkeletonOnSubdomain, TakesAnyNames) {
  write_file(skeleton("conf/file"), "@domain_name@");
  fs::create_directories(root("a/b/subdomains/c"));
  EXPECT_EQ(deployOn("a/b", "c/d"), done());
  EXPECT_EQ(testsupport::read_file(root("a/b/subdomains/c/d/conf/file")), "a/b");
}

TEST_F(SetupSkeletonOnSubdomain, NeedsTheSite) {
  fs::create_directories(skeleton(""));
  EXPECT_EQ(deployOn("example.com", "shop"),
            thrown("filesystem error: cannot create directory: No such file or directory [" +
                   host("subdomains/shop") + "]"));
}

TEST_F(SetupSkeletonOnSubdomain, DoesNothingWithoutASkeleton) {
  EXPECT_EQ(deployOn("example.com", "shop", nullptr), done());
  EXPECT_FALSE(fs::exists(root("example.com")));
}

}  // namespace
