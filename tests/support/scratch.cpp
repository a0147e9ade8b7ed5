#include "support/scratch.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace testsupport {

void require(bool done, const std::string& what) {
  if (!done) throw std::runtime_error(what + ": " + strerror(errno));
}

ScratchDir::ScratchDir() : ScratchDir(fs::temp_directory_path()) {}

ScratchDir::ScratchDir(const fs::path& parent) {
  std::string name = (parent / "tembrix-test-XXXXXX").string();
  if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("mkdtemp failed for " + name);
  path_ = name;
}

ScratchDir::~ScratchDir() {
  std::error_code error;
  fs::remove_all(path_, error);
  if (!error) return;
  for (fs::recursive_directory_iterator it(path_, error), end; it != end; it.increment(error))
    if (it->is_regular_file(error) || it->is_directory(error)) set_immutable(it->path(), false);
  set_immutable(path_, false);
  fs::remove_all(path_, error);
}

fs::path memory_directory() {
  const fs::path in_memory = "/dev/shm";
  return fs::is_directory(in_memory) ? in_memory : fs::temp_directory_path();
}

void write_file(const fs::path& path, const std::string& content, mode_t mode) {
  if (path.has_parent_path()) fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << content;
  if (!fs::exists(path) || chmod(path.c_str(), mode) != 0)
    throw std::runtime_error("cannot write " + path.string());
}

std::string read_file(const fs::path& path) {
  std::ifstream stream(path, std::ios::binary);
  if (!stream) throw std::runtime_error("cannot read " + path.string());
  std::ostringstream content;
  content << stream.rdbuf();
  return content.str();
}

bool set_immutable(const fs::path& path, bool immutable) {
  const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) return false;
  int flags = 0;
  bool done = ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
  flags = immutable ? flags | FS_IMMUTABLE_FL : flags & ~FS_IMMUTABLE_FL;
  done = done && ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
  close(fd);
  return done;
}

mode_t mode_of(const fs::path& path) {
  struct stat st = {};
  if (lstat(path.c_str(), &st) != 0) throw std::runtime_error("cannot examine " + path.string());
  return st.st_mode & 07777;
}

}  // namespace testsupport
