/**
 * @file
 * Formatting into new memory, with the failure reported.
 */
#ifndef FRASK_ERROR_ASPRINTF_SAFE_H
#define FRASK_ERROR_ASPRINTF_SAFE_H

#include "log/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Formats as printf(3) does into newly allocated memory.
 *
 * A failed formatting (memory, or a result longer than INT_MAX) is reported as "Cannot allocate
 * memory: <system text>" through messlog2() with exit code 1, so the process ends.
 *
 * @return the text, which the caller frees with free(); never NULL as long as that report ends the
 *         process
 */
FRASK_API char* asprintf_safe(const char* format, ...) FRASK_PRINTF(1, 2);

#ifdef __cplusplus
}
#endif

#endif
