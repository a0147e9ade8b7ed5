#include "capture_popen.h"

#include <stdio.h>
#include <stdlib.h>

static int read_all(FILE* stream, char** text, size_t* length) {
  size_t room = 4096;
  *length = 0;
  *text = malloc(room);
  while (*text != NULL) {
    const size_t got = fread(*text + *length, 1, room - *length, stream);
    *length += got;
    if (got == 0) return ferror(stream) ? -1 : 0;
    if (*length < room) continue;
    char* grown = realloc(*text, room *= 2);
    if (grown == NULL) free(*text);
    *text = grown;
  }
  return -1;
}

int capture_popen(const char* command, char** text, size_t* length, int* status) {
  FILE* stream = popen(command, "r");
  if (stream == NULL) return -1;
  const int taken = read_all(stream, text, length);
  *status = pclose(stream);
  return *status == -1 ? -1 : taken;
}
