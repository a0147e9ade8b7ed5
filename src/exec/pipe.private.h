// Not installed: a pipe to or from a child.
#ifndef FRASK_EXEC_PIPE_PRIVATE_H
#define FRASK_EXEC_PIPE_PRIVATE_H

#include <fcntl.h>
#include <unistd.h>

#include "fs/unique_fd.h"

namespace frask {

struct Pipe {
  UniqueFd read_end;
  UniqueFd write_end;

  /// Both ends are closed on exec. They lie above the standard descriptors even where the process
  /// has closed one of those, so that wiring a child never runs over them. False with errno set on
  /// failure.
  bool open() noexcept {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return false;
    read_end.reset(ends[0]);
    write_end.reset(ends[1]);
    return lift(read_end, STDERR_FILENO + 1) && lift(write_end, STDERR_FILENO + 1);
  }

  /// Moves a descriptor to `lowest` or above. False with errno set, and nothing changed, on
  /// failure.
  static bool lift(UniqueFd& end, int lowest) noexcept {
    if (end.get() >= lowest) return true;
    const int lifted = fcntl(end.get(), F_DUPFD_CLOEXEC, lowest);
    if (lifted < 0) return false;
    end.reset(lifted);
    return true;
  }
};

}  // namespace frask

#endif
