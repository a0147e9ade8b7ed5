#include "tree_support.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "fs/tree.h"
#include "support/traced.h"

namespace fs = std::filesystem;

namespace fstest {
namespace {

constexpr long kFchmodat2 = 452;

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

bool has_fchmodat2() {
  return syscall(kFchmodat2, AT_FDCWD, "", 0, ~0U) == 0 || errno != ENOSYS;
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

void make_tree_of_nobody(const testsupport::ScratchDir& scratch) {
  testsupport::write_file(scratch / "top/sub/file", "");
  chown_tree(scratch.path().c_str(), 65534, 65534, 1);
  testsupport::require(chmod(scratch.path().c_str(), 0755) == 0, "chmod");
}

std::string working_directory() {
  return fs::current_path().string();
}

testsupport::Outcome run_traced(const std::vector<std::string>& strace_options,
                                const std::string& routine, const std::string& path,
                                const std::string& directory) {
  testsupport::RunOptions options;
  options.directory = directory;
  return testsupport::run_traced(strace_options, {TREE_CALLS_PROGRAM, routine, path}, options);
}

}  // namespace fstest
