// Not installed: entries below a directory, reached without passing a symbolic link.
#ifndef FRASK_VHOST_CONFINED_PRIVATE_H
#define FRASK_VHOST_CONFINED_PRIVATE_H

#include <string>
#include <vector>

#include "fs/unique_fd.h"

namespace frask {

/// Where an entry lies: `name` in the directory `dir_fd`, or by its full path at AT_FDCWD.
struct Place {
  int dir_fd;
  const char* name;
};

/// A directory that root works in while its owner may be changing it. The directory itself may be
/// reached through links; below it every component is opened as a directory and never as a link.
/// The descriptor of the last parent is kept, for entries come in order and share theirs.
class ConfinedDirectory {
 public:
  explicit ConfinedDirectory(std::string base);

  /// Finds the directory that holds `relative`, "a/b/c"; an empty one is the base itself. A
  /// component ".." has its path meaning. False with errno set: ELOOP where a component is a link,
  /// ENOENT, ENOTDIR and all that openat(2) gives. `place` is good until the next call, and as long
  /// as `relative` is.
  bool locate(const std::string& relative, Place& place);

  const std::string& base() const noexcept { return base_; }

 private:
  std::string base_;
};

}  // namespace frask

#endif
