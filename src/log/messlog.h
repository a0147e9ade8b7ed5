/**
 * @file
 * The message log: the way in which every plain routine reports, and in which the tool ends when it
 * cannot go on.
 */
#ifndef FRASK_LOG_MESSLOG_H
#define FRASK_LOG_MESSLOG_H

#include <stdarg.h>

#include "log/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * The program's argv[0], set by main; its base name and ": " stand before every message. NULL until
 * then, and messages have no prefix. The string stays its owner's.
 */
FRASK_API extern const char* PROGNAME;

/**
 * Formats a message and writes it to standard error and to standard output.
 *
 * When errno is nonzero on entry, "\nSystem error <errno>: <text>" follows the message, whether or
 * not the message concerns a system call: clear errno first for a plain one. A message of such
 * length that the whole suffix does not fit into 4096 bytes with it is written without the suffix.
 * errno is on return what it was on entry.
 *
 * @param exit_code  0 to return; any other value ends the process through exit() with it
 * @param level      handed on to ex_messlog(); nothing depends on it
 * @param format     as for printf(3); the message must not be empty
 */
FRASK_API void messlog2(int exit_code, int level, const char* format, ...) FRASK_PRINTF(3, 4);

/** messlog2() with the values in a va_list, which is indeterminate afterwards. */
FRASK_API void vmesslog2(int exit_code, int level, const char* format, va_list args)
    FRASK_PRINTF(3, 0);

/**
 * Writes a finished text, with the prefix and, unless it ends in one, a newline, to standard error
 * and then to standard output; each is flushed. The text must not be empty.
 *
 * @return 0 when exit_code is 0; otherwise the process ends through exit() with that code
 */
FRASK_API int ex_messlog(const char* text, int exit_code, int level);

#ifdef __cplusplus
}
#endif

#endif
