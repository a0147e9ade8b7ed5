#include "tool/hostile_fixture.h"

#include <filesystem>

#include "support/scratch.h"

namespace fs = std::filesystem;
using testsupport::Outcome;
using testsupport::write_file;
using Lines = std::vector<std::string>;

namespace {

constexpr const char* kProgram = "/usr/local/sbin/tembrix";

/// A number on the last line, and as the status, or a report without one and status 1.
void expect_protocol(const Outcome& outcome) {
  const size_t line = outcome.out.rfind('\n', outcome.out.size() - 2) + 1;
  const std::string last = outcome.out.substr(line);
  if (outcome.exit_code() == 0) {
    EXPECT_EQ(last, "0\n") << outcome;
    return;
  }
  EXPECT_EQ(outcome.exit_code(), 1) << outcome;
  EXPECT_TRUE(last.rfind("tembrix: ", 0) == 0 || last.rfind("System error ", 0) == 0) << outcome;
}

/// What find(1) lists is harm: it goes to any depth, and through any number of entries.
void expect_harmless_entries(const std::string& store) {
  EXPECT_EQ(LayeredRoot::run({"/usr/bin/find",
                              store,
                              "(",
                              "!",
                              "-uid",
                              "0",
                              "-o",
                              "!",
                              "-gid",
                              "0",
                              "-o",
                              "-type",
                              "b",
                              "-o",
                              "-type",
                              "c",
                              "-o",
                              "!",
                              "-type",
                              "l",
                              "-perm",
                              "/7022",
                              "-o",
                              "-type",
                              "f",
                              "!",
                              "-perm",
                              "0644",
                              "-o",
                              "-type",
                              "d",
                              "!",
                              "-perm",
                              "0755",
                              ")",
                              "-ls"}),
            (Outcome{"", "", 0}));
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

Outcome HostileArchives::install(const std::string& archive, const Lines& more) {
  const Lines before = LayeredRoot::changes(kStore);
  Lines words{kProgram, "--install-skel", "--id", "7", "--filename", "/srv/archives/" + archive};
  words.insert(words.end(), more.begin(), more.end());
  Outcome outcome = LayeredRoot::run(words);
  expect_protocol(outcome);
  EXPECT_EQ(LayeredRoot::changes(kStore), before);
  expect_harmless_entries(kStore);
  return outcome;
}

void HostileArchives::remove() {
  EXPECT_EQ(LayeredRoot::run({kProgram, "--remove-skel", "--id", "7"}), (Outcome{"0\n", "", 0}));
  EXPECT_FALSE(fs::exists(LayeredRoot::at(kStore)));
}

void HostileArchives::expect_harmless(const HostileRow& row) {
  SCOPED_TRACE(row.what);
  Members members{directory("httpdocs"), file("httpdocs/first.html", "first")};
  members.insert(members.end(), row.members.begin(), row.members.end());
  members.push_back(file("cgi-bin/last.cgi", "last"));
  if (row.tar_says != "-") {
    write_inside("/srv/archives/a.tar", tar_archive(members));
    shell("gzip -1 -k -f a.tar; mv a.tar.gz a.tgz");
    for (const char* archive : {"a.tar", "a.tgz"}) expect_harmless(archive, row.tar_says);
  }
  if (row.zip_says != "-") {
    write_inside("/srv/archives/a.zip", zip_archive(members));
    expect_harmless("a.zip", row.zip_says);
  }
}

void HostileArchives::expect_harmless(const std::string& archive, const std::string& says) {
  SCOPED_TRACE(archive);
  const Outcome outcome = install(archive);
  EXPECT_NE(outcome.err.find(says), std::string::npos) << outcome;
  // What stands around the attack has arrived: the tools go on behind what they refuse. A link or a
  // file may have come into the place of "httpdocs".
  if (fs::is_directory(fs::symlink_status(in_store("httpdocs")))) {
    EXPECT_EQ(testsupport::read_file(in_store("httpdocs/first.html")), "first") << outcome;
  }
  EXPECT_EQ(testsupport::read_file(in_store("cgi-bin/last.cgi")), "last") << outcome;
  remove();
}
