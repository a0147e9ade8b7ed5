#include "tool/hostile_fixture.h"

#include <sys/xattr.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <iterator>
#include <sstream>

#include "support/scratch.h"
#include "support/tree_listing.h"

namespace fs = std::filesystem;
using testsupport::Outcome;
using testsupport::write_file;
using Lines = std::vector<std::string>;

namespace {

constexpr const char* kProgram = "/usr/local/sbin/tembrix";

/// A number on the last line, and as the status, or a report without one and status 1.
void expect_protocol(const Outcome& outcome, bool fatal) {
  const size_t line = outcome.out.rfind('\n', outcome.out.size() - 2) + 1;
  const std::string last = outcome.out.substr(line);
  if (!fatal) {
    EXPECT_EQ(outcome.exit_code(), 0) << outcome;
    EXPECT_EQ(last, "0\n") << outcome;
    return;
  }
  EXPECT_EQ(outcome.exit_code(), 1) << outcome;
  EXPECT_TRUE(last.rfind("tembrix: ", 0) == 0 || last.rfind("System error ", 0) == 0) << outcome;
}

constexpr const char* kForeignOrOpen =
    "( ! -uid 0 -o ! -gid 0 -o -type b -o -type c -o ! -type l -perm /7022 "
    "-o -type f ! -perm 0644 -o -type d ! -perm 0755 ";

/// What find(1) lists is harm: it goes to any depth, and through any number of entries. Hidden
/// directories are not looked through for forbidden names.
void expect_harmless_entries(const std::string& store, bool answered) {
  const std::string forbidden = "-o -name .quota ! -path " + store + "*/.*/* ";
  Lines words{"/usr/bin/find", store};
  std::istringstream rest(kForeignOrOpen + (answered ? forbidden : "") + ") -ls");
  words.insert(words.end(), std::istream_iterator<std::string>(rest), {});
  EXPECT_EQ(LayeredRoot::run(words), (Outcome{"", "", 0}));
}

/// A pipe that goes by the name "conf" can only end the installation.
void expect_permitted_names(const std::string& store, bool answered) {
  const Lines kept{"httpdocs", "cgi-bin", "anon_ftp", "error_docs", "statistics", "webspace"};
  for (const fs::directory_entry& entry : fs::directory_iterator(store)) {
    const std::string name = entry.path().filename();
    EXPECT_FALSE(name == "conf" && !fs::is_fifo(entry.symlink_status()));
    EXPECT_TRUE(!answered || std::find(kept.begin(), kept.end(), name) != kept.end()) << name;
  }
}

/// Capabilities and access lists among them.
void expect_no_attributes(const std::string& store) {
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(store)) {
    std::array<char, 4096> names{};
    const ssize_t size = llistxattr(entry.path().c_str(), names.data(), names.size());
    EXPECT_EQ(size, 0) << entry.path() << " has " << names.data();
  }
}

/// What stands in a store beside the innocent entries, without owners and modes.
Lines entries_of(const std::string& store) {
  const Lines innocent{"d httpdocs", "f httpdocs/first.html first", "d cgi-bin",
                       "f cgi-bin/last.cgi last"};
  Lines entries;
  for (std::string line : testsupport::tree_listing(store)) {
    // "f 0644 0:0 path content"
    line.erase(1, line.find(' ', line.find(' ', 2) + 1) - 1);
    if (std::find(innocent.begin(), innocent.end(), line) == innocent.end())
      entries.push_back(line);
  }
  return entries;
}

}  // namespace

const std::string climb = "../../../../../../../../../..";

void HostileArchives::SetUp() {
  write_inside("/etc/oxa/oxa.conf", "HTTPD_VHOSTS_D /var/www/vhosts\n");
  for (const char* place :
       {"/var/www/vhosts/.skel/8/httpdocs/file", "/var/www/vhosts/example.com/httpdocs/file",
        "/srv/victim/file", "/srv/victim/dir/file", "/usr/local/oxa/var/file", "/tmp/file"})
    write_inside(place, "kept");
  fs::create_directories(LayeredRoot::at("/usr/local/sbin"));
  fs::create_directories(LayeredRoot::at("/srv/archives"));
  fs::copy_file(TEMBRIX_PROGRAM, LayeredRoot::at(kProgram), fs::copy_options::overwrite_existing);
}

