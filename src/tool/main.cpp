#include <errno.h>
#include <getopt.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include "conf/oxaconf.h"
#include "log/messlog.h"
#include "tool/command_line.h"
#include "tool/modes.private.h"
#include "tool/options.private.h"

namespace {

void become_root() {
  if (setuid(0) != 0 || setgid(0) != 0)
    messlog2(1, 1, "Unable to get ROOT permissions: %s", strerror(errno));
}

}  // namespace

int main(int argc, char** argv) {
  PROGNAME = argv[0];
  wido_cpp_init();
  signal(SIGCHLD, SIG_DFL);  // a caller that ignores it would leave the tool without any status
  const Options options = parse_options(argc, argv);
  check_unprocessed_parameters(argc, optind, argv);
  static_cast<void>(autoprepend());  // without the file the compiled-in defaults hold
  become_root();
  run_mode(options);
}
