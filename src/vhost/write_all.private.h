// Not installed: a text written whole, or told that it was not.
#ifndef FRASK_VHOST_WRITE_ALL_PRIVATE_H
#define FRASK_VHOST_WRITE_ALL_PRIVATE_H

#include <errno.h>
#include <unistd.h>

#include <string_view>

namespace frask {

/// Writes at the file's position, on behind a short write and again where a signal has come.
///
/// @return false with errno; part of it may have been written then
inline bool writeAll(int fd, std::string_view text) noexcept {
  while (!text.empty()) {
    const ssize_t written = ::write(fd, text.data(), text.size());
    if (written < 0 && errno != EINTR) return false;
    if (written > 0) text.remove_prefix(static_cast<size_t>(written));
  }
  return true;
}

}  // namespace frask

#endif
