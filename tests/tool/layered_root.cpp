#include "tool/layered_root.h"

#include <errno.h>
#include <sched.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>

#include "support/scratch.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kRoot = "/mnt/root";
constexpr const char* kLayer = "/mnt/layer";

void require(bool done, const std::string& what) {
  if (!done) throw std::runtime_error(what + ": " + strerror(errno));
}

void mount_memory(const std::string& place) {
  fs::create_directories(place);
  require(mount("tmpfs", place.c_str(), "tmpfs", 0, "mode=0755") == 0, "tmpfs on " + place);
}

void mount_again(const std::string& place) {
  require(mount(place.c_str(), LayeredRoot::at(place).c_str(), nullptr, MS_BIND, nullptr) == 0,
          "binding " + place);
}

std::string described(const fs::path& entry, const std::string& path, bool holds_left_out) {
  struct stat st = {};
  require(lstat(entry.c_str(), &st) == 0, entry);
  char head[128];
  snprintf(head, sizeof head, "%06o %u:%u", st.st_mode, st.st_uid, st.st_gid);
  std::string line = head;
  if (!holds_left_out) {
    snprintf(head, sizeof head, " links %lu size %lld device %lx changed %lld.%09ld %lld.%09ld",
             static_cast<unsigned long>(st.st_nlink), static_cast<long long>(st.st_size),
             static_cast<unsigned long>(st.st_rdev), static_cast<long long>(st.st_mtim.tv_sec),
             st.st_mtim.tv_nsec, static_cast<long long>(st.st_ctim.tv_sec), st.st_ctim.tv_nsec);
    line += head;
  }
  line += " " + path;
  return S_ISLNK(st.st_mode) ? line + " " + fs::read_symlink(entry).string() : line;
}

/// `top` stands for the directory `path` inside.
void describe_below(const fs::path& top, const std::string& path, const std::string& left_out,
                    std::vector<std::string>& lines) {
  fs::recursive_directory_iterator entries(top);
  for (const auto& entry : entries) {
    const std::string name = path + entry.path().string().substr(top.string().size());
    if (name == left_out) {
      entries.disable_recursion_pending();
      continue;
    }
    lines.push_back(described(entry.path(), name, fs::path(left_out).parent_path() == name));
  }
}

}  // namespace

LayeredRoot::LayeredRoot() {
  require(unshare(CLONE_NEWNS) == 0, "unsharing the mount namespace (root is needed)");
  require(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0,
          "making the mounts private");
  mount_memory("/mnt");
  const std::string upper = std::string(kLayer) + "/upper";
  const std::string work = std::string(kLayer) + "/work";
  for (const std::string& directory : {upper, work, std::string(kRoot)})
    fs::create_directories(directory);
  require(chmod(upper.c_str(), 0755) == 0, "chmod");
  const std::string options = "lowerdir=/,upperdir=" + upper + ",workdir=" + work;
  require(mount("overlay", kRoot, "overlay", 0, options.c_str()) == 0, "an overlay over /");
  mount_memory(at("/var/www"));
  mount_memory(at("/dev"));
  for (const char* device : {"/dev/null", "/dev/urandom"}) {
    testsupport::write_file(at(device), "");
    mount_again(device);
  }
  mount_again("/proc");
}

std::string LayeredRoot::at(const std::string& path) {
  return kRoot + path;
}

testsupport::Outcome LayeredRoot::run(const std::vector<std::string>& words) {
  std::vector<char*> argv;
  argv.reserve(words.size() + 1);
  for (const std::string& word : words) argv.push_back(const_cast<char*>(word.c_str()));
  argv.push_back(nullptr);
  return testsupport::in_child([&] {
    if (chroot(kRoot) != 0 || chdir("/") != 0 || setsid() < 0) _exit(97);
    setenv("LC_ALL", "C", 1);
    execv(argv[0], argv.data());
    _exit(98);
  });
}

std::vector<std::string> LayeredRoot::changes(const std::string& left_out) {
  std::vector<std::string> lines;
  describe_below(std::string(kLayer) + "/upper", "", left_out, lines);
  describe_below(at("/var/www"), "/var/www", left_out, lines);
  describe_below(at("/dev"), "/dev", left_out, lines);
  std::sort(lines.begin(), lines.end());
  return lines;
}
