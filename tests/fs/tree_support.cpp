#include "tree_support.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include <stdexcept>

#include "fs/tree.h"
#include "support/scratch.h"

namespace fs = std::filesystem;

namespace fstest {
namespace {

constexpr long kFchmodat2 = 452;

void require(bool done, const std::string& what) {
  if (!done) throw std::runtime_error(what + ": " + strerror(errno));
}

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

const std::vector<Change>& changes() {
  static const std::vector<Change> all{
      {"chown_tree", [](const std::string& path, int top) { chown_tree(path.c_str(), 7, 8, top); },
       "Unable to chown directory entry ", "Unable to chown directory entry ",
       "Unable to chown dir ", SYS_fchownat},
      {"chmod_tree",
       [](const std::string& path, int top) { chmod_tree(path.c_str(), 0640, 0750, top); },
       "Unable to chmod entry ", "Unable to chmod directory entry ", "Unable to chmod dir ",
       kFchmodat2}};
  return all;
}

std::string report(const std::string& text, const std::string& name, int error) {
  const std::string cause = strerror(error);
  const std::string named = name.empty() ? text : text + name;
  return named + ": " + cause + "\n\nSystem error " + std::to_string(error) + ": " + cause + "\n";
}

testsupport::Outcome ended(int exit_code, const std::string& reports) {
  return {reports, reports, exit_code << 8};
}

void make_each_type(const fs::path& top) {
  testsupport::write_file(top / "dir/file", "inner", 0604);
  testsupport::write_file(top / "file", "outer", 0604);
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

void become_nobody_in(const fs::path& directory) {
  constexpr id_t kNobody = 65534;
  if (chdir(directory.c_str()) != 0 || setgroups(0, nullptr) != 0 || setgid(kNobody) != 0 ||
      setuid(kNobody) != 0)
    _exit(97);
}

void refuse_fchmodat2(int error) {
  sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<__u32>(kFchmodat2), 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<__u32>(error)),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog program = {sizeof filter / sizeof filter[0], filter};
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
      prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program, 0, 0) != 0)
    _exit(97);
}

std::string working_directory() {
  return fs::current_path().string();
}

testsupport::Outcome run_traced(const std::vector<std::string>& strace_options,
                                const std::string& routine, const std::string& path,
                                const std::string& directory) {
  std::vector<std::string> arguments{"strace", "-qq"};
  arguments.insert(arguments.end(), strace_options.begin(), strace_options.end());
  arguments.insert(arguments.end(), {TREE_CALLS_PROGRAM, routine, path});
  testsupport::RunOptions options;
  // Leaks cannot be looked for under a tracer; and memory is to be used again, as without checks.
  options.environment["ASAN_OPTIONS"] =
      "detect_leaks=0:quarantine_size_mb=0:thread_local_quarantine_size_kb=0";
  options.directory = directory;
  return testsupport::run(arguments, options);
}

}  // namespace fstest
