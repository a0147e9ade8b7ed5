// path_exec_raw(), with a list of arguments as its callers have it.
#ifndef TESTS_SUPPORT_EXEC_RAW_H
#define TESTS_SUPPORT_EXEC_RAW_H

#include <stdarg.h>

#include "exec/forkexec.h"

namespace testsupport {

/// The arguments end with a null pointer.
inline int exec_raw(const char* path, ...) {
  va_list args;
  va_start(args, path);
  const int result = path_exec_raw(path, args);
  va_end(args);
  return result;
}

}  // namespace testsupport

#endif
