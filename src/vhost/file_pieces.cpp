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

}  // namespace

FilePieces::FilePieces(int fd, off_t begin) noexcept
    : fd_(fd), next_(begin), place_(begin), dataEnd_(begin), end_(size()) {
  if (end_ <= begin) end_ = kEndless;
}

ssize_t FilePieces::next(char* buffer, size_t room) noexcept {
  place_ = next_;
  if (place_ >= end_ || !findData()) {
    end_ = std::min(end_, size());
    return 0;
  }
  // No farther than the end: a system call takes no place that does not fit its type.
  const auto most = static_cast<size_t>(std::min(dataEnd_ - place_, static_cast<off_t>(room)));
  ssize_t got = -1;
  do {
    got = ::pread(fd_, buffer, most, place_);
  } while (got < 0 && errno == EINTR);
  if (got > 0) next_ = place_ + got;
  if (got == 0) end_ = std::min(place_, size());
  return got;
}

/// Moves on to data, unless there is no more.
bool FilePieces::findData() noexcept {
  if (place_ < dataEnd_) return true;
  const off_t data = told_ ? ::lseek(fd_, place_, SEEK_DATA) : -1;
  off_t hole = -1;
  if (data >= 0) {
    place_ = data;
    hole = ::lseek(fd_, data, SEEK_HOLE);
  } else if (told_ && errno == ENXIO) {
    // Behind the end of what was cut nothing is read then, and of what tells no size all is.
    if (size() > place_) return false;
  } else {
    told_ = false;
    hole = end_;
  }
  dataEnd_ = hole > place_ ? std::min(hole, end_) : place_ + std::min(kDoubtful, end_ - place_);
  return place_ < end_;
}

off_t FilePieces::size() const noexcept {
  struct stat st = {};
  return ::fstat(fd_, &st) == 0 ? st.st_size : 0;
}

}  // namespace frask
