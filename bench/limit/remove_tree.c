#include <fcntl.h>
#include <stddef.h>
#include <unistd.h>

#include "limit.h"
#include "walk.private.h"

static int remove_entry(int dir_fd, const char* name, mode_t mode, const void* what) {
  (void)what;
  return unlinkat(dir_fd, name, S_ISDIR(mode) ? AT_REMOVEDIR : 0);
}

int limit_remove_tree(const char* top) {
  return walk(top, remove_entry, NULL);
}
