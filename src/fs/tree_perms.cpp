#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fs/mode_setter.private.h"
#include "fs/tree.h"
#include "fs/tree_walk.private.h"
#include "log/messlog.h"

namespace {

using frask::Descent;

/// A change of every regular file and directory of a tree. Its failures end the process.
class TreeChange : public frask::TreeAction {
 public:
  /// The starting point, found to be a regular file.
  virtual void on_top_file(const char* path) = 0;

  /// A change is not taken back, and a listing may be old: each entry is looked at first.
  bool on_listed(const Descent& /*at*/, unsigned char /*type*/) override { return false; }

 protected:
  ~TreeChange() = default;
};

class OwnerChange final : public TreeChange {
 public:
  OwnerChange(uid_t owner, gid_t group) : owner_(owner), group_(group) {}

  void on_top_file(const char* path) override {
    if (!changed(AT_FDCWD, path))
      messlog2(1, 1, "Unable to chown directory entry %s: %s\n", path, strerror(errno));
  }

  bool on_entry(Descent& at, mode_t mode) override {
    if (S_ISREG(mode) && !changed(at.dir_fd(), at.name()))
      messlog2(1, 1, "Unable to chown directory entry %s: %s\n", at.name(), strerror(errno));
    return true;
  }

  bool on_directory(Descent& at) override {
    if (!changed(at.dir_fd(), at.name()))
      messlog2(1, 1, "Unable to chown dir %s: %s\n", at.name(), strerror(errno));
    return true;
  }

 private:
  bool changed(int dir_fd, const char* name) const {
    return ::fchownat(dir_fd, name, owner_, group_, AT_SYMLINK_NOFOLLOW) == 0 || errno == ENOENT;
  }

  uid_t owner_;
  gid_t group_;
};

class ModeChange final : public TreeChange {
 public:
  ModeChange(mode_t file_mode, mode_t dir_mode) : file_mode_(file_mode), dir_mode_(dir_mode) {}

  void on_top_file(const char* path) override {
    if (!setter_.set(AT_FDCWD, path, file_mode_) && errno != ENOENT)
      messlog2(1, 1, "Unable to chmod entry %s: %s\n", path, strerror(errno));
  }

  bool on_entry(Descent& at, mode_t mode) override {
    if (S_ISREG(mode) && !changed(at, file_mode_))
      messlog2(1, 1, "Unable to chmod directory entry %s: %s\n", at.name(), strerror(errno));
    return true;
  }

  bool on_directory(Descent& at) override {
    if (!changed(at, dir_mode_))
      messlog2(1, 1, "Unable to chmod dir %s: %s\n", at.name(), strerror(errno));
    return true;
  }

 private:
  /// Whether the entry in hand has the mode, or is gone.
  bool changed(Descent& at, mode_t mode) {
    const int error = errno;
    if (setter_.set(at.dir_fd(), at.name(), mode)) return true;
    if ((errno == EMFILE || errno == ENFILE) && at.reserve(1)) {
      errno = error;
      if (setter_.set(at.dir_fd(), at.name(), mode)) return true;
    }
    return errno == ENOENT;
  }

  mode_t file_mode_;
  mode_t dir_mode_;
  frask::ModeSetter setter_;
};

void change_tree(const char* path, int include_top, TreeChange& change) {
  struct stat st = {};
  if (::lstat(path, &st) != 0) {
    if (errno == ENOENT)
      messlog2(0, 1, "Directory entry %s doesn't exist: %s\n", path, strerror(errno));
    else
      messlog2(1, 1, "Unable to get entry %s: %s\n", path, strerror(errno));
    return;
  }
  if (S_ISLNK(st.st_mode)) return;
  if (S_ISREG(st.st_mode)) return change.on_top_file(path);
  frask::walk_tree(path, {1, true, include_top != 0}, change);
}

}  // namespace

void chown_tree(const char* path, uid_t owner, gid_t group, int include_top) {
  OwnerChange change(owner, group);
  change_tree(path, include_top, change);
}

void chmod_tree(const char* path, mode_t file_mode, mode_t dir_mode, int include_top) {
  ModeChange change(file_mode, dir_mode);
  change_tree(path, include_top, change);
}

int tree_set_perms(const char* path, uid_t owner, gid_t group, mode_t file_mode, mode_t dir_mode,
                   int include_top) {
  chown_tree(path, owner, group, include_top);
  chmod_tree(path, file_mode, dir_mode, include_top);
  return 0;
}
