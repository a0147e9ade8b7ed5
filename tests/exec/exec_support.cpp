#include "exec/exec_support.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "exec/descriptor_listing.h"
#include "log/utility_log.h"
#include "support/opaque_malloc.h"
#include "support/private_mounts.h"

namespace exectest {
namespace {

std::vector<std::string> recorded;

FRASK_PRINTF(2, 3) void record(int level, const char* format, ...) {
  char text[4096];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  recorded.push_back(std::to_string(level) + ": " + text);
}

[[noreturn]] void broken(const char* what) {
  perror(what);
  _exit(97);
}

constexpr int kResources = RLIMIT_NLIMITS;
rlimit original_limits[kResources];
bool lowered[kResources];

void lift_limits() {
  for (int resource = 0; resource < kResources; ++resource)
    if (lowered[resource])
      setrlimit(static_cast<__rlimit_resource>(resource), &original_limits[resource]);
}

void drop_capabilities(unsigned long long mask) {
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[2] = {};
  if (syscall(SYS_capget, &header, data) != 0) broken("capget");
  for (int i = 0; i < 2; ++i) data[i].effective &= ~static_cast<unsigned>(mask >> (32 * i));
  if (syscall(SYS_capset, &header, data) != 0) broken("capset");
}

rlim_t address_space() {
  std::ifstream stream("/proc/self/statm");
  rlim_t pages = 0;
  stream >> pages;
  return pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE));
}

void* volatile allocated;  // keeps the compiler from dropping an allocation

}  // namespace

const char* const kProbe = EXEC_PROBE;
const char* const kCaller = EXEC_CALLER;

Argv::Argv(const std::vector<std::string>& arguments) : texts_(arguments) {
  for (std::string& text : texts_) pointers_.push_back(text.data());
  pointers_.push_back(nullptr);
}

Argv shell(const std::string& script) {
  return Argv({"/bin/sh", "-c", script});
}

std::string pattern(size_t length) {
  std::string text(length, '\0');
  for (size_t i = 0; i < length; ++i) text[i] = static_cast<char>(i % 251);
  return text;
}

RecordedLog::RecordedLog() {
  recorded.clear();
  frask_log = record;
}

RecordedLog::~RecordedLog() {
  frask_log = _frask_utility_log;
}

const std::vector<std::string>& RecordedLog::lines() const {
  return recorded;
}

testing::AssertionResult reported(const testsupport::Outcome& outcome, int exit_code,
                                  const std::string& text) {
  if (outcome.exit_code() == exit_code && outcome.out == text && outcome.err == text)
    return testing::AssertionSuccess();
  return testing::AssertionFailure()
         << outcome << "\nwanted: exit code " << exit_code << " and on both streams\n"
         << text;
}

std::string descriptors() {
  static char text[65536];
  list_descriptors(text, sizeof text);
  return text;
}

void install_utility(const std::string& name, const std::string& program) {
  const std::filesystem::path directory = "/usr/local/oxa/admin/sbin";
  testsupport::enter_private_mounts();
  std::filesystem::create_directories(directory);
  std::filesystem::create_symlink(program, directory / name);
}

void install_libexec(const std::string& name, const std::string& program) {
  testsupport::enter_private_mounts();
  std::filesystem::create_directories("/mnt/upper");
  std::filesystem::create_directories("/mnt/site");
  // The host has no such directory, so "/usr" gets a layer.
  if (mount("overlay", "/usr", "overlay", 0, "lowerdir=/usr,upperdir=/mnt/upper,workdir=/mnt/site"))
    broken("mount");
  const std::filesystem::path path = "/usr/lib64/frask-9.0/" + name;
  std::filesystem::create_directories(path.parent_path());
  std::filesystem::create_symlink(program, path);
}

void close_others() {
  if (close_range(STDERR_FILENO + 1, ~0U, 0) != 0) broken("close_range");
}

void open_as(int number, const std::string& path) {
  const int fd = open(path.c_str(), O_RDWR | O_CREAT, 0644);
  if (fd < 0) broken(path.c_str());
  if (fd == number) return;
  if (dup2(fd, number) < 0) broken("dup2");
  close(fd);
}

