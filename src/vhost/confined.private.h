// Not installed: entries below a directory, reached without passing a symbolic link.
#ifndef FRASK_VHOST_CONFINED_PRIVATE_H
#define FRASK_VHOST_CONFINED_PRIVATE_H

#include <string>
#include <string_view>

#include "fs/unique_fd.h"
#include "vhost/base_directory.private.h"
#include "vhost/directory_stack.private.h"

namespace frask {

/// A directory that root works in while its owner may be changing it. The directory itself may be
/// reached through links when it is first opened; below it every component is opened as a directory
/// and never as a link. The way to the last entry stays open, for entries come in order and share
/// theirs.
class ConfinedDirectory {
 public:
  /// It is opened when it is first needed.
  explicit ConfinedDirectory(std::string base);
  explicit ConfinedDirectory(BaseDirectory base) noexcept;

  /// Works from here on in a directory that was opened already: what its path means may change.
  void hold(UniqueFd fd) noexcept;
  /// Goes on in the directory at `relative`, which was located last, by a descriptor of it: what
  /// its name means may change as well.
  void enter(const char* relative, UniqueFd fd);
  /// Keeps no more than the base open.
  void leaveAll() noexcept;

  /// Finds the directory that holds `relative`, "a/b/c"; an empty one is the base itself. A
  /// component ".." has its path meaning, and may lead out of the base; separators at the end mean
  /// that it is a directory. False with errno set: ELOOP where a component is a link, ENOENT,
  /// ENOTDIR and all that openat(2) gives. `place` is good until the next call, and as long as
  /// `relative` is.
  bool locate(const char* relative, Place& place);

  /// Where the base is to be created: BaseDirectory::locateWithParents().
  bool locateMissingBase(Place& place);
  /// Opens the base. False with errno set on failure.
  bool open();

  const std::string& base() const noexcept { return base_.path(); }

 private:
  bool isPresent(std::string_view directory) const noexcept;
  bool goTo(std::string_view directory);
  bool goAbove();
  void goUpTo(size_t depth) noexcept;
  bool checkDirectory(const Place& place) const noexcept;

  BaseDirectory base_;
  std::string name_;
  UniqueFd above_;  ///< the directory above the base that a ".." led to
  DirectoryStack way_;
};

}  // namespace frask

#endif
