#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <new>
#include <utility>

#include "fs/dir_stream.h"
#include "fs/tree_walk.private.h"
#include "fs/unique_fd.h"
#include "log/messlog.h"

namespace frask {
namespace {

/// A directory on the way down from the top, and the one that holds it. The levels are a list and
/// not a recursion, so that a deep tree cannot exhaust the stack.
struct Level {
  DirStream dir;
  std::unique_ptr<Level> above;
  struct stat identity = {};  ///< known once the directory has no descriptor any more
  bool failed = false;        ///< something in it has failed, and was reported
  bool lost = false;          ///< it has no descriptor, and was not found again

  bool detached() const { return dir.fd() < 0; }

  /// Frees the descriptor: from then on the directory is reached as the working directory only.
  bool detach() {
    return !detached() && ::fchdir(dir.fd()) == 0 && ::fstat(dir.fd(), &identity) == 0 &&
           dir.detach();
  }

  /// Makes it the working directory again, when a directory in it has been left.
  bool return_from_below() {
    if (!detached()) return ::fchdir(dir.fd()) == 0;
    lost = true;
    struct stat here = {};
    if (::chdir("..") != 0 || ::stat(".", &here) != 0) return false;
    lost = here.st_dev != identity.st_dev || here.st_ino != identity.st_ino;
    if (lost) errno = ESTALE;  // the directory left has been moved to another place meanwhile
    return !lost;
  }
};

class TreeWalk {
 public:
  TreeWalk(const char* path, const WalkRules& rules, TreeAction& action)
      : path_(path), rules_(rules), action_(action) {}

  bool run() {
    start_.reset(::open(".", O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!start_) {
      messlog2(rules_.exit_code, 1, "Unable to get file descriptor of current dir: %s\n",
               strerror(errno));
      return false;
    }
    enter_directory();
    while (level_ != nullptr) step();
    return !failed_;
  }

 private:
  /// The entry in hand: the one that the present directory gave last, or the top.
  const char* name() const { return level_ ? level_->dir.current()->d_name : path_; }

  /// The directory that holds it; the working directory where there is no descriptor.
  int dir_fd() const {
    const int fd = level_ ? level_->dir.fd() : start_.get();
    return fd < 0 ? AT_FDCWD : fd;
  }

  void fail() { (level_ ? level_->failed : failed_) = true; }

  void step() {
    if (level_->lost || (level_->failed && rules_.stop_on_error)) return leave_directory();
    const DirStream::Entry* entry = level_->dir.next();
    if (entry == nullptr) return leave_directory();
    if (!action_.on_listed(dir_fd(), entry->d_name, entry->d_type)) look_and_act();
  }

  void look_and_act() {
    struct stat st = {};
    if (::fstatat(dir_fd(), name(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
      if (errno != ENOENT) report_unchecked();
    } else if (S_ISDIR(st.st_mode)) {
      enter_directory();
    } else if (!action_.on_entry(dir_fd(), name(), st.st_mode)) {
      fail();
    }
  }

  void report_unchecked() {
    messlog2(rules_.exit_code, 1, "Unable to check directory entry %s: %s\n", name(),
             strerror(errno));
    fail();
  }

  void enter_directory() {
    std::unique_ptr<Level> entered(new (std::nothrow) Level);
    if (!entered || !open_directory(entered->dir)) {
      if (errno == ENOENT) return;
      messlog2(rules_.exit_code, 1, "Unable to open dir %s: %s\n", name(), strerror(errno));
      return fail();
    }
    if (::fchdir(entered->dir.fd()) != 0) {
      messlog2(rules_.exit_code, 1, "Unable to change dir %s: %s\n", name(), strerror(errno));
      return fail();
    }
    entered->above = std::move(level_);
    level_ = std::move(entered);
  }

  /// Opens the directory in hand. Where descriptors run out, the one that holds it gives up its own
  /// and the working directory stands in for it: a client's archive is a thousand levels deep for
  /// the asking, and must not leave a store that nobody can remove.
  bool open_directory(DirStream& dir) {
    const int error = errno;
    if (dir.open(dir_fd(), name())) return true;
    if ((errno != EMFILE && errno != ENFILE) || !level_ || !level_->detach()) return false;
    errno = error;
    return dir.open(dir_fd(), name());
  }

  /// Leaves the present directory, which becomes the entry in hand again.
  void leave_directory() {
    const std::unique_ptr<Level> left = std::move(level_);
    level_ = std::move(left->above);
    if (left->failed) fail();
    if (left->dir.failed() && errno != ENOENT) report_unchecked();
    if (!restore()) {
      messlog2(rules_.exit_code, 1, "Unable to restore & close current dir: %s\n", strerror(errno));
      fail();
    }
    if (left->dir.close() != 0) {
      messlog2(rules_.exit_code, 1, "Unable to close dir %s: %s\n", name(), strerror(errno));
      fail();
    }
    const bool act = level_ ? !level_->lost : rules_.include_top;
    if (act && !action_.on_directory(dir_fd(), name())) fail();
  }

  bool restore() {
    if (level_) return level_->return_from_below();
    return ::fchdir(start_.get()) == 0 && start_.close() == 0;
  }

  const char* path_;
  WalkRules rules_;
  TreeAction& action_;
  UniqueFd start_;  ///< the working directory at the call
  std::unique_ptr<Level> level_;
  bool failed_ = false;
};

}  // namespace

bool walk_tree(const char* path, const WalkRules& rules, TreeAction& action) {
  return TreeWalk(path, rules, action).run();
}

}  // namespace frask
