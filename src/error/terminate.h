/**
 * @file
 * How a program ends when an exception escapes it: one line on standard error, and status 1.
 */
#ifndef FRASK_ERROR_TERMINATE_H
#define FRASK_ERROR_TERMINATE_H

#include "log/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Makes frask::terminateByExceptionUnsafe() the process's terminate handler. */
FRASK_API void oxa_set_terminate(void);

#ifdef __cplusplus
}

namespace frask {

/**
 * Writes "Unexpected error: <what()>\n" for a std::exception in flight, "Unexpected error\n" for
 * anything else, to standard error and ends the process through exit(1): static destructors and
 * atexit() handlers run. A terminate() on the way, from what() or from one of those, aborts.
 */
[[noreturn]] FRASK_API void terminateByExceptionUnsafe();

}  // namespace frask
#endif

#endif
