#include <errno.h>
#include <string.h>
#include <unistd.h>

#include <limits>
#include <string_view>
#include <utility>

#include "vhost/deploy_file.private.h"
#include "vhost/placeholder.private.h"

namespace frask {
namespace {

ssize_t readSome(int fd, char* buffer, size_t room) noexcept {
  ssize_t got = -1;
  do {
    got = ::read(fd, buffer, room);
  } while (got < 0 && errno == EINTR);
  return got;
}

bool writeAll(int fd, std::string_view text) noexcept {
  while (!text.empty()) {
    const ssize_t written = ::write(fd, text.data(), text.size());
    if (written < 0 && errno != EINTR) return false;
    if (written > 0) text.remove_prefix(static_cast<size_t>(written));
  }
  return true;
}

}  // namespace

FileCopier::FileCopier(std::string siteName)
    : siteName_(std::move(siteName)), piece_(new char[kPiece]) {}

void FileCopier::copy(int from, int to, off_t expected) {
  copyRange(from, to, expected, std::numeric_limits<off_t>::max());
}

void FileCopier::copyWithHoles(int from, int to) {
  off_t at = 0;
  off_t data = 0;
  // No placeholder reaches over a hole, which is of zeros.
  for (; (data = ::lseek(from, at, SEEK_DATA)) >= 0; at = ::lseek(from, 0, SEEK_CUR)) {
    const off_t end = ::lseek(from, data, SEEK_HOLE);
    if (end < 0 || ::lseek(from, data, SEEK_SET) < 0 || ::lseek(to, data - at, SEEK_CUR) < 0 ||
        !copyRange(from, to, end - data, end - data))
      return;
  }
  if (errno != ENXIO) return;
  const off_t end = ::lseek(from, 0, SEEK_END);
  const off_t whole = end > at ? ::lseek(to, end - at, SEEK_CUR) : -1;
  // What cannot be had is missing from there on, as what cannot be written.
  static_cast<void>(whole >= 0 && ::ftruncate(to, whole) == 0);
}

/// @return whether all of `limit` was there and has been written
bool FileCopier::copyRange(int from, int to, off_t expected, off_t limit) {
  size_t held = 0;
  bool more = true;
  while (more && limit > 0) {
    const size_t room = kPiece - held;
    const size_t wanted = limit < static_cast<off_t>(room) ? static_cast<size_t>(limit) : room;
    const ssize_t got = readSome(from, piece_.get() + held, wanted);
    if (got <= 0) break;
    expected -= got;
    limit -= got;
    const std::string_view piece(piece_.get(), held + static_cast<size_t>(got));
    more = expected != 0;
    const ReplacedPiece done = replacePlaceholders(piece, siteName_, replaced_);
    if (!writeAll(to, done.text)) return false;
    held = done.unfinished;
    memmove(piece_.get(), piece.data() + piece.size() - held, held);
  }
  return writeAll(to, std::string_view(piece_.get(), held)) && limit == 0;
}

}  // namespace frask
