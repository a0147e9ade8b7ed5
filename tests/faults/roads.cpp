#include "faults/roads.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

#include "faults/again.h"
#include "faults/routines.h"
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
const std::string kUnpacked = "/mnt/unpacked";
const std::string kHere = "/mnt/here";
const std::string kLogSocket = "/mnt/dev/log";

const std::string kRefused = "Unsuccessfull execution of command '";
const std::string kUnqueried = "Unable to query parameter by query ";

int log_socket = -1;

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

/// All that is in the socket is read, lest a sender wait for room.
void drain_log() {
  char datagram[4096];
  while (recv(log_socket, datagram, sizeof datagram, MSG_DONTWAIT) >= 0) {
  }
}

void open_log_socket() {
  log_socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  kLogSocket.copy(address.sun_path, sizeof address.sun_path - 1);
  const auto* generic = static_cast<const sockaddr*>(static_cast<const void*>(&address));
  if (log_socket < 0 || bind(log_socket, generic, sizeof address) != 0)
    throw std::runtime_error("no log socket");
}

using Answers = std::map<int, std::vector<std::string>>;

Road tool_road(const std::string& name, std::vector<std::string> words, Answers answers) {
  words.insert(words.begin(), TEMBRIX_PROGRAM);
  Road road;
  road.name = name;
  road.words = std::move(words);
  road.directory = kHere;
  road.answers = std::move(answers);
  road.claims_all = claims_success;
  return road;
}

/// What "too large" would be about is far from it here.
Road test_road(const std::string& name, std::vector<std::string> words) {
  return tool_road(name, std::move(words), {{0, {kUnqueried}}, {2, {kUnqueried, kRefused}}});
}

Road install_road(const std::string& name, std::vector<std::string> words) {
  Road road = tool_road(name, std::move(words), {{0, {kRefused}}});
  road.prepare = make_old_store;
  road.state = {kStore};
  road.claims_all = claims_installed;
  return road;
}

/// What the scene of a routine gives its road.
void set_scene(Road& road, Scene scene) {
  road.claims_all = claims_silently;
  switch (scene) {
    case Scene::kNothing:
      road.prepare = drain_log;
      road.claims_all = claims_nothing;
      return;
    case Scene::kTree:
    case Scene::kFiles:
    case Scene::kCopied:
      road.prepare = make_tree;
      road.state = {kWork};
      if (scene != Scene::kTree) road.claims_all = claims_nothing;
      if (scene == Scene::kCopied) road.again = backed_up_again;
      return;
    case Scene::kNoSite:
    case Scene::kNoShop:
      road.prepare = [scene] {
        fs::remove_all(kHost);
        if (scene == Scene::kNoShop) fs::create_directories(kHost + "/subdomains");
      };
      road.state = {kHost};
      road.claims_all = claims_nothing;  // what becomes of a file's content is not reported
      road.again = [](const Lines& left, const Lines& /*fresh*/, const Lines& clean) {
        return deployed_again(kHost, left, clean);
      };
      return;
    case Scene::kSite:
      road.prepare = make_site;
      road.state = {kHost};
      return;
    case Scene::kStore:
      road.prepare = make_old_store;
      road.state = {kStore};
      return;
    case Scene::kUnpacked:
      road.prepare = [] {
        fs::remove_all(kUnpacked);
        fs::create_directory(kUnpacked);
      };
      road.state = {kUnpacked};
      return;
  }
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
  for (const char* directory : {"/mnt/archives", "/mnt/here", "/mnt/tmp", "/mnt/dev"})
    fs::create_directory(directory);
  shell(
      "mkdir /mnt/skel; cd /mnt/skel; mkdir -p httpdocs/sub/.quota cgi-bin conf notes\n"
      "for file in httpdocs/index.html httpdocs/sub/page httpdocs/.quota "
      "httpdocs/sub/.quota/file\\\n"
      "  cgi-bin/a.cgi conf/file README; do echo text > $file; done\n"
      "ln -s /mnt/outside httpdocs/link\n"
      "tar -cf ../archives/skel.tar .; tar -czf ../archives/skel.tgz .\n"
      "zip -qry ../archives/skel.zip .\n"
      "mkdir /usr/local/oxa/var; cp ../archives/skel.tgz /usr/local/oxa/var/default_skeleton.tgz\n"
      // A file with a hole on either side of its text, and modes that deployment has to set.
      "cd /var/www/vhosts/.skel/9; mkdir conf; truncate -s 12288 conf/holes\n"
      "printf @domain_name@ >>conf/holes; truncate -s 24576 conf/holes\n"
      "chmod 0640 httpdocs/index.html; chmod 0750 cgi-bin/sub\n"
      // Devices and a log of the roads' own, and the temporary files where the archives are.
      "mount -t tmpfs none /mnt/dev; cd /mnt/dev\n"
      "for device in null zero full random urandom; do\n"
      "  : >$device; mount --bind /dev/$device $device\n"
      "done\n"
      "ln -s /proc/self/fd fd; mkdir shm; mount --rbind /mnt/dev /dev\n"
      // The programs themselves must not vanish with the old directory.
      "for tree in " PROJECT_TREES
      "; do\n"
      "  case $tree in /tmp/*) mkdir -p /mnt$tree; mount --bind $tree /mnt$tree ;; esac\n"
      "done\n"
      "mount --rbind /mnt/tmp /tmp");
  open_log_socket();
  server_ = std::make_unique<testsupport::MariaDbServer>();
  server_->execute("replace into misc (param, val) values ('size_count_type', 'byte')");
}

