/* A program outside the tree, in C: it includes every C header and calls into most rooms. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "c_headers.h"

static int failures = 0;

static void check(int holds, const char* what) {
  if (holds) return;
  fprintf(stderr, "use_c: %s\n", what);
  ++failures;
}

static void use_strings(void) {
  char* text = asprintf_safe("%s-%d", "a", 7);
  check(strcmp(text, "a-7") == 0, "asprintf_safe");
  free(text);
  check(strcmp(idn_toascii("b\303\274cher.example"), "xn--bcher-kva.example") == 0, "idn_toascii");
  char line[] = "name=value ; note\n";
  strip_line(line);
  check(strcmp(line, "name=value") == 0, "strip_line");
}

static void use_tables(void) {
  check(strcmp(skeldir[0], "httpdocs") == 0, "skeldir");
  check(strcmp(theOxaConfNames[OXA_CONF_HTTPD_VHOSTS_D], "HTTPD_VHOSTS_D") == 0, "theOxaConfNames");
  check(adc_tar.type == ARCHIVE_TAR, "adc_tar");
}

static void use_processes(void) {
  char* output = NULL;
  check(fork_execl_getout(&output, "/bin/echo", "echo", "heard", (char*)0) == 0 && output != NULL &&
            strcmp(output, "heard\n") == 0,
        "fork_execl_getout");
  free(output);
  check(execute("exit 3") == 3, "execute");
}

int main(int argc, char** argv) {
  (void)argc;
  PROGNAME = argv[0];
  oxa_set_terminate();
  use_strings();
  use_tables();
  use_processes();
  return failures == 0 ? 0 : 1;
}
