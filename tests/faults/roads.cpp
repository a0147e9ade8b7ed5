#include "faults/roads.h"

#include <filesystem>
#include <stdexcept>

#include "support/private_mounts.h"
#include "support/scratch.h"
#include "support/tree_listing.h"

namespace fs = std::filesystem;
using testsupport::Outcome;
using testsupport::write_file;

namespace faults {
namespace {

const std::string kStore = "/var/www/vhosts/.skel/7";
const std::string kHost = "/var/www/vhosts/example.com";
const std::string kWork = "/mnt/site";

void shell(const std::string& script) {
  const Outcome outcome = testsupport::run({"/bin/sh", "-ec", script});
  if (outcome.exit_code() != 0) throw std::runtime_error("a script failed: " + outcome.err);
}

/// A store as an earlier installation has left it.
void make_old_store() {
  fs::remove_all(kStore);
  for (const char* file : {"/httpdocs/old.html", "/httpdocs/sub/old", "/cgi-bin/old"})
    write_file(kStore + file, "old");
}

void make_tree() {
  fs::remove_all(kWork);
  for (const char* file : {"/tree/file", "/tree/.quota", "/tree/sub/.quota/file", "/tree/sub/file"})
    write_file(kWork + file, "text");
}

void make_site() {
  fs::remove_all(kHost);
  for (const char* file : {"/httpdocs/index.html", "/httpdocs/blog/a.php", "/httpdocs/blog/lib/b",
                           "/cgi-bin/blog/c.cgi", "/private/file"})
    write_file(kHost + file, "old");
}

bool claims_installed(const Outcome& outcome) {
  return outcome.exit_code() == 0 && outcome.err.empty();
}

bool claims_success(const Outcome& outcome) {
  return outcome.exit_code() == 0;
}

/// It came back and had nothing to report.
bool claims_silently(const Outcome& outcome) {
  return outcome.exit_code() == 0 && outcome.err.empty() &&
         (outcome.out.rfind("returned \n", 0) == 0 || outcome.out.rfind("returned 0\n", 0) == 0);
}

bool claims_nothing(const Outcome& /*outcome*/) {
  return false;
}

Road tool_road(const std::string& name, std::vector<std::string> words, std::vector<int> results) {
  words.insert(words.begin(), TEMBRIX_PROGRAM);
  return {name, std::move(words), "", [] {}, {}, std::move(results), claims_success};
}

Road install_road(const std::string& name, std::vector<std::string> words) {
  Road road = tool_road(name, std::move(words), {0});
  road.prepare = make_old_store;
  road.state = {kStore};
  road.claims_all = claims_installed;
  return road;
}

std::string description() {
  return "<INSTANCE-DATA><SECTION PREFIX='htdocs'><FILE>a.php</FILE><FILE>lib</FILE>"
         "<FILE>lib/b</FILE></SECTION><SECTION PREFIX='cgi-bin'><FILE>c.cgi</FILE></SECTION>"
         "</INSTANCE-DATA>";
}

}  // namespace

Stage::Stage() {
  testsupport::enter_private_mounts();
  testsupport::mount_file_over("/etc/group", "root:x:0:\noxacln:x:4242:\n");
  write_file("/etc/oxa/oxa.conf", "HTTPD_VHOSTS_D /var/www/vhosts\n");
  write_file("/etc/oxa/.oxa.shadow", "sesame\n", 0600);
  write_file("/etc/oxa/private/dsn.ini", "[frask]\nusername = admin\n", 0600);
  write_file("/usr/local/oxa/admin/sbin/utility", "#!/bin/sh\nexit 3\n", 0755);
  for (const char* file :
       {"/mnt/outside/file", "/mnt/outside/sub/.quota",
        "/var/www/vhosts/.skel/8/httpdocs/index.html",
        "/var/www/vhosts/.skel/9/httpdocs/index.html", "/var/www/vhosts/.skel/9/cgi-bin/sub/a.cgi"})
    write_file(file, "@domain_name@");
  fs::create_directory("/mnt/archives");
  shell(
      "mkdir /mnt/skel; cd /mnt/skel; mkdir -p httpdocs/sub/.quota cgi-bin conf notes\n"
      "for file in httpdocs/index.html httpdocs/sub/page httpdocs/.quota "
      "httpdocs/sub/.quota/file\\\n"
      "  cgi-bin/a.cgi conf/file README; do echo text > $file; done\n"
      "ln -s /mnt/outside httpdocs/link\n"
      "tar -cf ../archives/skel.tar .; tar -czf ../archives/skel.tgz .\n"
      "zip -qry ../archives/skel.zip .\n"
      "mkdir /usr/local/oxa/var; cp ../archives/skel.tgz /usr/local/oxa/var/default_skeleton.tgz");
  server_ = std::make_unique<testsupport::MariaDbServer>();
  server_->execute("replace into misc (param, val) values ('size_count_type', 'byte')");
}

std::vector<Road> Stage::tool_roads() {
  std::vector<Road> roads{
      tool_road("help", {"--help"}, {0}),
      tool_road("test-support zip", {"--test-support", "zip"}, {0, -1}),
      tool_road("test-support tar", {"--test-support", "tar"}, {0}),
      tool_road("test-archive, type by content",
                {"--test-archive", "--filename", "/mnt/archives/skel.tgz"}, {0, 1, 2})};
  for (const std::string type : {"zip", "tgz", "tar"}) {
    const std::vector<std::string> archive{"--force-type", type, "--filename",
                                           "/mnt/archives/skel." + type};
    std::vector<std::string> words{"--test-archive"};
    words.insert(words.end(), archive.begin(), archive.end());
    roads.push_back(tool_road("test-archive " + type, words, {0, 1, 2}));
    roads.back().claims_all = claims_nothing;
    words[0] = "--install-skel";
    words.insert(words.end(), {"--id", "7"});
    roads.push_back(install_road("install-skel " + type, words));
  }
  roads.push_back(
      install_road("install-skel, type by content",
                   {"--install-skel", "--filename", "/mnt/archives/skel.zip", "--id", "7"}));
  roads.push_back(
      install_road("install-default", {"--install-default", "--force-type", "tgz", "--id", "7"}));
  roads.push_back(tool_road("remove-skel", {"--remove-skel", "--id", "7"}, {0}));
  roads.back().prepare = make_old_store;
  roads.back().state = {kStore};
  return roads;
}

std::vector<Road> Stage::routine_roads() {
  struct Row {
    std::vector<const char*> names;
    std::function<void()> prepare;
    std::vector<std::string> state;
    std::function<bool(const Outcome&)> claims_all;
    std::string input = {};
  };
  const std::vector<Row> rows{
      {{"fork_execl_pipes",
        "fork_execl_getout",
        "fork_execv_getouterr",
        "fork_execl_log",
        "path_exec",
        "util_exec",
        "util_libexec",
        "fork_execv",
        "fork_execv_fd",
        "do_exec",
        "popen_exec_with_input",
        "popen_exec_getoutput",
        "popen_exec",
        "closefrom_through_proc",
        "execute",
        "feed",
        "execGetOutput",
        "pipeline",
        "throwing",
        "oxaConfGetDefaultByIndex",
        "conf_read_file_r",
        "get_ini_conf_var",
        "get_param",
        "get_mail_server_param",
        "idn_toascii_safe",
        "getCtID"},
       [] {},
       {},
       claims_nothing},
      {{"chown_tree", "chmod_tree", "rm_tree_aux", "rm_tree", "remove_forbid_entries"},
       make_tree,
       {kWork},
       claims_silently},
      {{"copy_if_no_dontedit", "redirect", "readDirContent", "typeFromPath", "readFile"},
       make_tree,
       {kWork},
       claims_nothing},
      {{"setup_skeleton", "setup_skeleton_on_subdomain"},
       [] {
         fs::remove_all(kHost);
         fs::create_directories(kHost + "/subdomains");
       },
       {kHost},
       claims_nothing},
      {{"clean_docroot"}, make_site, {kHost}, claims_silently},
      {{"wido_delete_instance"}, make_site, {kHost}, claims_silently, description()}};
  std::vector<Road> roads;
  for (const Row& row : rows)
    for (const char* name : row.names)
      roads.push_back(
          {name, {ROUTINE_CALLER, name}, row.input, row.prepare, row.state, {}, row.claims_all});
  return roads;
}

std::vector<std::string> Stage::outside() {
  std::vector<std::string> lines;
  for (const char* top : {"/mnt/outside", "/mnt/archives", "/etc/oxa", "/usr/local/oxa",
                          "/var/www/vhosts/.skel/8", "/var/www/vhosts/.skel/9"}) {
    const std::vector<std::string> more = testsupport::exact_listing(top);
    lines.insert(lines.end(), more.begin(), more.end());
  }
  for (const char* directory : {"/mnt", "/var/www", "/var/www/vhosts", "/var/www/vhosts/.skel"})
    for (const fs::directory_entry& entry : fs::directory_iterator(directory))
      if (entry.path() != kStore && entry.path() != kHost && entry.path() != kWork)
        lines.push_back(entry.path());
  return lines;
}

}  // namespace faults
