// Not installed: the copy behind copy_if_no_dontedit(), with names of the caller's choice.
#ifndef FRASK_VHOST_PROTECTED_COPY_PRIVATE_H
#define FRASK_VHOST_PROTECTED_COPY_PRIVATE_H

#include <fcntl.h>

#include <cstddef>

#include "fs/unique_fd.h"
#include "vhost/misc.h"
#include "vhost/protected_copy_original.private.h"

namespace frask {

/// The directory that holds a file. It is opened once, and the file is read and its copy made in
/// that very directory: were each found by its path, a directory on the way that is swapped for a
/// link in between would put the copy elsewhere.
class HoldingDirectory {
 public:
  /// @throws SystemError "PATH: open failed" (ExSystemError<2> for a missing directory)
  explicit HoldingDirectory(const char* path);

  int fd() const noexcept { return fd_ ? fd_.get() : AT_FDCWD; }

  /// Of an entry whose path begins as that of the file, its name in the directory.
  const char* nameOf(const char* path) const noexcept {
    return fd_ && path[length_] == '\0' ? "." : path + length_;
  }

 private:
  std::size_t length_;  ///< of the path, its last separator included
  UniqueFd fd_;         ///< none for the working directory
};

/// Copies the `original`, which is at `path`, to a new file with the first free one of `names`,
/// which lie in `directory`. That none is free is logged.
/// @throws SystemError when a name cannot be reserved; std::filesystem::filesystem_error, whose
///         text is that of std::filesystem::copy_file(), when the copy fails: the reserved file
///         then stays, empty
void backUp(const char* path, Original& original, BackupFileGenerator& names,
            const HoldingDirectory& directory);

}  // namespace frask

#endif
