/**
 * @file
 * The two macros that every header of the library needs.
 */
#ifndef FRASK_LOG_API_H
#define FRASK_LOG_API_H

/** Marks what the shared library exports; everything else stays hidden in it. */
#define FRASK_API __attribute__((visibility("default")))

/** Lets the compiler check a printf format: the positions of the format and of the first value. */
#define FRASK_PRINTF(format_index, first_value) \
  __attribute__((format(printf, format_index, first_value)))

#endif
