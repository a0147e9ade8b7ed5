/**
 * @file
 * What the panel's command-line tools share at start-up.
 */
#ifndef FRASK_TOOL_COMMAND_LINE_H
#define FRASK_TOOL_COMMAND_LINE_H

#include "log/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Sets the library up for a program: installs the terminate handler (oxa_set_terminate()). */
FRASK_API void wido_cpp_init(void);

/**
 * Ends the process with status 1 and a report when arguments are left over behind the options, that
 * is, when argc differs from getopt's index. argv is not looked at.
 */
FRASK_API void check_unprocessed_parameters(int argc, int optind, char** argv);

/** Ends the process with status 1 and a report when a required value is NULL or empty. */
FRASK_API void check_parameter(int required, const char* value, const char* name);

/** Prints the usage text of tembrix and a newline on standard output. */
FRASK_API void showUsage(void);

#ifdef __cplusplus
}
#endif

#endif