void HostileArchives::write_inside(const std::string& path, const std::string& content) {
  write_file(LayeredRoot::at(path), content);
}

std::string HostileArchives::read_inside(const std::string& path) {
  return testsupport::read_file(LayeredRoot::at(path));
}

std::string HostileArchives::in_store(const std::string& name) {
  return LayeredRoot::at(kStore) + "/" + name;
}

void HostileArchives::shell(const std::string& script) {
  const Outcome outcome = LayeredRoot::run({"/bin/sh", "-ec", "cd /srv/archives\n" + script});
  ASSERT_EQ(outcome.exit_code(), 0) << script << "\n" << outcome;
}

Outcome HostileArchives::install(const std::string& archive, const Lines& more, bool fatal) {
  const Lines before = LayeredRoot::changes(kStore);
  Lines words{kProgram, "--install-skel", "--id", "7", "--filename", "/srv/archives/" + archive};
  words.insert(words.end(), more.begin(), more.end());
  Outcome outcome = LayeredRoot::run(words);
  expect_protocol(outcome, fatal);
  EXPECT_EQ(LayeredRoot::changes(kStore), before);
  const bool answered = outcome.exit_code() == 0;
  expect_harmless_entries(kStore, answered);
  expect_permitted_names(in_store(""), answered);
  return outcome;
}

void HostileArchives::remove() {
  const Lines before = LayeredRoot::changes(kStore);
  EXPECT_EQ(LayeredRoot::run({kProgram, "--remove-skel", "--id", "7"}), (Outcome{"0\n", "", 0}));
  EXPECT_EQ(LayeredRoot::changes(kStore), before);
  EXPECT_FALSE(fs::exists(fs::symlink_status(LayeredRoot::at(kStore))));
}

void HostileArchives::expect_harmless(const HostileRow& row) {
  SCOPED_TRACE(row.what);
  Members members{directory("httpdocs"), file("httpdocs/first.html", "first")};
  members.insert(members.end(), row.members.begin(), row.members.end());
  members.push_back(file("cgi-bin/last.cgi", "last"));
  if (row.tar.says != "-") {
    write_inside("/srv/archives/a.tar", tar_archive(members));
    shell("gzip -1 -k -f a.tar; mv a.tar.gz a.tgz");
    for (const char* archive : {"a.tar", "a.tgz"}) expect_harmless(archive, row.tar);
  }
  if (row.zip.says != "-") {
    write_inside("/srv/archives/a.zip", zip_archive(members));
    expect_harmless("a.zip", row.zip);
  }
}

void HostileArchives::expect_harmless(const std::string& archive, const Effect& effect) {
  SCOPED_TRACE(archive);
  const Outcome outcome = install(archive, {}, effect.fatal);
  EXPECT_NE(outcome.err.find(effect.says), std::string::npos) << outcome;
  // What stands around the attack has arrived: the tools go on behind what they refuse. A link or a
  // file may have come into the place of "httpdocs".
  if (fs::is_directory(fs::symlink_status(in_store("httpdocs")))) {
    EXPECT_EQ(testsupport::read_file(in_store("httpdocs/first.html")), "first") << outcome;
  }
  EXPECT_EQ(testsupport::read_file(in_store("cgi-bin/last.cgi")), "last") << outcome;
  expect_no_attributes(in_store(""));
  if (effect.leaves) {
    EXPECT_EQ(entries_of(in_store("")), *effect.leaves);
  }
  remove();
  install(archive, {}, effect.fatal);
  expect_good_archive_in_its_place();
}

void HostileArchives::expect_good_archive_in_its_place() {
  SCOPED_TRACE("with a good archive installed over it");
  write_inside("/srv/archives/good.tar", tar_archive({file("httpdocs/good.html", "good")}));
  EXPECT_EQ(install("good.tar"), (Outcome{"0\n", "", 0}));
  EXPECT_EQ(testsupport::tree_listing(in_store("")),
            (Lines{"d 0755 0:0 httpdocs", "f 0644 0:0 httpdocs/good.html good"}));
}
