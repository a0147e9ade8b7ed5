#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include "conf/oxaconf.h"
#include "log/messlog.h"
#include "tool/command_line.h"
#include "tool/hardening.private.h"
#include "tool/modes.private.h"
#include "tool/options.private.h"

namespace {

/// Whoever starts the tool may have closed a standard descriptor. The next file or connection that
/// is opened would get its number, and reports and the answer would be written into that.
void occupy_standard_descriptors() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
    if (fcntl(fd, F_GETFD) < 0 && open("/dev/null", O_RDWR) != fd)
      messlog2(1, 1, "Unable to open /dev/null: %s", strerror(errno));
  errno = 0;  // that one was closed is no error
}

void become_root() {
  if (setuid(0) != 0 || setgid(0) != 0)
    messlog2(1, 1, "Unable to get ROOT permissions: %s", strerror(errno));
}

}  // namespace

int main(int argc, char** argv) {
  PROGNAME = argv[0];
  occupy_standard_descriptors();
  wido_cpp_init();
  signal(SIGCHLD, SIG_DFL);  // a caller that ignores it would leave the tool without any status
  const Options options = parse_options(argc, argv);
  check_unprocessed_parameters(argc, optind, argv);
  static_cast<void>(autoprepend());  // without the file the compiled-in defaults hold
  become_root();
  harden_process();
  run_mode(options);
}
