#include "exec/descriptor_listing.h"

#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

enum { HIGHEST = 4096 };

static const char* access_mode(int fd) {
  switch (fcntl(fd, F_GETFL) & O_ACCMODE) {
    case O_RDONLY:
      return "r";
    case O_WRONLY:
      return "w";
    default:
      return "rw";
  }
}

void list_descriptors(char* text, size_t size) {
  size_t used = 0;
  text[0] = '\0';
  for (int fd = 0; fd <= HIGHEST; ++fd) {
    char link[64];
    char target[PATH_MAX];
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    const ssize_t length = readlink(link, target, sizeof target - 1);
    if (length < 0) continue;
    target[length] = '\0';
    const char* shown = strncmp(target, "pipe:", 5) == 0 ? "pipe" : target;
    const int wanted = snprintf(text + used, size - used, "%d %s %s\n", fd, shown, access_mode(fd));
    if (wanted < 0 || (size_t)wanted >= size - used) return;
    used += (size_t)wanted;
  }
}
