#include <dirent.h>
#include <fcntl.h>
#include <stdalign.h>
#include <string.h>
#include <unistd.h>

#include "limit.h"
#include "walk.private.h"

static int visit(int dir_fd, const char* name, WalkAction action, const void* what);

static int visit_all(int fd, WalkAction action, const void* what) {
  alignas(struct dirent64) char records[32768];
  ssize_t filled = 0;
  while ((filled = getdents64(fd, records, sizeof records)) > 0) {
    ssize_t at = 0;
    while (at < filled) {
      const struct dirent64* entry = (const void*)(records + at);
      at += entry->d_reclen;
      if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
      if (visit(fd, entry->d_name, action, what) != 0) return -1;
    }
  }
  return (int)filled;
}

static int visit(int dir_fd, const char* name, WalkAction action, const void* what) {
  struct stat st;
  if (fstatat(dir_fd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) return -1;
  if (S_ISDIR(st.st_mode)) {
    const int fd = openat(dir_fd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return -1;
    const int result = visit_all(fd, action, what);
    close(fd);
    if (result != 0) return -1;
  }
  return action(dir_fd, name, st.st_mode, what);
}

int walk(const char* top, WalkAction action, const void* what) {
  return visit(AT_FDCWD, top, action, what);
}

static int look(int dir_fd, const char* name, mode_t mode, const void* what) {
  (void)dir_fd, (void)name, (void)mode, (void)what;
  return 0;
}

int limit_walk(const char* top) {
  return walk(top, look, NULL);
}
