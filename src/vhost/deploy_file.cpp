#include <errno.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <limits>
#include <string_view>
#include <utility>

#include "vhost/deploy_file.private.h"
#include "vhost/placeholder.private.h"
#include "vhost/write_all.private.h"

namespace frask {
namespace {

constexpr size_t kPage = 4096;

/// The result of a call that is made again where a signal has interrupted it.
template <class Call>
ssize_t again(Call call) noexcept {
  ssize_t got = -1;
  do {
    got = call();
  } while (got < 0 && errno == EINTR);
  return got;
}

/// Ends a file with a hole, or none. One that was passed over before nothing was written is counted
/// in by now: a placeholder becomes nothing where the site has no name. What cannot be had is
/// missing from there on, as what cannot be written.
void endBehind(int fd, off_t hole) noexcept {
  const off_t whole = ::lseek(fd, std::max<off_t>(hole, 0), SEEK_CUR);
  static_cast<void>(whole >= 0 && ::ftruncate(fd, whole) == 0);
}

/// A page, or what is left of it before the last place that there may be.
size_t pageAt(off_t place) noexcept {
  const off_t most = std::max<off_t>(std::numeric_limits<off_t>::max() - place, 1);
  return std::min(kPage, static_cast<size_t>(most));
}

/// Where a file has data. A file that does not tell has data everywhere.
class Extents {
 public:
  explicit Extents(int fd) : fd_(fd) {}

  /// Moves on to the next data at or behind a place.
  ///
  /// @return how much of `room` to read there; 0 when there is no more data
  size_t next(off_t& at, size_t room) noexcept {
    if (!told_) return room;
    const off_t data = ::lseek(fd_, at, SEEK_DATA);
    if (data < 0) {
      told_ = errno == ENXIO;
      return told_ ? 0 : room;
    }
    at = data;
    const off_t hole = ::lseek(fd_, data, SEEK_HOLE);
    if (hole <= data) return kPage;  // the data has gone since
    return hole - data < static_cast<off_t>(room) ? static_cast<size_t>(hole - data) : room;
  }

 private:
  int fd_;
  bool told_ = true;
};

}  // namespace

FileCopier::FileCopier(std::string siteName)
    : siteName_(std::move(siteName)), piece_(new char[kPiece]) {}

void FileCopier::copy(int from, int to, off_t expected) {
  held_ = 0;
  off_t left = expected > 0 ? expected : std::numeric_limits<off_t>::max();
  while (left > 0) {
    const off_t room = std::min(left, static_cast<off_t>(kPiece - held_));
    const ssize_t got =
        again([&] { return ::read(from, piece_.get() + held_, static_cast<size_t>(room)); });
    if (got <= 0) break;
    left -= got;
    if (!put(to, static_cast<size_t>(got))) return;
  }
  putRest(to);
}

void FileCopier::copyWithHoles(int from, int to) {
  held_ = 0;
  Extents extents(from);
  for (off_t done = 0;;) {
    off_t at = done;
    // Before the data is looked for: what is appended in between is found, and no hole made of it.
    const off_t end = ::lseek(from, 0, SEEK_END);
    // Behind what may be the beginning of a placeholder no hole is passed over: it may be filled by
    // now. A page is read instead, not to write many out.
    const size_t room = held_ == 0 ? extents.next(at, kPiece) : pageAt(at);
    if (room == 0) return endBehind(to, std::min(end, ::lseek(from, 0, SEEK_END)) - done);
    const ssize_t got = again([&] { return ::pread(from, piece_.get() + held_, room, at); });
    if (got <= 0) {
      putRest(to);
      // It ends there, or was cut before, unless it cannot be read from there on.
      const off_t last = got < 0 ? at : std::min(at, ::lseek(from, 0, SEEK_END));
      return endBehind(to, last - done);
    }
    if (at > done && ::lseek(to, at - done, SEEK_CUR) < 0) return;
    if (!put(to, static_cast<size_t>(got))) return;
    done = at + got;
  }
}

/// Writes the piece, of which so much has been read, but for what it must hold back.
bool FileCopier::put(int to, size_t got) {
  const std::string_view piece(piece_.get(), held_ + got);
  const ReplacedPiece done = replacePlaceholders(piece, siteName_, replaced_);
  if (!writeAll(to, done.text)) return false;
  held_ = done.unfinished;
  memmove(piece_.get(), piece.data() + piece.size() - held_, held_);
  return true;
}

void FileCopier::putRest(int to) {
  static_cast<void>(writeAll(to, std::string_view(piece_.get(), held_)));
}

}  // namespace frask
