#include "vhost/layout.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "conf/oxaconf.h"
#include "support/child.h"
#include "support/private_mounts.h"
#include "support/scratch.h"
#include "vhost/skeldir.h"

namespace {

namespace fs = std::filesystem;
using frask::pathLength;
using frask::SetupSkeletonMode;
using frask::vhostAllDirs;
using frask::VhostPath;
using frask::vhostPathFromDir;
using frask::vhostUsedDirs;
using Paths = std::vector<fs::path>;

TEST(VhostAllDirs, NamesFourDirectoriesInOrder) {
  EXPECT_EQ(vhostAllDirs(), (Paths{"cgi-bin", "private", "httpsdocs", "httpdocs"}));
}

TEST(VhostAllDirs, GivesTheSameObjectEveryTime) {
  const auto* first = &vhostAllDirs();
  EXPECT_EQ(&vhostAllDirs(), first);
  EXPECT_EQ(vhostAllDirs().size(), 4U) << "the second call adds nothing";
}

bool is_section(const fs::path& name) {
  for (const char* const* section = skeldir; *section != nullptr; ++section)
    if (name == *section) return true;
  return false;
}

TEST(VhostAllDirs, DiffersFromTheSections) {
  EXPECT_TRUE(is_section("cgi-bin"));
  EXPECT_TRUE(is_section("httpdocs"));
  EXPECT_FALSE(is_section("private"));
  EXPECT_FALSE(is_section("httpsdocs"));
  for (const char* other : {"conf", "anon_ftp", "error_docs", "statistics", "webspace"}) {
    SCOPED_TRACE(other);
    EXPECT_TRUE(is_section(other));
    for (const fs::path& dir : vhostAllDirs()) EXPECT_NE(dir, other);
  }
}

TEST(VhostUsedDirs, SelectsByTheMode) {
  const Paths none;
  const struct {
    int mode;
    Paths expected;
  } rows[] = {
      {0, {"httpdocs", "conf", "cgi-bin", "anon_ftp", "error_docs", "statistics", "webspace"}},
      {1, {"httpdocs", "cgi-bin", "private"}},
      {2, {"conf", "cgi-bin", "anon_ftp", "error_docs", "statistics", "webspace"}},
      {3, none},
      {-1, none},
      {256, none},
      {INT32_MAX, none},
      {INT32_MIN, none},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.mode);
    EXPECT_EQ(vhostUsedDirs(static_cast<SetupSkeletonMode>(row.mode)), row.expected);
  }
}

TEST(VhostUsedDirs, HasTheModesByName) {
  EXPECT_EQ(frask::SETUP_SKELETON_ALL, 0);
  EXPECT_EQ(frask::SETUP_SKELETON_CONTENT, 1);
  EXPECT_EQ(frask::SETUP_SKELETON_NO_DOCROOT, 2);
}

TEST(PathLength, CountsTheElementsWithoutALastDot) {
  const struct {
    const char* path;
    int expected;
  } rows[] = {
      {"", 0},
      {".", 0},
      {"..", 1},
      {"...", 1},
      {"/", 1},
      {"//", 1},
      {"/.", 1},
      {"/..", 2},
      {"a", 1},
      {"a/.", 1},
      {"a/..", 2},
      {"a/", 2},
      {"./a", 2},
      {"./.", 1},
      {"a/./.", 2},
      {"a/./", 3},
      {"a/b/", 3},
      {"a//b", 2},
      {"a//", 2},
      {"a/.b", 2},
      {"a/b.", 2},
      {"/var/www/vhosts", 4},
      {"/var/www/vhosts/.", 4},
      {"/var/www/vhosts/", 5},
      {"//var///www//vhosts", 4},
      {"///var/www", 3},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.path);
    EXPECT_EQ(pathLength(row.path), row.expected);
  }
}

