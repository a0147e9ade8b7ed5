/* Stands in for an archive tool: tries each kind of node by each system call that makes one, and
 * each bit of a mode by each that sets one, and writes what came of it to "seen" in the working
 * directory. */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

static const struct {
  const char* name;
  mode_t type;
} kinds[] = {{"character", S_IFCHR}, {"block", S_IFBLK}, {"pipe", S_IFIFO}, {"file", S_IFREG}};

static void make_nodes(FILE* seen) {
  for (size_t i = 0; i < sizeof kinds / sizeof kinds[0]; ++i) {
    const mode_t mode = kinds[i].type | 0600;
    unlink("node");
    long made = syscall(SYS_mknodat, AT_FDCWD, "node", mode, makedev(0, 0));
    fprintf(seen, "%s mknodat: %s\n", kinds[i].name, made == 0 ? "made" : strerror(errno));
#ifdef SYS_mknod
    unlink("node");
    made = syscall(SYS_mknod, "node", mode, makedev(0, 0));
    fprintf(seen, "%s mknod: %s\n", kinds[i].name, made == 0 ? "made" : strerror(errno));
#endif
  }
}

static const char* const setters[] = {"fchmodat", "fchmodat2", "fchmod", "chmod"};

/* Newer machines have no chmod, older systems no fchmodat2: the setter before stands in. */
static long set_mode(size_t setter, int fd, mode_t mode) {
  enum { kFchmodat2 = 452 };
  switch (setter) {
    case 1:
      if (syscall(kFchmodat2, AT_FDCWD, "node", mode, AT_SYMLINK_NOFOLLOW) == 0) return 0;
      if (errno != ENOSYS) return -1;
      return syscall(SYS_fchmodat, AT_FDCWD, "node", mode);
#ifdef SYS_chmod
    case 3:
      return syscall(SYS_chmod, "node", mode);
#endif
    case 0:
      return syscall(SYS_fchmodat, AT_FDCWD, "node", mode);
    default:
      return syscall(SYS_fchmod, fd, mode);
  }
}

/* "chmod 0604: 0, now 0604": each bit beside those of the owner, from 0600. */
static void set_modes(FILE* seen) {
  unlink("node");
  const int fd = open("node", O_CREAT | O_RDWR, 0600);
  for (size_t setter = 0; setter < sizeof setters / sizeof setters[0]; ++setter)
    for (mode_t bit = 04000; bit != 0; bit >>= 1) {
      struct stat st = {0};
      const long result = set_mode(setter, fd, 0600 | bit);
      fstat(fd, &st);
      fprintf(seen, "%s %04o: %ld, now %04o\n", setters[setter], 0600 | bit, result,
              st.st_mode & 07777U);
      fchmod(fd, 0600);
    }
  close(fd);
}

int main(void) {
  FILE* seen = fopen("seen", "w");
  if (seen == NULL) return 1;
  make_nodes(seen);
  set_modes(seen);
  return fclose(seen) == 0 ? 0 : 1;
}
