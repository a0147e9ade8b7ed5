// What a child process sends to syslog, received through a socket of our own.
#ifndef TESTS_SUPPORT_SYSLOG_SOCKET_H
#define TESTS_SUPPORT_SYSLOG_SOCKET_H

#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "support/child.h"

namespace testsupport {

/// One datagram, taken apart. The date is left out.
struct SyslogLine {
  int priority = -1;  ///< with the facility
  std::string ident;
  long pid = 0;  ///< 0 where the line has none
  std::string text;
};

bool operator==(const SyslogLine& a, const SyslogLine& b);
std::ostream& operator<<(std::ostream& stream, const SyslogLine& line);

struct SyslogOutcome {
  Outcome child;
  std::vector<SyslogLine> lines;  ///< in the order in which they were sent
};

/// Runs `body` as in_child() does, with a "/dev" of the child's own in memory: "/dev/log" is a
/// datagram socket, "/dev/console" an empty file, and there is nothing else. At most ten lines,
/// since nobody reads before the child has ended. Needs root.
SyslogOutcome in_child_with_syslog(const std::function<void()>& body,
                                   const RunOptions& options = {});

}  // namespace testsupport

#endif
