/*
 * The limits that the benchmarks compare with: the same work by the system calls that it cannot do
 * without, and nothing else. Each routine gives 0, or -1 at the first call that fails.
 */
#ifndef BENCH_LIMIT_LIMIT_H
#define BENCH_LIMIT_LIMIT_H

#include <stddef.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Looks at every entry: one openat() and its getdents64() a directory, one fstatat() an entry. */
int limit_walk(const char* top);

/** limit_walk() with one unlinkat() an entry. */
int limit_remove_tree(const char* top);

/** Lists all below `top`; then looks at each entry again with one fstatat(), and removes it. */
int limit_clean(const char* top);

/** Two walks, with one fchownat() and one fchmodat2() an entry. Links are left alone. */
int limit_set_perms(const char* top, uid_t owner, gid_t group, mode_t file_mode, mode_t dir_mode);

/**
 * Copies all below `skeleton` into the directory `host`, in the order of paths, with `domain` in
 * the place of "@domain_name@". Looks at both sides, and fails where something exists.
 */
int limit_deploy(const char* skeleton, const char* host, const char* domain, gid_t group);

/**
 * Runs a program by posix_spawn() and reads its standard output into a growing buffer.
 *
 * @param text    receives a block that the caller frees with free()
 * @param status  receives the raw wait status
 */
int limit_capture(char* const argv[], char** text, size_t* length, int* status);

#ifdef __cplusplus
}
#endif

#endif
