#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>

#include "fs/mode_setter.private.h"
#include "fs/unique_fd.h"

namespace frask {
namespace {

#ifdef SYS_fchmodat2
constexpr long kFchmodat2 = SYS_fchmodat2;
#else
constexpr long kFchmodat2 = 452;  // the number is younger than the C library's headers
#endif

/// A kernel that has the call refuses flags that do not exist; a filter, or a kernel that has it
/// not, answers as to any other.
bool kernel_has_call() {
  return ::syscall(kFchmodat2, AT_FDCWD, "", 0, ~0U) == 0 || errno == EINVAL;
}

/// What the C library does too, but with two system calls more: younger ones try fchmodat2() again
/// for each entry, and the look whether the entry is a link is spared, since the change of a link
/// through its descriptor is refused, or stays with the link.
bool set_by_descriptor(int dir_fd, const char* name, mode_t mode) {
  const UniqueFd entry(::openat(dir_fd, name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
  if (!entry) return false;
  std::array<char, 32> path;
  snprintf(path.data(), path.size(), "/proc/self/fd/%d", entry.get());
  if (::chmod(path.data(), mode) == 0) return true;
  if (errno == ENOENT) errno = EOPNOTSUPP;  // it is "/proc" that is missing
  return false;
}

}  // namespace

bool ModeSetter::set(int dir_fd, const char* name, mode_t mode) {
  if (!has_call_) return set_by_descriptor(dir_fd, name, mode);
  const int error = errno;
  if (::syscall(kFchmodat2, dir_fd, name, mode, AT_SYMLINK_NOFOLLOW) == 0) return true;
  if (errno != ENOSYS && errno != EPERM) return false;
  const int refusal = errno;
  has_call_ = refusal == EPERM && kernel_has_call();
  errno = has_call_ ? refusal : error;
  return !has_call_ && set_by_descriptor(dir_fd, name, mode);
}

}  // namespace frask
