#ifndef TESTS_LOG_CALL_LOGV_H
#define TESTS_LOG_CALL_LOGV_H

#include <stdarg.h>

#include "log/utility_log.h"

/// frask_logv() with what stands behind the format.
inline void call_logv(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  frask_logv(priority, format, args);
  va_end(args);
}

#endif
