/* The part of a program whose system calls a test counts in strace's log. */
#ifndef TESTS_SUPPORT_COUNTED_PART_H
#define TESTS_SUPPORT_COUNTED_PART_H

#include <unistd.h>

/* Stands before that part and behind it. A program's start is not counted because it does not cost
   the same each time: the sanitizers read their own "/proc/self/maps" in it, in as many pieces as
   the places that memory was given make of it. */
static inline void counted_part_mark(void) {
  (void)getsid(0); /* no other code makes this call, and it leaves errno alone */
}

#endif
