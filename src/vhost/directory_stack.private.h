// Not installed: the way from one directory down to another, as open descriptors.
#ifndef FRASK_VHOST_DIRECTORY_STACK_PRIVATE_H
#define FRASK_VHOST_DIRECTORY_STACK_PRIVATE_H

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

#include "fs/unique_fd.h"

namespace frask {

/// Opens a directory to reach its entries by, never through a symbolic link. None with errno set on
/// failure: ELOOP for a link.
UniqueFd openBelow(int parent_fd, const char* name) noexcept;

/// The present directory and those above it, up to a bottom that somebody else owns. However deep
/// it goes, only the descriptors of the last few are kept: those above are found again through
/// "..", where that is the directory that was left, and by their names from the bottom otherwise.
class DirectoryStack {
 public:
  /// Begins anew.
  void reset(int bottom_fd) noexcept;

  /// The present directory's path below the bottom: "" there, else "a/b/c".
  const std::string& path() const noexcept { return path_; }
  size_t depth() const noexcept { return levels_.size(); }
  /// Of the directory `level` levels below the bottom's entries.
  std::string_view name(size_t level) const noexcept;

  /// The present directory. -1 with errno set when it was not found again.
  int fd();

  /// Goes into a directory of the present one. False with errno set on failure: ELOOP for a link.
  bool enter(std::string_view name);
  /// Goes into a directory that was opened already.
  void enter(std::string_view name, UniqueFd fd);
  void leave() noexcept;

 private:
  struct Level {
    size_t path_length;
    UniqueFd fd;
    dev_t device = 0;  ///< both are known when the descriptor is gone
    ino_t inode = 0;
  };

  static void shed(Level& level) noexcept;
  static void findAgain(Level& level, int below_fd) noexcept;
  UniqueFd openByNames() const;

  int bottom_fd_ = -1;
  std::string path_;
  std::vector<Level> levels_;
};

}  // namespace frask

#endif
