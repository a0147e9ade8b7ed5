#include "error/asprintf_safe.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include "log/messlog.h"

char* asprintf_safe(const char* format, ...) {
  char* text = nullptr;
  va_list args;
  va_start(args, format);
  const int length = vasprintf(&text, format, args);
  va_end(args);
  if (length < 0) messlog2(1, 1, "Cannot allocate memory: %s", strerror(errno));
  return length < 0 ? nullptr : text;
}
