#include <errno.h>
#include <linux/audit.h>
#include <linux/capability.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>

#include "exec/keep_errno.private.h"
#include "log/messlog.h"
#include "tool/hardening.private.h"

namespace {

constexpr mode_t kUmask = 022;

#if defined(__x86_64__)
constexpr unsigned kMachine = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr unsigned kMachine = AUDIT_ARCH_AARCH64;
#else
constexpr unsigned kMachine = 0;  // no machine: the filter lets everything pass
#endif
#ifdef SYS_mknod
constexpr unsigned kMknod = SYS_mknod;
#else
constexpr unsigned kMknod = SYS_mknodat;
#endif

/// Where the low half of a system call's argument stands, on both machines.
constexpr unsigned argument(unsigned index) {
  return static_cast<unsigned>(offsetof(seccomp_data, args) +
                               index * sizeof(seccomp_data::args[0]));
}

/// An instruction of the filter; the jumps count instructions to be skipped.
constexpr sock_filter load(unsigned offset) {
  return BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offset);
}
constexpr sock_filter unless_equal(unsigned value, unsigned char skip) {
  return BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, 0, skip);
}
constexpr sock_filter if_equal(unsigned value, unsigned char skip) {
  return BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, skip, 0);
}
constexpr sock_filter give(unsigned result) {
  return BPF_STMT(BPF_RET | BPF_K, result);
}

/// tar -p, a forced owner or a command to be run would come from there as well as harmless options:
/// what the caller had is replaced, not extended. unzip has two variables for the same purpose.
void give_options_to_archive_tools() {
  if (setenv("TAR_OPTIONS", "--no-same-owner --no-same-permissions", 1) != 0)
    messlog2(1, 1, "Unable to set the environment: %s", strerror(errno));
  unsetenv("UNZIP");
  unsetenv("UNZIPOPT");
}

/// From the bounding set, because a program that root starts gets whatever is in there, and from
/// the process's own sets, of which the inheritable and the ambient one are handed on.
void drop_mknod() {
  prctl(PR_CAPBSET_DROP, CAP_MKNOD, 0, 0, 0);
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> sets = {};
  if (syscall(SYS_capget, &header, sets.data()) != 0) return;
  __user_cap_data_struct& set = sets[CAP_TO_INDEX(CAP_MKNOD)];
  const unsigned others = ~CAP_TO_MASK(CAP_MKNOD);
  set.effective &= others;
  set.permitted &= others;
  set.inheritable &= others;
  syscall(SYS_capset, &header, sets.data());
}

/// The kernel asks no capability of whoever makes a character device of number 0:0, and a process
/// that may not shrink its bounding set has given its children nothing up.
void refuse_devices() {
  std::array<sock_filter, 13> filter{{
      load(offsetof(seccomp_data, arch)),
      unless_equal(kMachine, 10),
      load(offsetof(seccomp_data, nr)),
      if_equal(SYS_mknodat, 3),
      unless_equal(kMknod, 7),
      load(argument(1)),
      BPF_STMT(BPF_JMP | BPF_JA, 1),
      load(argument(2)),
      BPF_STMT(BPF_ALU | BPF_AND | BPF_K, S_IFMT),
      if_equal(S_IFCHR, 1),
      unless_equal(S_IFBLK, 1),
      give(SECCOMP_RET_ERRNO | EPERM),
      give(SECCOMP_RET_ALLOW),
  }};
  sock_fprog program = {filter.size(), filter.data()};
  if (prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program, 0, 0) == 0) return;
  // A process without CAP_SYS_ADMIN may filter once it can gain nothing by running a program.
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0)
    prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program, 0, 0);
}

void take_all_descriptors() {
  rlimit limit = {};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == limit.rlim_max) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace

void harden_process() {
  const frask::KeepErrno keep;
  umask(kUmask);
  give_options_to_archive_tools();
  drop_mknod();
  refuse_devices();
  take_all_descriptors();
}
