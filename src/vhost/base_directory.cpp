#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <utility>

#include "vhost/base_directory.private.h"
#include "vhost/directory_stack.private.h"
#include "vhost/path_text.private.h"

namespace frask {
namespace {

/// A path, cut before its last element.
struct Cut {
  std::string way;
  std::string name;
};

Cut cutBeforeLastElement(std::string_view path) {
  path = withoutTrailingDots(path);
  const size_t name = path.rfind('/') + 1;
  std::string way(path.substr(0, name));
  std::string last(path.substr(name));
  return {way.empty() ? "." : std::move(way), last.empty() ? "." : std::move(last)};
}

/// With the links on the way and the last one.
UniqueFd openByPath(int parent_fd, const std::string& path) noexcept {
  return UniqueFd(::openat(parent_fd, path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
}

UniqueFd makeBelow(int parent_fd, const std::string& name) noexcept {
  const bool made = ::mkdirat(parent_fd, name.c_str(), kPermissions) == 0;
  if (!made && errno != EEXIST) return {};
  UniqueFd fd = openBelow(parent_fd, name.c_str());
  if (!fd && !made) errno = EEXIST;
  return fd;
}

/// Opens a directory by its path; what is missing is created, and entered by its descriptor.
UniqueFd openOrMake(const std::string& path) {
  UniqueFd fd = openByPath(AT_FDCWD, path);
  if (fd || errno != ENOENT) return fd;
  const Cut cut = cutBeforeLastElement(path);
  const UniqueFd parent = openOrMake(cut.way);
  return parent ? makeBelow(parent.get(), cut.name) : UniqueFd();
}

}  // namespace

BaseDirectory::BaseDirectory(std::string path) : path_(std::move(path)) {
  Cut cut = cutBeforeLastElement(path_);
  holderPath_ = std::move(cut.way);
  name_ = std::move(cut.name);
}

int BaseDirectory::fd() {
  if (fd_) return fd_.get();
  if (path_.empty()) {
    errno = ENOENT;
    return -1;
  }
  if (!holder_) holder_ = openByPath(AT_FDCWD, holderPath_);
  if (!holder_) return -1;
  fd_ = passesLink_ ? openByPath(holder_.get(), name_) : openBelow(holder_.get(), name_.c_str());
  return fd_.get();
}

void BaseDirectory::hold(UniqueFd fd) noexcept {
  fd_ = std::move(fd);
}

bool BaseDirectory::locate(Place& place) {
  errno = ENOENT;
  if (!holder_ && !path_.empty()) holder_ = openByPath(AT_FDCWD, holderPath_);
  if (!holder_) return false;
  passesLink_ = false;
  fd_.reset();
  place = {holder_.get(), name_.c_str()};
  return true;
}

bool BaseDirectory::locateWithParents(Place& place) {
  errno = EINVAL;
  if (!holder_ && !path_.empty()) holder_ = openOrMake(holderPath_);
  return holder_ && locate(place);
}

}  // namespace frask
