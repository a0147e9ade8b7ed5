#include "support/odd_trees.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include <stdexcept>

#include "support/scratch.h"

namespace fs = std::filesystem;

namespace testsupport {
namespace {

void make_socket(const fs::path& path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  const std::string text = path.string();
  require(text.size() < sizeof address.sun_path, "the name of a socket is too long");
  text.copy(address.sun_path, text.size());
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const auto* generic = reinterpret_cast<const sockaddr*>(&address);
  require(fd >= 0 && bind(fd, generic, sizeof address) == 0, "binding a socket");
  close(fd);
  require(chmod(path.c_str(), 0604) == 0, "chmod");
}

}  // namespace

void make_each_type(const fs::path& top) {
  write_file(top / "dir/file", "inner", 0604);
  write_file(top / "file", "outer", 0604);
  require(chmod((top / "dir").c_str(), 0705) == 0, "chmod");
  fs::create_symlink("file", top / "link");
  fs::create_symlink("dir", top / "dirlink");
  fs::create_symlink("nowhere", top / "dangling");
  require(mkfifo((top / "pipe").c_str(), 0604) == 0, "mkfifo");
  require(chmod((top / "pipe").c_str(), 0604) == 0, "chmod");
  require(mknod((top / "device").c_str(), S_IFCHR | 0604, makedev(1, 3)) == 0, "mknod");
  require(chmod((top / "device").c_str(), 0604) == 0, "chmod");
  make_socket(top / "socket");
}

void make_chain(const fs::path& top, int depth, const std::string& name) {
  int dir = open(top.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  require(dir >= 0, "opening " + top.string());
  for (int i = 0; i < depth; ++i) {
    require(mkdirat(dir, name.c_str(), 0755) == 0, "mkdirat");
    const int below = openat(dir, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    require(below >= 0, "openat");
    close(dir);
    dir = below;
  }
  close(dir);
}

}  // namespace testsupport
