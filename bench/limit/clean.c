#include <dirent.h>
#include <fcntl.h>
#include <stdalign.h>
#include <stdbool.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "limit.h"

struct Entry {
  struct Entry* next;
  struct Entry* below; /* of a directory that is not empty */
  bool is_directory;
  char name[];
};

static void forget(struct Entry* entry) {
  while (entry != NULL) {
    struct Entry* next = entry->next;
    forget(entry->below);
    free(entry);
    entry = next;
  }
}

static int list(int dir_fd, const char* name, struct Entry** entries);

static int add_entry(int dir_fd, const struct dirent64* listed, struct Entry** entries) {
  const size_t length = strlen(listed->d_name) + 1;
  struct Entry* entry = malloc(sizeof *entry + length);
  if (entry == NULL) return -1;
  entry->next = *entries;
  entry->below = NULL;
  entry->is_directory = listed->d_type == DT_DIR;
  /* NOLINTNEXTLINE(clang-analyzer-security.insecureAPI.*): the C library has no memcpy_s() */
  memcpy(entry->name, listed->d_name, length);
  *entries = entry;
  return entry->is_directory ? list(dir_fd, entry->name, &entry->below) : 0;
}

static int list_all(int fd, struct Entry** entries) {
  alignas(struct dirent64) char records[32768];
  ssize_t filled = 0;
  while ((filled = getdents64(fd, records, sizeof records)) > 0) {
    ssize_t at = 0;
    while (at < filled) {
      const struct dirent64* listed = (const void*)(records + at);
      at += listed->d_reclen;
      if (strcmp(listed->d_name, ".") == 0 || strcmp(listed->d_name, "..") == 0) continue;
      if (add_entry(fd, listed, entries) != 0) return -1;
    }
  }
  return (int)filled;
}

static int list(int dir_fd, const char* name, struct Entry** entries) {
  const int fd = openat(dir_fd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return -1;
  const int result = list_all(fd, entries);
  close(fd);
  return result;
}

static int remove_entries(int dir_fd, const char* name, const struct Entry* entry) {
  struct stat st;
  const int fd = openat(dir_fd, name, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return -1;
  int result = 0;
  for (; entry != NULL && result == 0; entry = entry->next) {
    if (entry->below != NULL) result = remove_entries(fd, entry->name, entry->below);
    if (result == 0) result = fstatat(fd, entry->name, &st, AT_SYMLINK_NOFOLLOW);
    if (result == 0) result = unlinkat(fd, entry->name, entry->is_directory ? AT_REMOVEDIR : 0);
  }
  close(fd);
  return result;
}

int limit_clean(const char* top) {
  struct Entry* entries = NULL;
  int result = list(AT_FDCWD, top, &entries);
  if (result == 0) result = remove_entries(AT_FDCWD, top, entries);
  forget(entries);
  return result;
}
