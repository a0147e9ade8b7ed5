// Not installed: the change of a mode that follows no link.
#ifndef FRASK_FS_MODE_SETTER_PRIVATE_H
#define FRASK_FS_MODE_SETTER_PRIVATE_H

#include <sys/types.h>

namespace frask {

/// Sets modes by fchmodat2(2), which Linux has since 6.6 and which takes one system call. Where it
/// is missing, or a filter that is older than it refuses it (EPERM), each change takes three and a
/// descriptor, and "/proc"; the call is then not tried again.
class ModeSetter {
 public:
  /// False with errno set on failure (EOPNOTSUPP for a link, ENOENT for an entry that is gone);
  /// errno is otherwise left alone.
  bool set(int dir_fd, const char* name, mode_t mode);

 private:
  bool has_call_ = true;
};

}  // namespace frask

#endif
