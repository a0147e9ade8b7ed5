/* Stands in for an archive tool: tries each kind of node by each system call that makes one, and
 * writes what came of it to "seen" in the working directory. */
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

int main(void) {
  FILE* seen = fopen("seen", "w");
  if (seen == NULL) return 1;
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
  return fclose(seen) == 0 ? 0 : 1;
}
