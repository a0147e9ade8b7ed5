// Not installed: what succeeds leaves errno as it was, for messlog2() prints any that it finds.
#ifndef FRASK_EXEC_KEEP_ERRNO_PRIVATE_H
#define FRASK_EXEC_KEEP_ERRNO_PRIVATE_H

#include <errno.h>

namespace frask {

/// Puts errno back to what it was.
class KeepErrno {
 public:
  KeepErrno() = default;
  KeepErrno(const KeepErrno&) = delete;
  KeepErrno& operator=(const KeepErrno&) = delete;
  ~KeepErrno() { errno = error_; }

 private:
  int error_ = errno;
};

}  // namespace frask

#endif
