#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fs/tree.h"
#include "fs/tree_walk.private.h"
#include "log/messlog.h"

namespace {

using frask::Descent;

/// Whether an entry is no longer there.
bool removed(int dir_fd, const char* name, int flags) {
  return ::unlinkat(dir_fd, name, flags) == 0 || errno == ENOENT;
}

class Removal final : public frask::TreeAction {
 public:
  bool on_listed(const Descent& at, unsigned char type) override {
    return type != DT_DIR && type != DT_UNKNOWN && removed(at.dir_fd(), at.name(), 0);
  }

  bool on_entry(Descent& at, mode_t /*mode*/) override {
    if (removed(at.dir_fd(), at.name(), 0)) return true;
    messlog2(0, 1, "Unable to unlink directory entry %s: %s\n", at.name(), strerror(errno));
    return false;
  }

  bool on_directory(Descent& at) override {
    if (removed(at.dir_fd(), at.name(), AT_REMOVEDIR)) return true;
    messlog2(0, 1, "Unable to remove dir %s: %s\n", at.name(), strerror(errno));
    return false;
  }
};

}  // namespace

int rm_tree_aux(const char* path, int remove_top, int stop_on_error) {
  struct stat st = {};
  if (::lstat(path, &st) != 0) {
    if (errno == ENOENT) return 0;
    messlog2(0, 1, "Unable to check directory entry %s: %s\n", path, strerror(errno));
    return 1;
  }
  if (S_ISREG(st.st_mode) || S_ISLNK(st.st_mode)) {
    if (removed(AT_FDCWD, path, 0)) return 0;
    messlog2(0, 1, "Unable to unlink entry %s: %s\n", path, strerror(errno));
    return 1;
  }
  Removal removal;
  return frask::walk_tree(path, {0, stop_on_error != 0, remove_top != 0}, removal) ? 0 : 1;
}

void rm_tree(const char* path, int remove_top) {
  if (rm_tree_aux(path, remove_top, 1) != 0) exit(EXIT_FAILURE);
}
