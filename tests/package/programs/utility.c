/* Runs the tool as the panel's programs do: by its name below the product root. */
#include <exec/forkexec.h>
#include <log/messlog.h>

int main(int argc, char** argv) {
  (void)argc;
  PROGNAME = argv[0];
  return util_exec("tembrix", "--test-support", "tgz", (char*)0);
}
