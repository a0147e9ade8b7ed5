// What scripts/memcheck must notice: makes the named mistake, and ends with 0 all the same.
//   faulty none | uninitialised | overrun | leak | in-child | in-program | before-program | hang
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

static volatile int seen;

static void read_uninitialised(void) {
  int* volatile value = malloc(sizeof *value);
  if (value == NULL) return;
  seen = *value == 4711 ? 1 : 2;
  free(value);
}

static void read_past_the_end(void) {
  char* volatile text = calloc(4, 1);
  if (text == NULL) return;
  seen = text[4];
  free(text);
}

static void leak(void) {
  void* volatile lost = malloc(7);
  lost = NULL;
  seen = lost == NULL;
}

/// The mistake of a forked child, and of the program that it becomes, does not reach the result.
static int in_child(const char* program, const char* mistake) {
  const pid_t child = fork();
  if (child == 0) {
    if (strcmp(mistake, "none") == 0) read_uninitialised();
    if (program != NULL) execl(program, program, mistake, (char*)NULL);
    _exit(0);
  }
  return child > 0 && waitpid(child, NULL, 0) == child ? 0 : 1;
}

int main(int argc, char** argv) {
  const char* mistake = argc == 2 ? argv[1] : "";
  if (strcmp(mistake, "none") == 0) return 0;
  if (strcmp(mistake, "in-child") == 0) return in_child(NULL, "none");
  if (strcmp(mistake, "in-program") == 0) return in_child(argv[0], "uninitialised");
  if (strcmp(mistake, "before-program") == 0) return in_child(argv[0], "none");
  if (strcmp(mistake, "uninitialised") == 0)
    read_uninitialised();
  else if (strcmp(mistake, "overrun") == 0)
    read_past_the_end();
  else if (strcmp(mistake, "leak") == 0)
    leak();
  else if (strcmp(mistake, "hang") == 0)
    pause();
  else
    return 2;
  return 0;
}
