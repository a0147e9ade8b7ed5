// Not installed: the owner of a directory that is being read.
#ifndef FRASK_FS_DIR_STREAM_H
#define FRASK_FS_DIR_STREAM_H

#include <dirent.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>

#include <memory>

#include "fs/unique_fd.h"

namespace frask {

/// Reads a directory with the system call itself: opendir() spends an fstat() on every directory
/// and cannot refuse a symbolic link.
class DirStream {
 public:
  using Entry = dirent64;

  /// Opens the directory `name` below `parent_fd` (or AT_FDCWD), never through a symbolic link in
  /// the last component. False with errno set on failure (ENOTDIR for a link).
  bool open(int parent_fd, const char* name) noexcept {
    return adopt(
        ::openat(parent_fd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  }

  int fd() const noexcept { return fd_.get(); }

  /// The next entry other than "." and "..", valid until the next call; null at the end, and null
  /// with errno set when the directory cannot be read further.
  const Entry* next() noexcept {
    while (const Entry* entry = next_of_any_name())
      if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) return entry;
    return nullptr;
  }

  /// close(2)'s result.
  int close() noexcept { return fd_.close(); }

 private:
  static constexpr size_t kBufferSize = 32768;
  struct Free {
    void operator()(char* buffer) const noexcept { free(buffer); }
  };

  bool adopt(int fd) noexcept {
    fd_.reset(fd);
    if (fd < 0) return false;
    buffer_.reset(static_cast<char*>(malloc(kBufferSize)));
    if (buffer_ == nullptr) fd_.reset();
    return buffer_ != nullptr;
  }

  const Entry* next_of_any_name() noexcept {
    if (position_ >= filled_) {
      const ssize_t got = ::getdents64(fd_.get(), buffer_.get(), kBufferSize);
      if (got <= 0) return nullptr;
      filled_ = static_cast<size_t>(got);
      position_ = 0;
    }
    // The kernel aligns each record for its 64-bit members, and malloc() the first one.
    const auto* entry = static_cast<const Entry*>(static_cast<void*>(buffer_.get() + position_));
    position_ += entry->d_reclen;
    return entry;
  }

  UniqueFd fd_;
  std::unique_ptr<char, Free> buffer_;
  size_t position_ = 0;
  size_t filled_ = 0;
};

}  // namespace frask

#endif
