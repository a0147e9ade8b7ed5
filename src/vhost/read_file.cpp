#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <istream>
#include <utility>

#include "error/SystemError.h"
#include "fs/unique_fd.h"
#include "vhost/misc.h"
#include "vhost/read_file.private.h"

namespace frask {
namespace {

constexpr std::size_t kChunk = 65536;
/// Numbers below /proc/sys can be read only at once.
constexpr std::size_t kLeastRead = 4096;
constexpr int kReading = O_RDONLY | O_CLOEXEC;

/// Opened again where a signal has interrupted it, as it may the wait for a lease.
UniqueFd opened(int dir_fd, const char* name, int flags) noexcept {
  UniqueFd fd;
  do {
    fd.reset(::openat(dir_fd, name, flags));
  } while (!fd && errno == EINTR);
  return fd;
}

/// Fills `bytes` from `read(buffer, room)`, which gives how much it read: 0 at the end.
template <class Read>
void readToEnd(std::string& bytes, std::size_t expected, Read read) {
  std::size_t filled = 0;
  // Room behind what is expected: the end is seen without growing.
  bytes.resize(std::max(expected + 1, kLeastRead));
  while (const std::size_t got = read(&bytes[filled], bytes.size() - filled)) {
    filled += got;
    if (filled == bytes.size()) bytes.resize(2 * filled + kChunk);
  }
  bytes.resize(filled);
}

std::size_t readSome(int fd, char* buffer, std::size_t room, const std::string& path) {
  for (;;) {
    const ssize_t got = ::read(fd, buffer, room);
    if (got >= 0) return static_cast<std::size_t>(got);
    const int error = errno;  // making the message may change it
    if (error == EISDIR) return 0;
    if (error != EINTR) throwSystemError(path + ": read failed", error);
  }
}

std::size_t takeSome(std::istream& in, char* buffer, std::size_t room) {
  try {
    const auto wanted = static_cast<std::streamsize>(room);
    return static_cast<std::size_t>(in.rdbuf()->sgetn(buffer, wanted));
  } catch (const std::ios_base::failure&) {  // a file buffer's, for a failed read
    in.setstate(std::ios_base::badbit);
    return 0;
  }
}

}  // namespace

UniqueFd openAtOnce(int dir_fd, const char* name, int flags) noexcept {
  return opened(dir_fd, name, kReading | O_NONBLOCK | O_NOCTTY | flags);
}

UniqueFd openBehindLease(int dir_fd, const char* name, int flags) noexcept {
  // By its descriptor, since by its name a pipe might be opened by now.
  const UniqueFd place(::openat(dir_fd, name, O_PATH | O_CLOEXEC | flags));
  struct stat st = {};
  if (!place || ::fstat(place.get(), &st) != 0) return {};
  if (S_ISREG(st.st_mode)) {
    char itself[32];
    snprintf(itself, sizeof itself, "/proc/self/fd/%d", place.get());
    UniqueFd fd = opened(AT_FDCWD, itself, kReading);
    if (fd || errno != ENOENT) return fd;  // there is no /proc
  }
  errno = EAGAIN;
  return {};
}

UniqueFd openUnread(int dir_fd, const char* name, int flags) noexcept {
  UniqueFd fd = openAtOnce(dir_fd, name, flags);
  return fd || errno != EAGAIN ? std::move(fd) : openBehindLease(dir_fd, name, flags);
}

std::string readFile(const std::string& path) {
  const UniqueFd fd(::open(path.c_str(), kReading));
  struct stat st = {};
  if (!fd || ::fstat(fd.get(), &st) != 0) {
    const int error = errno;
    throwSystemError(path + ": open failed", error);
  }
  const auto expected = S_ISREG(st.st_mode) ? static_cast<std::size_t>(st.st_size) : 0;
  std::string bytes;
  readToEnd(bytes, expected,
            [&](char* buffer, std::size_t room) { return readSome(fd.get(), buffer, room, path); });
  return bytes;
}

std::string readFile(std::istream& in) {
  std::string bytes;
  if (in.fail()) return bytes;
  readToEnd(bytes, kChunk,
            [&in](char* buffer, std::size_t room) { return takeSome(in, buffer, room); });
  return bytes;
}

}  // namespace frask
