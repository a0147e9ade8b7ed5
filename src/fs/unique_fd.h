// Not installed: the owner of a descriptor.
#ifndef FRASK_FS_UNIQUE_FD_H
#define FRASK_FS_UNIQUE_FD_H

#include <errno.h>
#include <unistd.h>

#include <utility>

namespace frask {

/// Owns one descriptor; -1 means none, 0 is a descriptor like any other. The destructor is silent
/// and leaves errno as it was; whoever must report a failed close calls close() first.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) noexcept : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    reset(other.release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { reset(); }

  int get() const noexcept { return fd_; }
  explicit operator bool() const noexcept { return fd_ >= 0; }

  /// Hands ownership to the caller.
  int release() noexcept { return std::exchange(fd_, -1); }

  void reset(int fd = -1) noexcept {
    const int error = errno;
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
    errno = error;
  }

  /// close(2)'s result; the descriptor is gone either way (Linux frees it before any error).
  int close() noexcept { return ::close(release()); }

 private:
  int fd_ = -1;
};

}  // namespace frask

#endif
