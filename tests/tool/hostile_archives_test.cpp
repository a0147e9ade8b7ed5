// What the members of an enemy's archive may be.
#include <stdlib.h>
#include <sys/xattr.h>

#include <array>
#include <utility>

#include "tool/hostile_fixture.h"

using Lines = std::vector<std::string>;

TEST_F(HostileArchives, AreComparedByALookThatSeesEachKindOfChange) {
  for (const char* change :
       {"echo more >> /srv/victim/file", "chmod 0600 /srv/victim/file", "chown 1 /srv/victim/dir",
        "ln /srv/victim/file /srv/victim/dir/other", "rm /srv/victim/dir/file",
        "touch -d @1 /srv/victim/dir", "touch /etc/new", "rm /etc/passwd", "chmod 0700 /root",
        "touch /new", "echo > /tmp/file", "touch /var/lib/new", "touch /usr/bin/new",
        "touch /var/www/vhosts/.skel/8/httpdocs/new", "touch /var/www/vhosts/.skel/9",
        "rm /var/www/vhosts/.skel/8/httpdocs/file", "chmod 0700 /var/www/vhosts/.skel",
        "touch /dev/new"}) {
    SCOPED_TRACE(change);
    const Lines before = LayeredRoot::changes(kStore);
    ASSERT_EQ(LayeredRoot::run({"/bin/true"}).exit_code(), 0);
    ASSERT_EQ(LayeredRoot::changes(kStore), before);
    shell(change);
    EXPECT_NE(LayeredRoot::changes(kStore), before);
  }
}

TEST_F(HostileArchives, DoNotClimbOut) {
  const std::string dots = "Member name contains '..'";
  const HostileRow rows[] = {
      {"to the file system", {file(climb + "/etc/evil")}, dots, ""},
      {"from within a section", {file("httpdocs/" + climb + "/etc/evil")}, dots, ""},
      {"over an existing file", {file(climb + "/srv/victim/file")}, dots, ""},
      {"to another client", {file("../8/httpdocs/evil"), file("../9/evil")}, dots, ""},
      {"to a site", {file("httpdocs/../../../example.com/evil")}, dots, ""},
      {"as a directory", {directory("../../evil", 0777)}, dots, ""},
      {"as the directory above", {directory("..", 0777)}, dots, ""},
      {"as a link", {link_to("/etc", "../evil")}, dots, ""},
      {"absolutely",
       {file("/etc/evil"), file("/srv/victim/file"), file("//tmp/evil")},
       "Removing leading `/' from member names",
       "stripped absolute path"},
      {"by an extended header",
       {extended({"path=" + climb + "/etc/evil"}), file("httpdocs/x")},
       dots,
       "-"},
      {"by a header for all members",
       {extended({"comment=" + climb, "linkpath=/srv/victim/file"}, 'g'), file("httpdocs/x")},
       "",
       "-"},
      {"by the name of a sparse member",
       {extended({"GNU.sparse.major=1", "GNU.sparse.minor=0",
                  "GNU.sparse.name=" + climb + "/etc/evil", "GNU.sparse.realsize=4"}),
        file("httpdocs/x", "0\n" + std::string(510, '\0'))},
       dots,
       "-"},
      {"with backslashes", {file("..\\..\\..\\etc\\evil")}, "", ""},
  };
  for (const HostileRow& row : rows) expect_harmless(row);
}

