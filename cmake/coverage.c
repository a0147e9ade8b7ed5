/*
 * Part of every program of the coverage build. A process that ends through _exit() or becomes
 * another program writes its counters first, and what hinders it from writing them goes
 * unmentioned: children without rights or descriptors are under test for what they say.
 */
#ifndef _GNU_SOURCE
#define _GNU_SOURCE
#endif
#include <fcntl.h>
#include <gcov.h>
#include <stdatomic.h>
#include <stdbool.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

/* Of ten thousand children that do the same the first hundred tell what there is to know. */
enum { MOST_CHILDREN = 100 };

static atomic_int* children; /* shared with them */

__attribute__((constructor)) static void share_the_count(void) {
  children =
      mmap(NULL, sizeof *children, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
}

/* gcov's own destructor has priority 100 and so comes next. The stream needs no descriptor. */
__attribute__((destructor(101))) static void be_silent(void) {
  static const cookie_io_functions_t discard;
  FILE* nowhere = fopencookie(NULL, "w", discard);
  if (nowhere != NULL) stderr = nowhere;
}

/*
 * The counter files are shared: one that is written half is lost for all. A process that a test has
 * made fail at a call that keeping them takes therefore does without.
 */
static bool able_to_keep(void) {
  static const char probe[] = "probe";
  char back[sizeof probe];
  const int file = open("/tmp", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  if (file < 0) return false;
  struct flock whole = {.l_type = F_WRLCK, .l_whence = SEEK_SET};
  const bool able = fcntl(file, F_SETLKW, &whole) == 0 &&
                    write(file, probe, sizeof probe) == sizeof probe &&
                    lseek(file, 0, SEEK_SET) == 0 && read(file, back, sizeof back) == sizeof back &&
                    ftruncate(file, 0) == 0;
  return close(file) == 0 && able;
}

static void keep_counters(void) {
  if (children == MAP_FAILED || atomic_fetch_add(children, 1) >= MOST_CHILDREN) return;
  if (!able_to_keep()) return;
  FILE* was = stderr;
  be_silent();
  __gcov_dump();
  __gcov_reset(); /* they go on from nothing where the exec fails */
  stderr = was;
}

void _exit(int status) {
  keep_counters();
  syscall(SYS_exit_group, status);
  __builtin_unreachable();
}

int execv(const char* path, char* const argv[]) {
  keep_counters();
  return execve(path, argv, environ);
}

int execvp(const char* file, char* const argv[]) {
  keep_counters();
  return execvpe(file, argv, environ);
}
