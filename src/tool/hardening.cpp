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
// Newer machines have only the calls that go from a directory.
#ifdef SYS_mknod
constexpr unsigned kMknod = SYS_mknod;
constexpr unsigned kChmod = SYS_chmod;
#else
constexpr unsigned kMknod = SYS_mknodat;
constexpr unsigned kChmod = SYS_fchmod;
#endif
constexpr unsigned kFchmodat2 = 452;  // the same on all machines; older headers lack the name

/// What nothing that was unpacked may have, not even until the modes are reset.
constexpr unsigned kUnwanted = S_ISUID | S_ISGID | S_IWGRP | S_IWOTH;

/// Where the low half of a system call's argument stands, on both machines.
constexpr unsigned argument(unsigned index) {
  return static_cast<unsigned>(offsetof(seccomp_data, args) +
                               index * sizeof(seccomp_data::args[0]));
}

/// The instructions of the filter, by their places in it.
enum Place : unsigned char {
  kLoadMachine,
  kIsMachine,
  kLoadCall,
  kIsMknodat,
  kIsMknod,
  kIsFchmodat,
  kIsFchmodat2,
  kIsFchmod,
  kIsChmod,
  kLoadMode1,
  kSkipMode2,
  kLoadMode2,
  kHasUnwanted,
  kLoadType1,
  kSkipType2,
  kLoadType2,
  kMaskType,
  kIsCharacter,
  kIsBlock,
  kRefuse,
  kPretend,
  kAllow,
  kPlaces
};

constexpr unsigned char skip(Place from, Place to) {
  return static_cast<unsigned char>(to - from - 1);
}

using Filter = std::array<sock_filter, kPlaces>;

/// Two of the system calls have the mode as their second argument, the others as their third.
constexpr Filter make_filter() {
  Filter filter = {};
  const auto load = [&filter](Place here, unsigned offset) {
    filter[here] = BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offset);
  };
  const auto branch = [&filter](Place here, unsigned short test, unsigned value, Place yes,
                                Place no) {
    filter[here] = BPF_JUMP(static_cast<unsigned short>(BPF_JMP | test | BPF_K), value,
                            skip(here, yes), skip(here, no));
  };
  const auto go = [&filter](Place here, Place to) {
    filter[here] = BPF_STMT(BPF_JMP | BPF_JA, skip(here, to));
  };
  const auto give = [&filter](Place here, unsigned result) {
    filter[here] = BPF_STMT(BPF_RET | BPF_K, result);
  };
  load(kLoadMachine, offsetof(seccomp_data, arch));
  branch(kIsMachine, BPF_JEQ, kMachine, kLoadCall, kAllow);
  load(kLoadCall, offsetof(seccomp_data, nr));
  branch(kIsMknodat, BPF_JEQ, SYS_mknodat, kLoadType2, kIsMknod);
  branch(kIsMknod, BPF_JEQ, kMknod, kLoadType1, kIsFchmodat);
  branch(kIsFchmodat, BPF_JEQ, SYS_fchmodat, kLoadMode2, kIsFchmodat2);
  branch(kIsFchmodat2, BPF_JEQ, kFchmodat2, kLoadMode2, kIsFchmod);
  branch(kIsFchmod, BPF_JEQ, SYS_fchmod, kLoadMode1, kIsChmod);
  branch(kIsChmod, BPF_JEQ, kChmod, kLoadMode1, kAllow);
  load(kLoadMode1, argument(1));
  go(kSkipMode2, kHasUnwanted);
  load(kLoadMode2, argument(2));
  branch(kHasUnwanted, BPF_JSET, kUnwanted, kPretend, kAllow);
  load(kLoadType1, argument(1));
  go(kSkipType2, kMaskType);
  load(kLoadType2, argument(2));
  filter[kMaskType] = BPF_STMT(BPF_ALU | BPF_AND | BPF_K, S_IFMT);
  branch(kIsCharacter, BPF_JEQ, S_IFCHR, kRefuse, kIsBlock);
  branch(kIsBlock, BPF_JEQ, S_IFBLK, kRefuse, kAllow);
  give(kRefuse, SECCOMP_RET_ERRNO | EPERM);
  give(kPretend, SECCOMP_RET_ERRNO);  // without an error number, that is success
  give(kAllow, SECCOMP_RET_ALLOW);
  return filter;
}

/// tar -p, a forced owner or a command to be run would come from there as well as harmless options:
/// what the caller had is replaced, not extended. unzip has two variables for the same purpose,
/// gzip one, with which it unpacks nothing and succeeds, and file one that names the types that it
/// knows.
void settle_options_of_archive_tools() {
  if (setenv("TAR_OPTIONS", "--no-same-owner --no-same-permissions", 1) != 0)
    messlog2(1, 1, "Unable to set the environment: %s", strerror(errno));
  unsetenv("UNZIP");
  unsetenv("UNZIPOPT");
  unsetenv("GZIP");
  unsetenv("MAGIC");
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

/// Devices are refused: the kernel asks no capability of whoever makes a character device of number
/// 0:0, and a process that may not shrink its bounding set has given its children nothing up.
///
/// A mode with a bit that is unwanted is not set, and the caller is told that it was: unzip has no
/// option to go by the umask, and a complaint would make a failed extraction of an archive that
/// every machine with a umask of 002 packs. The entry keeps the mode that it was made with.
void filter_system_calls() {
  Filter filter = make_filter();
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
  settle_options_of_archive_tools();
  drop_mknod();
  filter_system_calls();
  take_all_descriptors();
}
