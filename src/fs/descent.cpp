#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <new>
#include <utility>

#include "fs/descent.private.h"
#include "fs/unique_fd.h"

namespace frask {
namespace {

bool out_of_descriptors() {
  return errno == EMFILE || errno == ENFILE;
}

bool can_open(int count) {
  if (count == 0) return true;
  const UniqueFd spare(::open("/", O_PATH | O_CLOEXEC));
  return spare && can_open(count - 1);
}

}  // namespace

/// Frees the descriptor: from then on the directory is reached as the working directory only.
bool Descent::Level::detach() {
  return ::fstat(dir.fd(), &identity) == 0 && dir.detach();
}

/// Makes it the working directory again, when a directory in it has been left.
bool Descent::Level::return_from_below() {
  if (!detached()) return ::fchdir(dir.fd()) == 0;
  lost = true;
  struct stat here = {};
  if (::chdir("..") != 0 || ::stat(".", &here) != 0) return false;
  lost = here.st_dev != identity.st_dev || here.st_ino != identity.st_ino;
  if (lost) errno = ESTALE;  // the directory left has been moved to another place meanwhile
  return !lost;
}

std::unique_ptr<Descent::Level> Descent::open() {
  const int error = errno;
  std::unique_ptr<Level> opened(new (std::nothrow) Level);
  if (!opened || opened->dir.open(dir_fd(), name())) return opened;
  while (out_of_descriptors() && give_up_descriptor()) {
    errno = error;
    if (opened->dir.open(dir_fd(), name())) return opened;
  }
  return nullptr;
}

bool Descent::enter(std::unique_ptr<Level> opened) {
  if (::fchdir(opened->dir.fd()) != 0) return false;
  opened->above = std::move(level_);
  level_ = std::move(opened);
  return true;
}

std::unique_ptr<Descent::Level> Descent::leave() {
  std::unique_ptr<Level> left = std::move(level_);
  level_ = std::move(left->above);
  return left;
}

bool Descent::return_to_present() const {
  return level_ ? level_->return_from_below() : ::fchdir(start_.get()) == 0;
}

bool Descent::reserve(int count) {
  const int error = errno;
  while (!can_open(count))
    if (!out_of_descriptors() || !give_up_descriptor()) return false;
  errno = error;
  return true;
}

/// The present directory comes first, then the nearest above it: the descriptors that are left then
/// belong to the upper levels, and going back up from below these needs "..".
bool Descent::give_up_descriptor() {
  if (!level_) return false;
  // It may not be the working directory any more, when an earlier way back has failed.
  if (!level_->detached()) return ::fchdir(level_->dir.fd()) == 0 && level_->detach();
  for (Level* level = level_->above.get(); level != nullptr; level = level->above.get())
    if (!level->detached()) return level->detach();
  return false;
}

}  // namespace frask
