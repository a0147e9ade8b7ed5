#include <fcntl.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include "limit.h"

static int spawn_onto(int output, char* const argv[], pid_t* pid) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
  const int error = posix_spawn(pid, argv[0], &actions, NULL, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  return error == 0 ? 0 : -1;
}

static int read_all(int fd, char** text, size_t* length) {
  size_t room = 4096;
  ssize_t got = 0;
  *length = 0;
  *text = malloc(room);
  while (*text != NULL && (got = read(fd, *text + *length, room - *length)) > 0) {
    *length += (size_t)got;
    if (room - *length > 2048) continue;
    char* grown = realloc(*text, room *= 2);
    if (grown == NULL) free(*text);
    *text = grown;
  }
  return *text != NULL && got == 0 ? 0 : -1;
}

int limit_capture(char* const argv[], char** text, size_t* length, int* status) {
  int ends[2];
  pid_t pid = -1;
  if (pipe2(ends, O_CLOEXEC) != 0) return -1;
  const int spawned = spawn_onto(ends[1], argv, &pid);
  close(ends[1]);
  const int taken = spawned == 0 ? read_all(ends[0], text, length) : -1;
  close(ends[0]);
  if (spawned != 0 || waitpid(pid, status, 0) != pid) return -1;
  return taken;
}
