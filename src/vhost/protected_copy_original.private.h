// Not installed: the file that copy_if_no_dontedit() protects.
#ifndef FRASK_VHOST_PROTECTED_COPY_ORIGINAL_PRIVATE_H
#define FRASK_VHOST_PROTECTED_COPY_ORIGINAL_PRIVATE_H

#include <sys/stat.h>

#include <string>
#include <string_view>

#include "fs/unique_fd.h"

namespace frask {

/// A file that is opened once, looked through and copied. Of a file of any size it holds one piece
/// in memory; a file that is no longer and has no holes is read once.
class Original {
 public:
  /// The most that is held: it fits into a core's own cache.
  static constexpr size_t kPiece = 262144;

  /// Opens the file `name` in a directory (or AT_FDCWD) and reads its beginning. Pipes and devices
  /// are not opened. Its descriptor is none of the standard ones.
  ///
  /// @param path  for the messages alone
  /// @throws SystemError "PATH: open failed" (ExSystemError<2> for a missing file), "PATH: read
  ///         failed"; std::bad_alloc
  Original(int dir_fd, const char* name, std::string path);

  mode_t mode() const noexcept { return st_.st_mode; }

  /// Whether it holds `text`, which is not empty, anywhere. What is no regular file holds nothing.
  ///
  /// @throws SystemError "PATH: read failed"
  bool contains(std::string_view text);

  /// Copies a regular file to a new one. Holes become holes again.
  ///
  /// @return false with errno; part of it may have been written then
  bool copyTo(int to);

 private:
  void open(int dir_fd, const char* name);
  void readBeginning();
  bool restContains(std::string_view text);
  bool hasHoles() const noexcept;

  std::string path_;
  UniqueFd fd_;  ///< none for pipes and devices
  struct stat st_ = {};
  std::string piece_;
  size_t read_ = 0;     ///< of the file's beginning
  bool whole_ = false;  ///< then all of it is at the beginning of the piece
};

/// The same descriptor, or another number for it where it is a standard one's: files that are
/// opened behind it are to get the numbers that they would get without it.
///
/// @return empty with errno where there is none left
UniqueFd aboveStandardDescriptors(UniqueFd fd) noexcept;

}  // namespace frask

#endif