TEST_F(HostileArchives, DoNotWriteThroughLinks) {
  const HostileRow rows[] = {
      {"to a directory",
       {link_to("/srv/victim", "httpdocs/l"), file("httpdocs/l/evil"), file("httpdocs/l/file")},
       "Cannot open: Not a directory",
       ""},
      {"to a directory above",
       {link_to(climb + "/srv/victim", "httpdocs/l"), file("httpdocs/l/file"),
        directory("httpdocs/l/dir", 0777)},
       "Cannot open: Not a directory",
       ""},
      {"to a file that is then unpacked",
       {link_to("/srv/victim/file", "httpdocs/l"), file("httpdocs/l")},
       "",
       ""},
      {"in place of a section",
       {link_to("/srv/victim", "webspace"), file("webspace/file"), directory("webspace", 0777)},
       "",
       ""},
      {"in place of a section that is then a directory",
       {link_to("/srv/victim", "webspace"), directory("webspace", 0777), file("webspace/file")},
       "",
       ""},
      {"in place of the store",
       {link_to("/srv/victim", "."), file("file"), directory(".", 0777)},
       "",
       ""},
      {"by a chain of links",
       {link_to("b", "httpdocs/a"), link_to("/srv/victim", "httpdocs/b"),
        link_to("a/dir", "httpdocs/c"), file("httpdocs/a/file"), file("httpdocs/c/file")},
       "",
       ""},
      {"in circles",
       {link_to("b", "httpdocs/a"), link_to("a", "httpdocs/b"), file("httpdocs/a/file")},
       "",
       ""},
      {"one step up and on",
       {link_to("..", "httpdocs/up"), link_to("up/..", "httpdocs/up2"),
        file("httpdocs/up2/../8/httpdocs/file"), file("httpdocs/up2/8/httpdocs/file")},
       "Member name contains '..'",
       ""},
      {"to a forbidden name",
       {link_to("/srv/victim", "httpdocs/.quota"), file("httpdocs/.quota/file")},
       "",
       ""},
      {"to itself", {link_to("self", "httpdocs/self")}, "", ""},
      {"to nothing", {link_to("", "httpdocs/empty")}, "", ""},
      {"to a name of 4000 bytes", {link_to(std::string(4000, 'a'), "httpdocs/long")}, "", ""},
  };
  for (const HostileRow& row : rows) expect_harmless(row);
}

TEST_F(HostileArchives, DoNotReachOutByHardLinks) {
  const HostileRow rows[] = {
      {"absolutely",
       {hard_link_to("/srv/victim/file", "httpdocs/h")},
       "Removing leading `/' from hard link targets",
       "-"},
      {"by climbing", {hard_link_to(climb + "/srv/victim/file", "httpdocs/h")}, "hard link", "-"},
      {"and write there",
       {hard_link_to("/srv/victim/file", "httpdocs/h"), file("httpdocs/h")},
       "Cannot hard link",
       "-"},
      {"through a link",
       {link_to("/srv/victim", "httpdocs/l"), hard_link_to("httpdocs/l/file", "httpdocs/h"),
        file("httpdocs/h")},
       "Cannot hard link",
       "-"},
      {"to a link",
       {link_to("/srv/victim/file", "httpdocs/l"), hard_link_to("httpdocs/l", "httpdocs/h"),
        file("httpdocs/h")},
       "",
       "-"},
      {"by an extended header",
       {extended({"linkpath=/srv/victim/file"}), hard_link_to("x", "httpdocs/h")},
       "Removing leading `/' from hard link targets",
       "-"},
      {"to another section", {hard_link_to("httpdocs/first.html", "webspace/h")}, "", "-"},
      {"to a section that is thrown away",
       {file("conf/x", "x"), hard_link_to("conf/x", "httpdocs/h")},
       "",
       "-"},
  };
  for (const HostileRow& row : rows) expect_harmless(row);
}

TEST_F(HostileArchives, LeaveNoDeviceAndNoRightsBehind) {
  const std::string refused = "Cannot mknod: Operation not permitted";
  Member foreign = file("httpdocs/foreign");
  foreign.owner = 1234;
  Member foreign_link = link_to("/srv/victim/file", "httpdocs/link");
  foreign_link.owner = 1234;
  Member foreign_root = directory("./", 07777);
  foreign_root.owner = 1234;
  const HostileRow rows[] = {
      {"a character device", {special('3', "httpdocs/null", 1, 3)}, refused, ""},
      {"a disk", {special('4', "httpdocs/disk", 8, 0)}, refused, ""},
      {"a device without a number", {special('3', "httpdocs/nothing")}, refused, ""},
      {"a device in a hidden directory", {special('3', "httpdocs/.h/n")}, refused, ""},
      {"a pipe", {special('6', "httpdocs/pipe")}, "", ""},
      {"a pipe at the top", {special('6', "pipe")}, fatal_with("Unable to open dir pipe"), ""},
      {"set-id and sticky bits",
       {file("httpdocs/run", "x", 07777), directory("httpdocs/d", 07777), file("httpdocs/d/x"),
        directory("httpdocs", 07777)},
       "",
       ""},
      {"a directory that nobody may enter",
       {directory("httpdocs/shut", 0), file("httpdocs/shut/x", "x", 0), directory("httpdocs", 0)},
       "",
       ""},
      {"foreign owners", {foreign, foreign_link}, "", ""},
      {"owners by an extended header",
       {extended({"uid=1234", "gid=2345"}), file("httpdocs/x")},
       "",
       "-"},
      {"the store itself open to all", {foreign_root}, "", ""},
      {"a label, a volume and a dump of a directory",
       {special('V', "label"), special('D', "httpdocs/dump"), special('M', "httpdocs/volume")},
       "",
       "-"},
  };
  for (const HostileRow& row : rows) expect_harmless(row);
}

