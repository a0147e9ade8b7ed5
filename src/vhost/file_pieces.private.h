// Not installed: the data of a file, without its holes.
#ifndef FRASK_VHOST_FILE_PIECES_PRIVATE_H
#define FRASK_VHOST_FILE_PIECES_PRIVATE_H

#include <stddef.h>
#include <sys/types.h>

namespace frask {

/// Reads a regular file piece by piece and passes over its holes, so that a file of any size takes
/// as long as its data. A file that does not tell where it has holes has data everywhere.
///
/// It ends where it ended at first, or where it is cut meanwhile: whoever appends without end holds
/// no reader. One that tells neither a size nor holes, as below /proc, ends where nothing more is
/// read.
class FilePieces {
 public:
  /// @param fd     stays the caller's; its position changes
  /// @param begin  what lies before is passed over
  FilePieces(int fd, off_t begin) noexcept;

  /// Reads the next piece. A read that a signal interrupts is repeated.
  ///
  /// @return how much, 0 at the end; -1 with errno, also where the file's size or its next data
  ///         cannot be told for another reason than that the file system does not know of them
  ssize_t next(char* buffer, size_t room) noexcept;

  /// Where the last piece begins: farther on than the one before ends where a hole was passed over.
  off_t place() const noexcept { return place_; }

  /// Behind the last piece: where the file ends, in most cases with a hole if that is farther on.
  off_t end() const noexcept { return end_; }

 private:
  enum class Found { kData, kNone, kFailure };

  bool findEnd() noexcept;
  bool tellsNoSize() const noexcept;
  ssize_t endAt(off_t place) noexcept;
  Found findData() noexcept;
  off_t size() const noexcept;

  int fd_;
  off_t next_;
  off_t place_;
  off_t dataEnd_;   ///< as far as is known
  off_t end_ = -1;  ///< while it is not known
  bool told_ = true;
};

}  // namespace frask

#endif
