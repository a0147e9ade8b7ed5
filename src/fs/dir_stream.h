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
    fd_.reset(
        ::openat(parent_fd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (fd_ && !resize(kBufferSize)) fd_.reset();
    return static_cast<bool>(fd_);
  }

  /// -1 when the stream is not open, or detached.
  int fd() const noexcept { return fd_.get(); }

  /// The next entry other than "." and ".."; null at the end, and when the directory cannot be read
  /// further: then failed() holds and errno is set. errno is otherwise left alone.
  const Entry* next() noexcept {
    do {
      if (position_ >= filled_ && !refill()) return nullptr;
      current_ = position_;
      position_ += current()->d_reclen;
    } while (strcmp(current()->d_name, ".") == 0 || strcmp(current()->d_name, "..") == 0);
    return current();
  }

  /// The entry that next() gave last, valid until next(), detach() or the end of the stream.
  const Entry* current() const noexcept {
    // The kernel aligns each record for its 64-bit members, and malloc() the first one.
    return static_cast<const Entry*>(static_cast<const void*>(buffer_.get() + current_));
  }

  bool failed() const noexcept { return failed_; }

  /// Reads the rest into memory, from where next() goes on to give it, and frees the descriptor.
  /// False with errno set when that is impossible; the stream is still good.
  bool detach() noexcept {
    ssize_t got = 1;
    while (got > 0) {
      if (!resize(filled_ + kBufferSize)) return false;
      got = ::getdents64(fd_.get(), buffer_.get() + filled_, kBufferSize);
      if (got < 0) return false;
      filled_ += static_cast<size_t>(got);
    }
    fd_.reset();
    if (filled_ > 0) static_cast<void>(resize(filled_));
    return true;
  }

  /// Hands the descriptor of a directory that was read to its end to the caller; open() may follow.
  UniqueFd release() noexcept { return std::move(fd_); }

  /// close(2)'s result; 0 for a detached stream.
  int close() noexcept { return fd_ ? fd_.close() : 0; }

 private:
  static constexpr size_t kBufferSize = 32768;
  struct Free {
    void operator()(char* buffer) const noexcept { free(buffer); }
  };

  bool resize(size_t size) noexcept {
    char* moved = static_cast<char*>(realloc(buffer_.get(), size));
    if (moved == nullptr) return false;
    static_cast<void>(buffer_.release());
    buffer_.reset(moved);
    return true;
  }

  bool refill() noexcept {
    if (!fd_) return false;
    const ssize_t got = ::getdents64(fd_.get(), buffer_.get(), kBufferSize);
    failed_ = got < 0;
    filled_ = got > 0 ? static_cast<size_t>(got) : 0;
    position_ = 0;
    return filled_ > 0;
  }

  UniqueFd fd_;
  std::unique_ptr<char, Free> buffer_;
  size_t current_ = 0;
  size_t position_ = 0;
  size_t filled_ = 0;
  bool failed_ = false;
};

}  // namespace frask

#endif
