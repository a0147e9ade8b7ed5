#include "support/private_mounts.h"

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>
#include <string>

#include "support/scratch.h"

namespace fs = std::filesystem;

namespace testsupport {
namespace {

void mount_memory(const fs::path& place) {
  require(mount("tmpfs", place.c_str(), "tmpfs", 0, "mode=0755") == 0,
          "mounting tmpfs on " + place.string());
}

/// A mount point that the host lacks is made in a layer in memory over the directory that it lacks.
void overlay(const fs::path& directory) {
  const std::string layer = "/mnt/layer" + directory.filename().string();
  fs::create_directories(layer + "/upper");
  fs::create_directories(layer + "/work");
  const std::string options =
      "lowerdir=" + directory.string() + ",upperdir=" + layer + "/upper,workdir=" + layer + "/work";
  require(mount("overlay", directory.c_str(), "overlay", 0, options.c_str()) == 0,
          "mounting an overlay on " + directory.string());
}

void provide(const fs::path& place, const fs::path& layered) {
  if (!fs::exists(place)) {
    overlay(layered);
    fs::create_directories(place);
  }
  mount_memory(place);
}

}  // namespace

void enter_private_mounts() {
  require(unshare(CLONE_NEWNS) == 0, "unsharing the mount namespace (root is needed)");
  require(mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) == 0,
          "making the mounts private");
  mount_memory("/mnt");
  provide("/etc/oxa", "/etc");
  provide("/usr/local/oxa", "/usr/local");
  provide("/var/www", "/var");
  provide("/var/lib/mysql", "/var/lib");
}

void leave_no_proc() {
  while (umount2("/proc", MNT_DETACH) == 0) {
  }
  require(!fs::exists("/proc/self"), "unmounting /proc");
}

void mount_file_over(const std::string& place, const std::string& content) {
  std::string file = "/mnt/file-XXXXXX";
  const int fd = mkostemp(file.data(), O_CLOEXEC);
  require(fd >= 0 && close(fd) == 0, file);
  write_file(file, content);
  // It stays: nothing can be mounted on a file that was removed.
  require(mount(file.c_str(), place.c_str(), "none", MS_BIND, nullptr) == 0,
          "mounting a file on " + place);
}

}  // namespace testsupport
