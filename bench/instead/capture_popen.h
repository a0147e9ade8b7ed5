/* Captured output as most programs get it. */
#ifndef BENCH_INSTEAD_CAPTURE_POPEN_H
#define BENCH_INSTEAD_CAPTURE_POPEN_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Runs a shell command by popen() and reads its output into a growing buffer.
 *
 * @param text    receives a block that the caller frees with free()
 * @param status  receives pclose()'s result
 * @return 0, or -1
 */
int capture_popen(const char* command, char** text, size_t* length, int* status);

#ifdef __cplusplus
}
#endif

#endif
