#include <errno.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "limit.h"
#include "walk.private.h"

#ifdef SYS_fchmodat2
enum { kFchmodat2 = SYS_fchmodat2 };
#else
enum { kFchmodat2 = 452 }; /* the number is younger than the C library's headers */
#endif

struct Owners {
  uid_t owner;
  gid_t group;
};

struct Modes {
  mode_t file;
  mode_t dir;
};

static int change_owner(int dir_fd, const char* name, mode_t mode, const void* what) {
  const struct Owners* wanted = what;
  if (S_ISLNK(mode)) return 0;
  return fchownat(dir_fd, name, wanted->owner, wanted->group, AT_SYMLINK_NOFOLLOW);
}

static int change_mode(int dir_fd, const char* name, mode_t mode, const void* what) {
  const struct Modes* wanted = what;
  const mode_t changed = S_ISDIR(mode) ? wanted->dir : wanted->file;
  if (S_ISLNK(mode)) return 0;
  const long result = syscall(kFchmodat2, dir_fd, name, changed, AT_SYMLINK_NOFOLLOW);
  if (result == 0 || errno != ENOSYS) return (int)result;
  return fchmodat(dir_fd, name, changed, 0); /* what an older kernel does in one call */
}

int limit_set_perms(const char* top, uid_t owner, gid_t group, mode_t file_mode, mode_t dir_mode) {
  const struct Owners owners = {owner, group};
  const struct Modes modes = {file_mode, dir_mode};
  return walk(top, change_owner, &owners) == 0 && walk(top, change_mode, &modes) == 0 ? 0 : -1;
}