TEST_F(HostileArchives, BringNothingThatAStoreMayNotHold) {
  const Member pipe = special('6', "p0");
  const Members conf = {directory("conf"), file("conf/httpd.conf")};
  const Effect ended = fatal_with("Unable to open dir p0: Not a directory");
  const Lines nothing;
  const HostileRow rows[] = {
      {"the section of the panel", conf, {"", nothing}, {"", nothing}},
      {"a file of its name", {file("conf")}, {"", nothing}, {"", nothing}},
      {"a link of its name", {link_to("/etc", "conf")}, {"", nothing}, {"", nothing}},
      {"a pipe in it", {special('6', "conf/p0")}, {"", nothing}, ""},
      {"it before a pipe", {conf[0], conf[1], pipe}, ended, ""},
      {"it behind a pipe", {pipe, conf[0], conf[1]}, ended, ""},
      {"it among pipes",
       {special('6', "a"), special('6', "z"), conf[1], special('6', "b")},
       fatal_with("Not a directory"),
       ""},
      {"it beside a pipe of a forbidden name",
       {conf[1], special('6', "httpdocs/.quota")},
       fatal_with("Unable to open dir .quota: Not a directory"),
       ""},
      {"a pipe of its name", {special('6', "conf")}, fatal_with("Unable to open dir conf"), ""},
      {"unknown names",
       {file("index.html"), directory("HTTPDOCS"), file(".htaccess"), file("httpdocs.x/y"),
        link_to("httpdocs", "public_html"), directory(".quota")},
       {"", nothing},
       {"", nothing}},
      {"names that unzip, which leaves control characters out, makes known ones of",
       {file("web\nspace/x"), file("co\nnf/httpd.conf"), file("httpdocs/.quo\x1bta")},
       {"", {"f httpdocs/.quo\x1bta evil"}},
       {"", {"d webspace", "f webspace/x evil"}}},
      {"forbidden names",
       {file("httpdocs/.quota"), file("httpdocs/a/b/.quota/c/.quota"), file("webspace/.quota"),
        link_to("/srv/victim", "httpdocs/a/.quota")},
       {"", {"d httpdocs/a", "d httpdocs/a/b", "d webspace"}},
       {"", {"d httpdocs/a", "d httpdocs/a/b", "d webspace"}}},
      {"forbidden names in hidden directories, which are not looked through",
       {file("httpdocs/.h/.quota", "x"), file("httpdocs/.quota2", "x")},
       {"", {"d httpdocs/.h", "f httpdocs/.h/.quota x", "f httpdocs/.quota2 x"}},
       {"", {"d httpdocs/.h", "f httpdocs/.h/.quota x", "f httpdocs/.quota2 x"}}},
  };
  for (const HostileRow& row : rows) expect_harmless(row);
}

