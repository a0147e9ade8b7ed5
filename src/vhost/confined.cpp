#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <utility>

#include "vhost/confined.private.h"

namespace frask {

ConfinedDirectory::ConfinedDirectory(std::string base) : base_(std::move(base)) {}

ConfinedDirectory::ConfinedDirectory(BaseDirectory base) noexcept : base_(std::move(base)) {
  way_.reset(base_.isOpen() ? base_.fd() : -1);
}

void ConfinedDirectory::hold(UniqueFd fd) noexcept {
  above_.reset();
  way_.reset(fd.get());
  base_.hold(std::move(fd));
}

void ConfinedDirectory::enter(const char* relative, UniqueFd fd) {
  const std::string_view path(relative);
  if (path.empty())
    hold(std::move(fd));
  else
    way_.enter(path.substr(path.rfind('/') + 1), std::move(fd));
}

void ConfinedDirectory::leaveAll() noexcept {
  goUpTo(0);
}

bool ConfinedDirectory::locateMissingBase(Place& place) {
  above_.reset();
  way_.reset(-1);
  return base_.locateWithParents(place);
}

bool ConfinedDirectory::locate(const char* relative, Place& place) {
  const std::string_view path(relative);
  const size_t end = path.find_last_not_of('/') + 1;
  if (end == 0) {
    place = {AT_FDCWD, base_.path().c_str()};
    return true;
  }
  const size_t name = path.rfind('/', end - 1) + 1;
  if (!goTo(path.substr(0, name))) return false;
  place = {way_.fd(), relative + name};
  if (end == path.size()) return true;
  name_ = path.substr(name, end - name);
  place.name = name_.c_str();
  return checkDirectory(place);
}

/// What stands before a separator is passed through, even if nothing follows.
bool ConfinedDirectory::checkDirectory(const Place& place) const noexcept {
  struct stat st = {};
  if (::fstatat(place.dir_fd, place.name, &st, AT_SYMLINK_NOFOLLOW) != 0) return false;
  if (S_ISDIR(st.st_mode)) return true;
  errno = S_ISLNK(st.st_mode) ? ELOOP : ENOTDIR;
  return false;
}

bool ConfinedDirectory::open() {
  const bool opened = base_.isOpen();
  const int fd = base_.fd();
  if (above_ || !opened) {
    above_.reset();
    way_.reset(fd);
  }
  return fd >= 0;
}

/// Most entries have the directory of the one before; it comes with the separator behind it.
bool ConfinedDirectory::isPresent(std::string_view directory) const noexcept {
  const std::string& present = way_.path();
  if (present.empty()) return directory.empty();
  return directory.size() == present.size() + 1 &&
         directory.compare(0, present.size(), present) == 0;
}

/// Goes from the present directory to another: as far as their ways are the same, it has been gone.
bool ConfinedDirectory::goTo(std::string_view directory) {
  if (!open()) return false;
  if (isPresent(directory)) return way_.fd() >= 0;
  size_t depth = 0;
  bool same = true;
  while (!directory.empty()) {
    const std::string_view element = directory.substr(0, directory.find('/'));
    directory.remove_prefix(std::min(element.size() + 1, directory.size()));
    if (element.empty() || element == ".") continue;
    same = same && element != ".." && depth < way_.depth() && way_.name(depth) == element;
    if (!same) goUpTo(depth);
    if (element != "..") {
      if (!same && !way_.enter(element)) return false;
      ++depth;
    } else if (depth > 0) {
      goUpTo(--depth);
    } else if (!goAbove()) {
      return false;
    }
  }
  goUpTo(depth);
  return way_.fd() >= 0;
}

bool ConfinedDirectory::goAbove() {
  UniqueFd above = openBelow(way_.fd(), "..");
  if (!above) return false;
  above_ = std::move(above);
  way_.reset(above_.get());
  return true;
}

void ConfinedDirectory::goUpTo(size_t depth) noexcept {
  while (way_.depth() > depth) way_.leave();
}

}  // namespace frask