testsupport::Outcome run_caller_with_little_memory(const std::vector<std::string>& arguments) {
  testsupport::RunOptions options;
  if (kAddressSanitizer)  // whose shadow does not fit under a limit of the address space
    options.environment["ASAN_OPTIONS"] =
        "allocator_may_return_null=1:max_allocation_size_mb=2:detect_leaks=0";
  std::vector<std::string> command = {kCaller};
  command.insert(command.end(), arguments.begin(), arguments.end());
  const Argv argv(command);
  return testsupport::in_child(
      [&argv] {
        // Not through limit(), which lifts the limit again: this is for the program that follows.
        const rlimit small = {rlim_t{48} << 20U, rlim_t{48} << 20U};
        if (!kAddressSanitizer && setrlimit(RLIMIT_AS, &small) != 0) broken("setrlimit");
        execv(argv.path(), argv.get());
        broken("execv");
      },
      options);
}

void limit(int resource, rlim_t soft) {
  const auto which = static_cast<__rlimit_resource>(resource);
  rlimit limits = {};
  if (getrlimit(which, &limits) != 0) broken("getrlimit");
  if (!lowered[resource]) {
    original_limits[resource] = limits;
    lowered[resource] = true;
    atexit(lift_limits);
  }
  limits.rlim_cur = soft;
  if (setrlimit(which, &limits) != 0) broken("setrlimit");
}

void allow_descriptors(rlim_t count) {
  rlimit limits = {};
  if (getrlimit(RLIMIT_NOFILE, &limits) != 0) broken("getrlimit");
  limits.rlim_cur = std::max(limits.rlim_cur, count);
  limits.rlim_max = std::max(limits.rlim_max, count);
  if (setrlimit(RLIMIT_NOFILE, &limits) != 0) broken("setrlimit");
}

void leave_descriptors(int count) {
  const auto highest = static_cast<rlim_t>(testsupport::open_descriptors().back());
  limit(RLIMIT_NOFILE, highest + 1 + static_cast<rlim_t>(count));
  int last = -1;
  for (int fd = dup(0); fd >= 0; fd = dup(0)) last = fd;
  for (int i = 0; i < count; ++i) close(last - i);
}

void forbid_forks() {
  constexpr uid_t kSomebody = 4711;
  // The root user is above the limit, and so are these capabilities. The effective user stays root,
  // or the child could not write what gcov counted.
  if (setresuid(kSomebody, 0, 0) != 0) broken("setresuid");
  drop_capabilities(1ULL << CAP_SYS_ADMIN | 1ULL << CAP_SYS_RESOURCE);
  limit(RLIMIT_NPROC, 0);
}

void exhaust_memory(size_t size, size_t spared) {
  // Enough for the stack that posix_spawn() maps, too little for malloc() to go on with.
  constexpr rlim_t kSlack = 65536;
  void* kept = testsupport::opaque_malloc(spared);
  limit(RLIMIT_AS, address_space() + kSlack);
  do {
    allocated = testsupport::opaque_malloc(size);
  } while (allocated != nullptr);
  free(kept);
}

void answer_syscall(long number, int error, long second) {
  constexpr unsigned kNumber = offsetof(seccomp_data, nr);
  constexpr unsigned kSecond = offsetof(seccomp_data, args) + sizeof(__u64);
  const unsigned verdict = SECCOMP_RET_ERRNO | static_cast<unsigned>(error);
  const unsigned char skip_second = second < 0 ? 2 : 0;
  sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kNumber),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(number), 0, 4),
      BPF_JUMP(BPF_JMP | BPF_JA, skip_second, 0, 0),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kSecond),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(second), 0, 1),
      BPF_STMT(BPF_RET | BPF_K, verdict),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  sock_fprog program = {sizeof filter / sizeof filter[0], filter};
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
      prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0)
    broken("seccomp");
}

void let_the_kernel_reap() {
  signal(SIGCHLD, SIG_IGN);
}

}  // namespace exectest
