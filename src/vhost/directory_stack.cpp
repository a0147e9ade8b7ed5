#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <utility>

#include "vhost/directory_stack.private.h"

namespace frask {
namespace {

/// Trees are rarely deeper, and three stacks of it leave room among 64 descriptors.
constexpr size_t kKept = 16;

constexpr int kDirectory = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

bool isLink(int parent_fd, const char* name) noexcept {
  struct stat st = {};
  return ::fstatat(parent_fd, name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode);
}

}  // namespace

UniqueFd openBelow(int parent_fd, const char* name) noexcept {
  UniqueFd fd(::openat(parent_fd, name, kDirectory));
  if (!fd && errno == ENOTDIR) errno = isLink(parent_fd, name) ? ELOOP : ENOTDIR;
  return fd;
}

void DirectoryStack::reset(int bottom_fd) noexcept {
  bottom_fd_ = bottom_fd;
  path_.clear();
  levels_.clear();
}

std::string_view DirectoryStack::name(size_t level) const noexcept {
  const size_t begin = level == 0 ? 0 : levels_[level - 1].path_length + 1;
  return std::string_view(path_).substr(begin, levels_[level].path_length - begin);
}

int DirectoryStack::fd() {
  if (levels_.empty()) return bottom_fd_;
  if (!levels_.back().fd) levels_.back().fd = openByNames();
  return levels_.back().fd.get();
}

bool DirectoryStack::enter(std::string_view name) {
  const int parent = fd();
  if (parent < 0) return false;
  UniqueFd below = openBelow(parent, std::string(name).c_str());
  if (!below) return false;
  enter(name, std::move(below));
  return true;
}

void DirectoryStack::enter(std::string_view name, UniqueFd fd) {
  if (!levels_.empty()) path_ += '/';
  path_ += name;
  levels_.push_back({path_.size(), std::move(fd)});
  if (levels_.size() > kKept) shed(levels_[levels_.size() - 1 - kKept]);
}

void DirectoryStack::leave() noexcept {
  const Level left = std::move(levels_.back());
  levels_.pop_back();
  path_.resize(levels_.empty() ? 0 : levels_.back().path_length);
  if (!levels_.empty() && !levels_.back().fd && left.fd) findAgain(levels_.back(), left.fd.get());
}

void DirectoryStack::shed(Level& level) noexcept {
  struct stat st = {};
  if (!level.fd || ::fstat(level.fd.get(), &st) != 0) return;
  level.device = st.st_dev;
  level.inode = st.st_ino;
  level.fd.reset();
}

/// The directory above one that is left, unless that one has been moved elsewhere meanwhile.
void DirectoryStack::findAgain(Level& level, int below_fd) noexcept {
  UniqueFd above(::openat(below_fd, "..", kDirectory));
  struct stat st = {};
  if (!above || ::fstat(above.get(), &st) != 0) return;
  if (st.st_dev == level.device && st.st_ino == level.inode) level.fd = std::move(above);
}

/// The present directory, from the nearest one above that still has its descriptor.
UniqueFd DirectoryStack::openByNames() const {
  size_t level = levels_.size() - 1;
  while (level > 0 && !levels_[level - 1].fd) --level;
  int parent = level == 0 ? bottom_fd_ : levels_[level - 1].fd.get();
  UniqueFd opened;
  for (; level < levels_.size(); ++level) {
    opened = openBelow(parent, std::string(name(level)).c_str());
    parent = opened.get();
    if (!opened) break;
  }
  return opened;
}

}  // namespace frask
