#include <dirent.h>
#include <fcntl.h>
#include <stdalign.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "limit.h"

/* The paths of a tree below its top, one block of memory each. */
typedef struct Paths {
  char** all;
  size_t count;
  size_t capacity;
} Paths;

static int add(Paths* paths, const char* directory, size_t length, const char* name) {
  if (paths->count == paths->capacity) {
    paths->capacity = paths->capacity * 2 + 1024;
    char** grown = realloc(paths->all, paths->capacity * sizeof(char*));
    if (grown == NULL) return -1;
    paths->all = grown;
  }
  const size_t name_size = strlen(name) + 1;
  char* path = malloc(length + 1 + name_size);
  if (path == NULL) return -1;
  char* end = mempcpy(path, directory, length);
  if (length > 0) *end++ = '/';
  mempcpy(end, name, name_size);
  paths->all[paths->count++] = path;
  return 0;
}

static int list(int parent_fd, const char* name, const char* path, Paths* paths) {
  const int fd = openat(parent_fd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return -1;
  alignas(struct dirent64) char records[32768];
  ssize_t filled = 0;
  while ((filled = getdents64(fd, records, sizeof records)) > 0) {
    ssize_t at = 0;
    while (at < filled) {
      const struct dirent64* entry = (const void*)(records + at);
      at += entry->d_reclen;
      if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
      if (add(paths, path, strlen(path), entry->d_name) != 0) return -1;
      if (entry->d_type != DT_DIR) continue;
      if (list(fd, entry->d_name, paths->all[paths->count - 1], paths) != 0) return -1;
    }
  }
  close(fd);
  return (int)filled;
}

static int rank(unsigned char byte) {
  return byte == '/' ? 1 : byte == '\0' ? 0 : byte + 1;
}

static int compare(const void* left, const void* right) {
  const char* a = *(char* const*)left;
  const char* b = *(char* const*)right;
  while (*a == *b && *a != '\0') ++a, ++b;
  return rank((unsigned char)*a) - rank((unsigned char)*b);
}

/* A side of the copy: its top, and the directory of the entry in hand. */
typedef struct Side {
  int top;
  int parent;
} Side;

static int enter(Side* side, const char* directory) {
  if (side->parent != side->top) close(side->parent);
  side->parent = *directory == '\0'
                     ? side->top
                     : openat(side->top, directory, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  return side->parent < 0 ? -1 : 0;
}

static int set_mode_and_group(int fd, mode_t mode, gid_t group) {
  if (fchmod(fd, mode & 07777) != 0) return -1;
  if (fchown(fd, (uid_t)-1, group) != 0) return -1;
  return close(fd);
}

static int read_whole(int fd, char* text, size_t size) {
  size_t filled = 0;
  while (filled < size) {
    const ssize_t got = read(fd, text + filled, size - filled);
    if (got <= 0) return -1;
    filled += (size_t)got;
  }
  return 0;
}

static int write_whole(int fd, const char* text, size_t size) {
  while (size > 0) {
    const ssize_t written = write(fd, text, size);
    if (written < 0) return -1;
    text += written;
    size -= (size_t)written;
  }
  return 0;
}

/* Two blocks that are used for every file. */
typedef struct Buffers {
  char* text;
  size_t text_size;
  char* replaced;
  size_t replaced_size;
} Buffers;

static int reserve(char** block, size_t* size, size_t wanted) {
  if (*block != NULL && wanted <= *size) return 0;
  free(*block);
  *block = malloc(wanted);
  *size = *block == NULL ? 0 : wanted;
  return *block == NULL ? -1 : 0;
}

static int write_replaced(int fd, Buffers* buffers, size_t size, const char* name) {
  static const char placeholder[] = "@domain_name@";
  const size_t length = sizeof placeholder - 1;
  const char* found = memmem(buffers->text, size, placeholder, length);
  if (found == NULL) return write_whole(fd, buffers->text, size);

  const size_t name_length = strlen(name);
  const size_t most = 1 + size + size / length * (name_length > length ? name_length - length : 0);
  if (reserve(&buffers->replaced, &buffers->replaced_size, most) != 0) return -1;
  const char* at = buffers->text;
  const char* end = at + size;
  char* to = buffers->replaced;
  for (; found != NULL; found = memmem(at, (size_t)(end - at), placeholder, length)) {
    to = mempcpy(to, at, (size_t)(found - at));
    to = mempcpy(to, name, name_length);
    at = found + length;
  }
  to = mempcpy(to, at, (size_t)(end - at));
  return write_whole(fd, buffers->replaced, (size_t)(to - buffers->replaced));
}

static int copy_file(int from_dir, int to_dir, const char* name, const struct stat* st, gid_t group,
                     const char* domain, Buffers* buffers) {
  const size_t size = (size_t)st->st_size;
  const int from = openat(from_dir, name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  const int to = openat(to_dir, name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, st->st_mode);
  if (from < 0 || to < 0) return -1;
  if (reserve(&buffers->text, &buffers->text_size, size + 1) != 0) return -1;
  if (read_whole(from, buffers->text, size) != 0) return -1;
  if (write_replaced(to, buffers, size, domain) != 0) return -1;
  close(from);
  return set_mode_and_group(to, st->st_mode, group);
}

static int copy_directory(int to_dir, const char* name, const struct stat* st, gid_t group) {
  if (mkdirat(to_dir, name, 0755) != 0) return -1;
  const int made = openat(to_dir, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  return made < 0 ? -1 : set_mode_and_group(made, st->st_mode, group);
}

static int copy_all(const Paths* paths, Side from, Side to, const char* domain, gid_t group,
                    Buffers* buffers) {
  const char* present = "";
  size_t present_length = 0;
  for (size_t i = 0; i < paths->count; ++i) {
    char* path = paths->all[i];
    char* slash = strrchr(path, '/');
    const size_t length = slash == NULL ? 0 : (size_t)(slash - path);
    const char* name = slash == NULL ? path : slash + 1;
    if (length != present_length || memcmp(path, present, length) != 0) {
      if (slash != NULL) *slash = '\0';
      if (enter(&from, slash ? path : "") != 0 || enter(&to, slash ? path : "") != 0) return -1;
      present = path;
      present_length = length;
    }
    struct stat there;
    struct stat st;
    if (fstatat(to.parent, name, &there, AT_SYMLINK_NOFOLLOW) == 0) return -1;
    if (fstatat(from.parent, name, &st, AT_SYMLINK_NOFOLLOW) != 0) return -1;
    const int result = S_ISDIR(st.st_mode)
                           ? copy_directory(to.parent, name, &st, group)
                           : copy_file(from.parent, to.parent, name, &st, group, domain, buffers);
    if (result != 0) return -1;
  }
  return enter(&from, "") == 0 ? enter(&to, "") : -1;
}

static int copy_listed(const Paths* paths, const char* skeleton, const char* host,
                       const char* domain, gid_t group) {
  const int from = open(skeleton, O_PATH | O_DIRECTORY | O_CLOEXEC);
  const int to = open(host, O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (from < 0 || to < 0) return -1;
  Buffers buffers = {NULL, 0, NULL, 0};
  const int result = copy_all(paths, (Side){from, from}, (Side){to, to}, domain, group, &buffers);
  free(buffers.text), free(buffers.replaced);
  close(from), close(to);
  return result;
}

int limit_deploy(const char* skeleton, const char* host, const char* domain, gid_t group) {
  Paths paths = {NULL, 0, 0};
  int result = list(AT_FDCWD, skeleton, "", &paths);
  if (paths.count > 0) qsort(paths.all, paths.count, sizeof(char*), compare);
  if (result == 0) result = copy_listed(&paths, skeleton, host, domain, group);
  for (size_t i = 0; i < paths.count; ++i) free(paths.all[i]);
  free(paths.all);
  return result;
}
