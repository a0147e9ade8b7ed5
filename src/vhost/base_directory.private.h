// Not installed: the directory that a piece of work begins in, and what its path may lead to.
#ifndef FRASK_VHOST_BASE_DIRECTORY_PRIVATE_H
#define FRASK_VHOST_BASE_DIRECTORY_PRIVATE_H

#include <sys/types.h>

#include <string>

#include "fs/unique_fd.h"

namespace frask {

/// All of them: what a new directory is asked to have, before the umask.
constexpr mode_t kPermissions = 0777;

/// Where an entry lies: `name` in the directory `dir_fd`, which may be AT_FDCWD.
struct Place {
  int dir_fd;
  const char* name;
};

/// A directory whose path others may lead elsewhere at any moment. Its path is gone once, links
/// included: then what holds it and the directory itself stay open. Where it is missing and this
/// process is to create it, the path is gone as far as it leads, what is created on the rest of it
/// is held at once, and no link is passed any more.
class BaseDirectory {
 public:
  /// It is opened when it is first needed.
  explicit BaseDirectory(std::string path);

  /// As it was given: for messages.
  const std::string& path() const noexcept { return path_; }

  bool isOpen() const noexcept { return static_cast<bool>(fd_); }
  /// The directory. -1 with errno set on failure: ELOOP where it was to be created and a link has
  /// its name.
  int fd();
  /// Works from here on in a directory that was opened already.
  void hold(UniqueFd fd) noexcept;

  /// Where it is to be created, once more if somebody has removed it: by its bare name, for
  /// separators and "." behind a name make the kernel pass a link. False with errno set on failure.
  /// `place` is good until this is moved or gone.
  bool locate(Place& place);
  /// The same with all directories that are missing on the way to it created. EINVAL for the empty
  /// path, EEXIST where something on the way is no directory, a dangling link for one.
  bool locateWithParents(Place& place);

 private:
  std::string path_;
  std::string holderPath_;  ///< the way to the directory that holds it
  std::string name_;        ///< its own, there
  UniqueFd holder_;
  UniqueFd fd_;
  bool passesLink_ = true;
};

}  // namespace frask

#endif
