// Follows the system calls of a child: brings about a race on purpose, while the child stands
// before a call, or changes what a call tells it.
#ifndef TESTS_SUPPORT_STOPPED_CHILD_H
#define TESTS_SUPPORT_STOPPED_CHILD_H

#include <functional>
#include <string>

#include "support/child.h"

namespace testsupport {

/// A place in what a child does: its `occurrence`-th call of a system call. Where `name` is given,
/// only calls count whose second argument is that name, as in openat() and its like.
struct Call {
  long number;
  std::string name;
  int occurrence = 1;
};

/// in_child(), with `meanwhile` run while the child stands before that call; it runs in a process
/// of its own, as root. A child that never comes to the call gives exit status 96.
Outcome in_child_stopped_at(const Call& call, const std::function<void()>& meanwhile,
                            const std::function<void()>& body);

/// in_child(), whose listings of directories tell the type of no entry, as on file systems that do
/// not know it. A child that lists nothing gives exit status 96.
Outcome in_child_without_entry_types(const std::function<void()>& body);

}  // namespace testsupport

#endif
