/**
 * @file
 * The utility log: two replaceable entry points that take a syslog priority. They write to the
 * terminal until frask_log_init() points them at syslog. Nothing here is locked; set it up once, at
 * start-up.
 */
#ifndef FRASK_LOG_UTILITY_LOG_H
#define FRASK_LOG_UTILITY_LOG_H

#include <stdarg.h>

#include "log/api.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
  /** The bit of LogOpts that puts the trace identifier in front of syslog lines; never passed on.
   */
  FRASK_LOG_TRACE = 0x40
};

/** @{ */
/**
 * The entry points that all callers use. priority is syslog's, 0 (emergency) to 7 (debug), and may
 * carry a facility: such a value is above every LogLevel, so it is never written to a terminal,
 * while syslog files it under its facility and level.
 */
FRASK_API extern void (*frask_log)(int priority, const char* format, ...) FRASK_PRINTF(2, 3);
FRASK_API extern void (*frask_logv)(int priority, const char* format, va_list args)
    FRASK_PRINTF(2, 0);
/** @} */

/** NULL or "console" (standard error and standard output), or "stderr"; not copied. */
FRASK_API extern const char* LogLocation;
/** The highest priority that is still written: 6 at first. */
FRASK_API extern int LogLevel;
/** openlog() option bits and FRASK_LOG_TRACE; LOG_PID at first. */
FRASK_API extern unsigned int LogOpts;
/** The facility for openlog(); LOG_MAIL at first. */
FRASK_API extern int LogFacility;
/** The syslog identity, at most 63 characters. syslog() keeps a pointer to it. */
FRASK_API extern char LogIdent[64];
/** What FRASK_LOG_TRACE puts in front of every syslog line, at most 63 characters. */
FRASK_API extern char LogTraceId[64];

/**
 * Writes a line to the terminal as LogLocation says: NULL or "console" both streams, "stderr"
 * standard error alone (compared without regard to case), any other text nothing. A priority above
 * LogLevel writes nothing.
 */
/* NOLINTNEXTLINE(bugprone-reserved-identifier): the name that the panel's tools link to */
FRASK_API void _frask_utility_log(int priority, const char* format, ...) FRASK_PRINTF(2, 3);
/** _frask_utility_log() with the values in a va_list. */
/* NOLINTNEXTLINE(bugprone-reserved-identifier) */
FRASK_API void _frask_utility_logv(int priority, const char* format, va_list args)
    FRASK_PRINTF(2, 0);

/**
 * Hands a line to syslog(). With FRASK_LOG_TRACE and a trace identifier, "<identifier>: " stands in
 * front and the line is cut to 8191 bytes.
 */
/* NOLINTNEXTLINE(bugprone-reserved-identifier) */
FRASK_API void _frask_utility_syslog(int priority, const char* format, ...) FRASK_PRINTF(2, 3);
/** _frask_utility_syslog() with the values in a va_list. */
/* NOLINTNEXTLINE(bugprone-reserved-identifier) */
FRASK_API void _frask_utility_syslogv(int priority, const char* format, va_list args)
    FRASK_PRINTF(2, 0);

/**
 * Chooses where frask_log and frask_logv write, and the level.
 *
 * With FRASK_LOG_TRACE among the options, syslog lines carry the value of the environment variable
 * "FRASK_LOG_TRACE_ID"; where that is unset or empty it becomes the capital initial of the
 * program's name and the process id, and is exported for the child processes.
 *
 * @param location  a terminal location (see LogLocation; it must outlive the log), or NULL for
 *                  syslog
 * @param level     as for frask_log_set_level()
 * @param facility  syslog facility
 * @param options   syslog only: openlog() options, of which LOG_PID (always set), LOG_CONS and
 *                  LOG_PERROR are passed on, and FRASK_LOG_TRACE
 * @param ident     syslog only: identity, of which 63 characters are kept; NULL for the program's
 *                  short invocation name
 */
FRASK_API void frask_log_init(const char* location, int level, int facility, unsigned int options,
                              const char* ident);

/**
 * Sets LogLevel to level & 7. With bit 8 in level, the environment variable "FRASK_LOG_LEVEL", when
 * it is one digit from 0 to 7, can raise it further, never lower it. In syslog mode, setlogmask()
 * is called to match.
 */
FRASK_API void frask_log_set_level(int level);

/** @return LogOpts */
FRASK_API unsigned int frask_log_get_opts(void);

#ifdef __cplusplus
}
#endif

#endif
