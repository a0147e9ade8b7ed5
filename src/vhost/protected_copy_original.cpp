#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "error/SystemError.h"
#include "vhost/file_pieces.private.h"
#include "vhost/protected_copy_original.private.h"
#include "vhost/read_file.private.h"
#include "vhost/write_all.private.h"

namespace frask {
namespace {

/// What reading may keep waiting or never end, and merely opening may act on: a watchdog begins to
/// count, and whoever waits for a pipe's reader goes on.
bool isPipeOrDevice(mode_t mode) noexcept {
  return S_ISFIFO(mode) || S_ISCHR(mode) || S_ISBLK(mode);
}

ssize_t readOn(int fd, char* buffer, size_t room) noexcept {
  ssize_t got = -1;
  do {
    got = ::read(fd, buffer, room);
  } while (got < 0 && errno == EINTR);
  return got;
}

bool writeAt(int fd, std::string_view bytes, off_t place) noexcept {
  while (!bytes.empty()) {
    const ssize_t written = ::pwrite(fd, bytes.data(), bytes.size(), place);
    if (written < 0 && errno != EINTR) return false;
    if (written <= 0) continue;
    bytes.remove_prefix(static_cast<size_t>(written));
    place += written;
  }
  return true;
}

}  // namespace

UniqueFd aboveStandardDescriptors(UniqueFd fd) noexcept {
  if (!fd || fd.get() > STDERR_FILENO) return fd;
  return UniqueFd(::fcntl(fd.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

Original::Original(int dir_fd, const char* name, std::string path) : path_(std::move(path)) {
  open(dir_fd, name);
  if (S_ISREG(mode())) readBeginning();
}

/// By what is said of its name first. A device that comes into its place behind that is opened, but
/// not read: only by way of /proc could what was looked at be opened, and by more calls.
void Original::open(int dir_fd, const char* name) {
  bool done = ::fstatat(dir_fd, name, &st_, 0) == 0;
  if (done && isPipeOrDevice(mode())) {
    done = ::faccessat(dir_fd, name, R_OK, AT_EACCESS) == 0;
  } else if (done) {
    fd_ = aboveStandardDescriptors(openUnread(dir_fd, name, 0));
    done = fd_ && ::fstat(fd_.get(), &st_) == 0;
  }
  const int error = errno;
  if (!done) throwSystemError(path_ + ": open failed", error);
}

void Original::readBeginning() {
  const auto size = static_cast<size_t>(st_.st_size);
  // Room behind what is expected: what has been appended since is seen. And numbers below
  // /proc/sys, which tell no size, can be read only at once.
  constexpr size_t kLeastRead = 4096;
  piece_.resize(std::max(std::min(size, kPiece - 1) + 1, kLeastRead));
  while (!whole_ && read_ < kPiece) {
    if (read_ == piece_.size()) piece_.resize(kPiece);
    const ssize_t got = readOn(fd_.get(), &piece_[read_], piece_.size() - read_);
    const int error = errno;
    if (got < 0) throwSystemError(path_ + ": read failed", error);
    read_ += static_cast<size_t>(got);
    whole_ = got == 0 || read_ == size;
  }
}

bool Original::contains(std::string_view text) {
  if (std::string_view(piece_.data(), read_).find(text) != std::string_view::npos) return true;
  return S_ISREG(mode()) && !whole_ && restContains(text);
}

bool Original::restContains(std::string_view text) {
  FilePieces pieces(fd_.get(), static_cast<off_t>(read_));
  off_t end = pieces.place();
  const size_t most = text.size() - 1;  // of what may be the text's beginning
  size_t held = std::min(most, read_);
  memmove(piece_.data(), &piece_[read_ - held], held);
  while (const ssize_t got = pieces.next(&piece_[held], piece_.size() - held)) {
    const int error = errno;
    if (got < 0) throwSystemError(path_ + ": read failed", error);
    const size_t skipped = pieces.place() == end ? 0 : held;  // none begins before a hole
    const std::string_view seen(&piece_[skipped], held - skipped + static_cast<size_t>(got));
    if (seen.find(text) != std::string_view::npos) return true;
    end = pieces.place() + got;
    held = std::min(most, seen.size());
    memmove(piece_.data(), seen.data() + seen.size() - held, held);
  }
  return false;
}

bool Original::hasHoles() const noexcept {
  constexpr blkcnt_t kBlock = 512;  // of st_blocks (POSIX leaves it open, Linux has no other)
  return st_.st_blocks < st_.st_size / kBlock;
}

bool Original::copyTo(int to) {
  // Nothing was written to it yet: its position is where it begins.
  if (whole_ && !hasHoles()) return writeAll(to, std::string_view(piece_.data(), read_));
  FilePieces pieces(fd_.get(), 0);
  off_t end = 0;
  ssize_t got = 0;
  while ((got = pieces.next(piece_.data(), piece_.size())) > 0) {
    const std::string_view piece(piece_.data(), static_cast<size_t>(got));
    if (!writeAt(to, piece, pieces.place())) return false;
    end = pieces.place() + got;
  }
  if (got < 0) return false;
  return pieces.end() <= end || ::ftruncate(to, pieces.end()) == 0;
}

}  // namespace frask