namespace {

/// Capabilities and access lists as "tar --xattrs --acls" packs them.
Members with_rights_beside_the_mode() {
  // CAP_SETUID, permitted and effective: version and flag, permitted, inheritable, low byte first.
  const std::string capability("\1\0\0\2\x80\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 20);
  const std::string everybody = "user::rwx,user:1234:rwx,group::r-x,mask::rwx,other::r-x";
  return {extended({"SCHILY.xattr.security.capability=" + capability}),
          file("httpdocs/run", "x", 0755),
          extended({"SCHILY.acl.access=" + everybody}),
          file("httpdocs/open", "x"),
          extended({"SCHILY.acl.access=" + everybody, "SCHILY.acl.default=" + everybody}),
          directory("httpdocs/d"),
          file("httpdocs/d/x", "x")};
}

std::string attributes_of(const std::string& path) {
  std::array<char, 4096> names{};
  const ssize_t size = llistxattr(path.c_str(), names.data(), names.size());
  return size < 0 ? "none to be had" : std::string(names.data(), static_cast<size_t>(size));
}

}  // namespace

TEST_F(HostileArchives, BringNoCapabilitiesAndNoAccessLists) {
  const Lines arrived{"d httpdocs/d", "f httpdocs/d/x x", "f httpdocs/open x", "f httpdocs/run x"};
  const HostileRow row = {
      "rights beside the mode", with_rights_beside_the_mode(), {"", arrived}, {"", arrived}};
  expect_harmless(row);
  const std::string wanted = "--xattrs --xattrs-include=* --acls";
  ASSERT_EQ(setenv("TAR_OPTIONS", wanted.c_str(), 1), 0);
  expect_harmless(row);
  // Without the program around it tar does what its caller wants of it.
  shell("mkdir /var/www/plain; tar -xf a.tar -C /var/www/plain");
  ASSERT_EQ(unsetenv("TAR_OPTIONS"), 0);
  const std::string plain = LayeredRoot::at("/var/www/plain/httpdocs/");
  for (const auto& [entry, attribute] :
       {std::pair("run", "security.capability"), std::pair("open", "system.posix_acl_access"),
        std::pair("d", "system.posix_acl_default")})
    EXPECT_NE(attributes_of(plain + entry).find(attribute), std::string::npos) << entry;
}

TEST_F(HostileArchives, MayHaveAnyNames) {
  const HostileRow rows[] = {
      {"with newlines", {file("httpdocs/a\n0\n"), directory("httpdocs/\n"), file("\n0")}, "", ""},
      {"with control characters", {file("httpdocs/\x1b[2J\a\r\b"), file("httpdocs/\x7f")}, "", ""},
      {"no UTF-8", {file("httpdocs/\xff\xfe\xc3"), directory("httpdocs/\xc0\xae\xc0\xae")}, "", ""},
      {"of the shell", {file("httpdocs/$(touch evil);`id`|&*"), file("httpdocs/-rf")}, "", ""},
      {"of options",
       {file("--help"), file("-rf"), directory("--checkpoint-action=exec=sh")},
       "",
       ""},
      {"of 255 bytes",
       {file("httpdocs/" + std::string(255, 'n')), directory("httpdocs/" + std::string(255, 'd')),
        file(std::string(255, 't'))},
       "",
       ""},
      {"of 256 bytes",
       {file("httpdocs/" + std::string(256, 'n'))},
       "File name too long",
       "too long"},
      {"that are empty", {file("")}, "", "-"},
      {"that lead to the same place",
       {file("httpdocs//x"), file("./httpdocs/./x"), file("httpdocs/./y/.//z")},
       "",
       ""},
  };
  for (const HostileRow& row : rows) expect_harmless(row);
}

TEST_F(HostileArchives, MayHoldMembersThatCollide) {
  const HostileRow rows[] = {
      {"a directory in place of a file",
       {file("httpdocs/x"), directory("httpdocs/x")},
       {"", {"d httpdocs/x"}},
       {"", {"f httpdocs/x evil"}}},
      {"a file in place of a directory",
       {directory("httpdocs/x"), file("httpdocs/x/y"), file("httpdocs/x")},
       {"", {"d httpdocs/x", "f httpdocs/x/y evil"}},
       {"", {"d httpdocs/x", "f httpdocs/x/y evil"}}},
      {"below a file",
       {file("httpdocs/x"), file("httpdocs/x/y")},
       {"", {"f httpdocs/x evil"}},
       {"", {"f httpdocs/x evil"}}},
      {"a section that is a file",
       {file("webspace"), file("webspace/y")},
       {"", {"f webspace evil"}},
       {"", {"f webspace evil"}}},
      {"case",
       {file("httpdocs/Page", "1"), file("httpdocs/pagE", "2"), file("HTTPDOCS/x")},
       {"", {"f httpdocs/Page 1", "f httpdocs/pagE 2"}},
       {"", {"f httpdocs/Page 1", "f httpdocs/pagE 2"}}},
      {"case of directories",
       {file("httpdocs/A/x", "1"), file("httpdocs/a/x", "2")},
       {"", {"d httpdocs/A", "f httpdocs/A/x 1", "d httpdocs/a", "f httpdocs/a/x 2"}},
       {"", {"d httpdocs/A", "f httpdocs/A/x 1", "d httpdocs/a", "f httpdocs/a/x 2"}}},
      {"twice the same",
       {file("httpdocs/x", "1"), file("httpdocs/x", "22")},
       {"", {"f httpdocs/x 22"}},
       {"", {"f httpdocs/x 22"}}},
      {"a pipe in place of a file",
       {file("httpdocs/x"), special('6', "httpdocs/x")},
       {"", {"p httpdocs/x"}},
       {"", {"f httpdocs/x "}}},
      {"a forbidden name",
       {directory("httpdocs/.quota"), file("httpdocs/.quota/x")},
       {"", Lines{}},
       {"", Lines{}}},
  };
  for (const HostileRow& row : rows) expect_harmless(row);
}
