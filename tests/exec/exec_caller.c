/* Calls one routine, for tests that look at a process from outside. It is C11.
 *   exec_caller getout PROGRAM ...   captures and passes the text on
 *   exec_caller getouterr PROGRAM ... the same with the errors, which follow the text
 *   exec_caller fd PROGRAM ...       runs it with the descriptors of its own
 *   exec_caller popen COMMAND        shows the result and the text of a shell command
 *   exec_caller wait                 waits for a child that exits with 0 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "exec/forkexec.h"

static int capture(char** argv) {
  char* text = NULL;
  const int result = fork_execv_getout(&text, argv[0], argv);
  if (text != NULL) fputs(text, stdout);
  free(text);
  return result;
}

static int capture_both(char** argv) {
  char* text = NULL;
  char* errors = NULL;
  const int result = fork_execv_getouterr(&text, &errors, argv[0], argv);
  if (text != NULL) fputs(text, stdout);
  if (errors != NULL) fputs(errors, stdout);
  free(text);
  free(errors);
  return result;
}

static int show_command(const char* command) {
  char* text = NULL;
  const int result = popen_exec_getoutput(&text, command);
  printf("%d '%s'\n", result, text);
  free(text);
  return 0;
}

static int wait_for_child(void) {
  const int pid = fork();
  if (pid == 0) _exit(0);
  int status = 0;
  const int result = fork_exec_waitpid(pid, "child", &status);
  printf("result %d status %04x\n", result, (unsigned)status);
  return 0;
}

int main(int argc, char** argv) {
  closefrom(STDERR_FILENO + 1);
  if (argc >= 3 && strcmp(argv[1], "getout") == 0) return capture(argv + 2);
  if (argc >= 3 && strcmp(argv[1], "getouterr") == 0) return capture_both(argv + 2);
  if (argc >= 3 && strcmp(argv[1], "fd") == 0) return fork_execv_fd(-1, -1, argv[2], argv + 2);
  if (argc == 3 && strcmp(argv[1], "popen") == 0) return show_command(argv[2]);
  if (argc == 2 && strcmp(argv[1], "wait") == 0) return wait_for_child();
  return 95;
}
