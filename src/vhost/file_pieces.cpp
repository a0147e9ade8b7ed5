#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <limits>

#include "vhost/file_pieces.private.h"

namespace frask {
namespace {

constexpr off_t kEndless = std::numeric_limits<off_t>::max();
/// What is read, before it is asked for again, where a file has data against its word.
constexpr off_t kDoubtful = 4096;

/// Whether a file system says that it tells no holes, or not of this file.
bool tellsNone(int error) noexcept {
  return error == EINVAL || error == EOPNOTSUPP || error == ESPIPE;
}

}  // namespace

FilePieces::FilePieces(int fd, off_t begin) noexcept
    : fd_(fd), next_(begin), place_(begin), dataEnd_(begin) {
  static_cast<void>(findEnd());
}

ssize_t FilePieces::next(char* buffer, size_t room) noexcept {
  if (end_ < 0 && !findEnd()) return -1;
  place_ = next_;
  const Found found = place_ < end_ ? findData() : Found::kNone;
  if (found == Found::kFailure) return -1;
  if (found == Found::kNone) return endAt(end_);
  // No farther than the end: a system call takes no place that does not fit its type.
  const auto most = static_cast<size_t>(std::min(dataEnd_ - place_, static_cast<off_t>(room)));
  ssize_t got = -1;
  do {
    got = ::pread(fd_, buffer, most, place_);
  } while (got < 0 && errno == EINTR);
  if (got == 0) return endAt(place_);
  if (got > 0) next_ = place_ + got;
  return got;
}

bool FilePieces::findEnd() noexcept {
  end_ = size();
  if (end_ == 0 && tellsNoSize()) end_ = kEndless;
  return end_ >= 0;
}

/// Of a file that tells that it is empty. One that has grown since tells what it holds by now.
bool FilePieces::tellsNoSize() const noexcept {
  if (::lseek(fd_, 0, SEEK_DATA) < 0 && tellsNone(errno)) return true;
  char byte = 0;
  return ::pread(fd_, &byte, 1, 0) == 1 && size() == 0;
}

/// There, or where the file has been cut. The result is next()'s.
ssize_t FilePieces::endAt(off_t place) noexcept {
  const off_t now = size();
  if (now < 0) return -1;
  end_ = std::min(place, now);
  return 0;
}

/// Moves on to data, unless there is no more.
FilePieces::Found FilePieces::findData() noexcept {
  if (place_ < dataEnd_) return Found::kData;
  const off_t data = told_ ? ::lseek(fd_, place_, SEEK_DATA) : -1;
  off_t hole = -1;
  if (data >= 0) {
    place_ = data;
    hole = ::lseek(fd_, data, SEEK_HOLE);
  } else if (told_ && errno == ENXIO) {
    // Behind the end of what was cut nothing is read then.
    const off_t now = size();
    if (now < 0) return Found::kFailure;
    if (now > place_) return Found::kNone;
  } else if (told_ && !tellsNone(errno)) {
    return Found::kFailure;
  } else {
    told_ = false;
    hole = end_;
  }
  dataEnd_ = hole > place_ ? std::min(hole, end_) : place_ + std::min(kDoubtful, end_ - place_);
  return place_ < end_ ? Found::kData : Found::kNone;
}

/// -1 where it is not told.
off_t FilePieces::size() const noexcept {
  struct stat st = {};
  return ::fstat(fd_, &st) == 0 ? st.st_size : -1;
}

}  // namespace frask