Stage::~Stage() {
  close(log_socket);
}

std::vector<Road> Stage::tool_roads() {
  std::vector<Road> roads{
      tool_road("help", {"--help"}, {{0, {}}}),
      tool_road("test-support zip", {"--test-support", "zip"}, {{0, {}}, {-1, {}}}),
      tool_road("test-support tar", {"--test-support", "tar"}, {{0, {}}}),
      test_road("test-archive, type by content",
                {"--test-archive", "--filename", "/mnt/archives/skel.tgz"})};
  for (const std::string type : {"zip", "tgz", "tar"}) {
    const std::vector<std::string> archive{"--force-type", type, "--filename",
                                           "/mnt/archives/skel." + type};
    std::vector<std::string> words{"--test-archive"};
    words.insert(words.end(), archive.begin(), archive.end());
    roads.push_back(test_road("test-archive " + type, words));
    words[0] = "--install-skel";
    words.insert(words.end(), {"--id", "7"});
    roads.push_back(install_road("install-skel " + type, words));
  }
  roads.push_back(
      install_road("install-skel, type by content",
                   {"--install-skel", "--filename", "/mnt/archives/skel.zip", "--id", "7"}));
  roads.push_back(
      install_road("install-default", {"--install-default", "--force-type", "tgz", "--id", "7"}));
  roads.push_back(tool_road("remove-skel", {"--remove-skel", "--id", "7"}, {{0, {}}}));
  roads.back().prepare = make_old_store;
  roads.back().state = {kStore};
  return roads;
}

std::vector<Road> Stage::routine_roads() {
  std::vector<Road> roads;
  for (const Routine& routine : routines()) {
    Road road;
    road.name = routine.name;
    road.words = {ROUTINE_CALLER, routine.name};
    road.input = routine.input;
    road.exceptions = routine.exceptions;
    road.keeps = routine.keeps;
    road.makes_calls = routine.makes_calls;
    road.is_sister = routine.share == Share::kSister;
    road.own_process = static_cast<size_t>(routine.process);
    set_scene(road, routine.scene);
    roads.push_back(std::move(road));
  }
  return roads;
}

Lines Stage::outside() {
  Lines lines;
  for (const char* top : {"/mnt/outside", "/mnt/archives", "/mnt/here", "/etc/oxa",
                          "/usr/local/oxa", "/var/www/vhosts/.skel/8", "/var/www/vhosts/.skel/9"}) {
    const Lines more = testsupport::exact_listing(top);
    lines.insert(lines.end(), more.begin(), more.end());
  }
  for (const char* directory :
       {"/mnt", "/tmp", "/var/www", "/var/www/vhosts", "/var/www/vhosts/.skel"})
    for (const fs::directory_entry& entry : fs::directory_iterator(directory))
      if (entry.path() != kStore && entry.path() != kHost && entry.path() != kWork &&
          entry.path() != kUnpacked)
        lines.push_back(entry.path());
  return lines;
}

}  // namespace faults
