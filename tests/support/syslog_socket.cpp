#include "support/syslog_socket.h"

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <stdexcept>

namespace testsupport {
namespace {

constexpr size_t kDateLength = 15;
constexpr size_t kLargestDatagram = 65536;

[[noreturn]] void give_up(const char* what) {
  fprintf(stderr, "%s: %s\n", what, strerror(errno));
  _exit(97);
}

/// Everything is done by hand here: the child has no "/dev" but the one that it makes.
void move_into_own_dev(int log_socket) {
  if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) != 0)
    give_up("a mount namespace (root is needed)");
  if (mount("tmpfs", "/dev", "tmpfs", 0, "mode=0755") != 0) give_up("mounting tmpfs on /dev");
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  snprintf(address.sun_path, sizeof address.sun_path, "/dev/log");
  const auto* generic = static_cast<const sockaddr*>(static_cast<const void*>(&address));
  if (bind(log_socket, generic, sizeof address) != 0) give_up("binding /dev/log");
  const int console = open("/dev/console", O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (console < 0 || close(console) != 0) give_up("making /dev/console");
}

/// "<22>Oct  3 09:00:00 ident[4711]: text"
SyslogLine parse(const std::string& datagram) {
  SyslogLine line;
  const size_t end_of_priority = datagram.find('>');
  const size_t head = end_of_priority + 1 + kDateLength + 1;
  const size_t end_of_head = datagram.find(": ", head);
  if (datagram[0] != '<' || end_of_priority == std::string::npos ||
      end_of_head == std::string::npos)
    throw std::runtime_error("not a syslog line: " + datagram);
  line.priority = static_cast<int>(strtol(datagram.c_str() + 1, nullptr, 10));
  line.ident = datagram.substr(head, end_of_head - head);
  line.text = datagram.substr(end_of_head + 2);
  const size_t bracket = line.ident.find('[');
  if (bracket != std::string::npos) {
    line.pid = strtol(line.ident.c_str() + bracket + 1, nullptr, 10);
    line.ident.resize(bracket);
  }
  return line;
}

std::vector<SyslogLine> receive_all(int log_socket) {
  std::vector<SyslogLine> lines;
  std::string datagram(kLargestDatagram, '\0');
  for (;;) {
    const ssize_t n = recv(log_socket, datagram.data(), datagram.size(), MSG_DONTWAIT);
    if (n < 0) return lines;
    lines.push_back(parse(datagram.substr(0, static_cast<size_t>(n))));
  }
}

}  // namespace

bool operator==(const SyslogLine& a, const SyslogLine& b) {
  return a.priority == b.priority && a.ident == b.ident && a.pid == b.pid && a.text == b.text;
}

std::ostream& operator<<(std::ostream& stream, const SyslogLine& line) {
  return stream << "<" << line.priority << "> " << line.ident << "[" << line.pid
                << "]: " << line.text;
}

SyslogOutcome in_child_with_syslog(const std::function<void()>& body, const RunOptions& options) {
  const int log_socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (log_socket < 0) throw std::runtime_error("no socket for syslog");
  SyslogOutcome outcome;
  outcome.child = in_child(
      [&body, log_socket] {
        move_into_own_dev(log_socket);
        body();
      },
      options);
  outcome.lines = receive_all(log_socket);
  close(log_socket);
  return outcome;
}

}  // namespace testsupport
