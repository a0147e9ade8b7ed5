/*
 * launcher PROGRAM [ARGUMENT...]: runs a program and writes its wait status and the peak of its
 * memory in KiB to descriptor 3.
 *
 * The kernel takes what a process had in memory before execve() into that peak, so that a small
 * process, and not the test, has to start what is measured.
 */
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

enum { kReport = 3 };

/* Without stdio's streams: nothing is to be written twice or flushed late. */
static int report(int status, long peak) {
  char line[64];
  const int length = snprintf(line, sizeof line, "%d %ld\n", status, peak);
  return write(kReport, line, (size_t)length) == length ? 0 : 1;
}

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  const pid_t pid = fork();
  if (pid < 0) return 3;
  if (pid == 0) {
    close(kReport);
    execv(argv[1], argv + 1);
    _exit(127);
  }
  int status = 0;
  struct rusage usage;
  memset(&usage, 0, sizeof usage);
  if (wait4(pid, &status, 0, &usage) != pid) return 4;
  return report(status, usage.ru_maxrss);
}