std::string message_for(const fs::path& dir) {
  try {
    vhostPathFromDir(dir);
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "no exception";
}

TEST(VhostPathFromDir, TakesOneElementForASite) {
  const struct {
    std::string dir;
    std::string name;
  } rows[] = {
      {"/var/www/vhosts/example.com", "example.com"},
      {"/var/www/vhosts/subdomains", "subdomains"},
      {"/var/www/vhosts/.skel", ".skel"},
      {"/var/www/vhosts/...", "..."},
      {"/var/www/vhosts/ a b\n", " a b\n"},
      {"/var/www/vhosts//example.com", "example.com"},
      {"//var///www/vhosts//example.com", "example.com"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.dir);
    const VhostPath host = vhostPathFromDir(row.dir);
    EXPECT_EQ(host.vhostsDir.string(), "/var/www/vhosts");
    EXPECT_EQ(host.relativePath.string(), row.name);
    EXPECT_EQ(host.fullPath.string(), row.dir) << "as it was given";
    EXPECT_EQ(host.domainName, row.name);
    EXPECT_FALSE(host.isSubdomain);
  }
}

TEST(VhostPathFromDir, TakesThreeElementsForASubdomain) {
  const struct {
    std::string dir;
    std::string relative;
    std::string domain;
  } rows[] = {
      {"/var/www/vhosts/example.com/subdomains/shop", "example.com/subdomains/shop", "example.com"},
      {"/var/www/vhosts//example.com//subdomains///shop", "example.com/subdomains/shop",
       "example.com"},
      {"/var/www/vhosts/subdomains/subdomains/subdomains", "subdomains/subdomains/subdomains",
       "subdomains"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.dir);
    const VhostPath host = vhostPathFromDir(row.dir);
    EXPECT_EQ(host.vhostsDir.string(), "/var/www/vhosts");
    EXPECT_EQ(host.relativePath.string(), row.relative);
    EXPECT_EQ(host.fullPath.string(), row.dir);
    EXPECT_EQ(host.domainName, row.domain);
    EXPECT_TRUE(host.isSubdomain);
  }
}

TEST(VhostPathFromDir, RefusesWhatDoesNotBeginWithTheRoot) {
  for (const std::string dir : {
           "",
           "/",
           ".",
           "example.com",
           "var/www/vhosts/example.com",
           "./var/www/vhosts/example.com",
           "/var/www",
           "/var/www/",
           "/var/www/vhost",
           "/var/www/vhosts2/example.com",
           "/var/www/Vhosts/example.com",
           "/srv/www/example.com",
           "/var/./www/vhosts/example.com",
           "/var/www/../www/vhosts/example.com",
           "//",
       }) {
    SCOPED_TRACE(dir);
    EXPECT_EQ(message_for(dir),
              "Virtual host " + dir + " is not a subdirectory of /var/www/vhosts");
  }
}

TEST(VhostPathFromDir, RefusesEveryOtherRemainder) {
  for (const std::string dir : {
           "/var/www/vhosts",
           "/var/www/vhosts/",
           "/var/www/vhosts//",
           "/var/www/vhosts/.",
           "/var/www/vhosts/..",
           "/var/www/vhosts/./",
           "/var/www/vhosts/./example.com",
           "/var/www/vhosts/example.com/",
           "/var/www/vhosts/example.com/.",
           "/var/www/vhosts/example.com/httpdocs",
           "/var/www/vhosts/example.com/subdomains",
           "/var/www/vhosts/example.com/subdomains/",
           "/var/www/vhosts/example.com/subdomains/.",
           "/var/www/vhosts/example.com/subdomains/..",
           "/var/www/vhosts/./subdomains/shop",
           "/var/www/vhosts/../subdomains/shop",
           "/var/www/vhosts/example.com/Subdomains/shop",
           "/var/www/vhosts/example.com/httpdocs/shop",
           "/var/www/vhosts/example.com/subdomains/shop/",
           "/var/www/vhosts/example.com/subdomains/shop/.",
           "/var/www/vhosts/example.com/subdomains/shop/httpdocs",
           "/var/www/vhosts/a/b/c/d/e",
       }) {
    SCOPED_TRACE(dir);
    EXPECT_EQ(message_for(dir), "Directory " + dir + " does not represent a virtual host");
  }
}

TEST(VhostPathFromDir, PutsAnyPathIntoItsMessageAsItIs) {
  EXPECT_EQ(message_for("/srv/%1% \"x\" %s"),
            "Virtual host /srv/%1% \"x\" %s is not a subdirectory of /var/www/vhosts");
  EXPECT_EQ(message_for("/var/www/vhosts/%2%/&"),
            "Directory /var/www/vhosts/%2%/& does not represent a virtual host");
}

TEST(VhostPathFromDir, LooksAtNothingInTheFileSystem) {
  const testsupport::Outcome outcome = testsupport::in_child([] {
    testsupport::enter_private_mounts();
    fs::create_directories("/var/www/elsewhere");
    fs::create_directory_symlink("/var/www/elsewhere", "/var/www/vhosts");
    testsupport::write_file("/var/www/elsewhere/example.com", "a file");
    if (vhostPathFromDir("/var/www/vhosts/example.com").vhostsDir != "/var/www/vhosts") _exit(1);
    if (message_for("/var/www/elsewhere/example.com").find("not a subdirectory") ==
        std::string::npos)
      _exit(2);
  });
  EXPECT_EQ(outcome.exit_code(), 0) << outcome;
}

TEST(VhostPathFromDir, IgnoresTheConfigurationFile) {
  const testsupport::Outcome outcome = testsupport::in_child([] {
    testsupport::enter_private_mounts();
    testsupport::write_file("/etc/oxa/oxa.conf", "HTTPD_VHOSTS_D /srv/moved\n");
    if (autoprepend() != 0) _exit(1);
    if (std::string(oxaConfGetDefaultByIndex(OXA_CONF_HTTPD_VHOSTS_D)) != "/srv/moved") _exit(2);
    if (vhostPathFromDir("/var/www/vhosts/example.com").domainName != "example.com") _exit(3);
    if (message_for("/srv/moved/example.com") !=
        "Virtual host /srv/moved/example.com is not a subdirectory of /var/www/vhosts")
      _exit(4);
  });
  EXPECT_EQ(outcome.exit_code(), 0) << outcome;
}

}  // namespace
