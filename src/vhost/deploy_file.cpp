#include <errno.h>
#include <string.h>
#include <unistd.h>

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
  size_t held = 0;
  bool more = true;
  while (more) {
    const ssize_t got = readSome(from, piece_.get() + held, kPiece - held);
    if (got <= 0) break;
    expected -= got;
    const std::string_view piece(piece_.get(), held + static_cast<size_t>(got));
    more = expected != 0;
    const ReplacedPiece done = replacePlaceholders(piece, siteName_, replaced_);
    if (!writeAll(to, done.text)) return;
    held = done.unfinished;
    memmove(piece_.get(), piece.data() + piece.size() - held, held);
  }
  writeAll(to, std::string_view(piece_.get(), held));
}

}  // namespace frask
