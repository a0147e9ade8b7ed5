/* The walk that the limits have in common. */
#ifndef BENCH_LIMIT_WALK_PRIVATE_H
#define BENCH_LIMIT_WALK_PRIVATE_H

#include <sys/stat.h>

/** What is done to an entry, to a directory after what it holds. Gives 0 or -1. */
typedef int (*WalkAction)(int dir_fd, const char* name, mode_t mode, const void* what);

/** Walks `top` and all below it, never through a link. Gives 0, or -1 at the first failure. */
int walk(const char* top, WalkAction action, const void* what);

#endif
