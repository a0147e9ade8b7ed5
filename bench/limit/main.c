/* The limits as a program, for strace and perf: one work, on the directories or the command given.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "limit.h"

static int set_perms(const char* top) {
  return limit_set_perms(top, 0, 0, 0644, 0755);
}

static int capture(char* const argv[]) {
  char* text = NULL;
  size_t length = 0;
  int status = 0;
  if (limit_capture(argv, &text, &length, &status) != 0) return -1;
  free(text);
  return status == 0 ? 0 : -1;
}

static int for_each(int (*work)(const char* top), char* const tops[]) {
  for (; *tops != NULL; ++tops) {
    if (work(*tops) == 0) continue;
    perror(*tops);
    return -1;
  }
  return 0;
}

int main(int argc, char** argv) {
  int result = 2;
  if (argc > 2 && strcmp(argv[1], "walk") == 0)
    result = for_each(limit_walk, argv + 2);
  else if (argc > 2 && strcmp(argv[1], "remove-tree") == 0)
    result = for_each(limit_remove_tree, argv + 2);
  else if (argc > 2 && strcmp(argv[1], "clean") == 0)
    result = for_each(limit_clean, argv + 2);
  else if (argc > 2 && strcmp(argv[1], "set-perms") == 0)
    result = for_each(set_perms, argv + 2);
  else if (argc > 2 && strcmp(argv[1], "capture") == 0)
    result = capture(argv + 2);
  else
    fputs("usage: limit walk|remove-tree|clean|set-perms DIRECTORY... | capture PATH ARGUMENT...\n",
          stderr);
  return result == -1 ? 1 : result;
}
