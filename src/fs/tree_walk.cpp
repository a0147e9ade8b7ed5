#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <utility>

#include "fs/descent.private.h"
#include "fs/dir_stream.h"
#include "fs/tree_walk.private.h"
#include "fs/unique_fd.h"
#include "log/messlog.h"

namespace frask {
namespace {

class TreeWalk {
 public:
  TreeWalk(UniqueFd start, const char* path, const WalkRules& rules, TreeAction& action)
      : descent_(std::move(start), path), rules_(rules), action_(action) {}

  bool run() {
    enter_directory();
    while (descent_.present() != nullptr) step(*descent_.present());
    return !failed_;
  }

 private:
  void fail() { (descent_.present() != nullptr ? descent_.present()->failed : failed_) = true; }

  void step(Descent::Level& here) {
    if (here.lost || (here.failed && rules_.stop_on_error)) return leave_directory();
    const DirStream::Entry* entry = here.dir.next();
    if (entry == nullptr) return leave_directory();
    if (!action_.on_listed(descent_, entry->d_type)) look_and_act();
  }

  void look_and_act() {
    struct stat st = {};
    if (::fstatat(descent_.dir_fd(), descent_.name(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
      if (errno != ENOENT) report_unchecked();
    } else if (S_ISDIR(st.st_mode)) {
      enter_directory();
    } else if (!action_.on_entry(descent_, st.st_mode)) {
      fail();
    }
  }

  void report_unchecked() {
    messlog2(rules_.exit_code, 1, "Unable to check directory entry %s: %s\n", descent_.name(),
             strerror(errno));
    fail();
  }

  void enter_directory() {
    std::unique_ptr<Descent::Level> opened = descent_.open();
    if (!opened) {
      if (errno == ENOENT) return;
      messlog2(rules_.exit_code, 1, "Unable to open dir %s: %s\n", descent_.name(),
               strerror(errno));
      fail();
    } else if (!descent_.enter(std::move(opened))) {
      messlog2(rules_.exit_code, 1, "Unable to change dir %s: %s\n", descent_.name(),
               strerror(errno));
      fail();
    }
  }

  /// Leaves the present directory, which becomes the entry in hand again.
  void leave_directory() {
    const std::unique_ptr<Descent::Level> left = descent_.leave();
    if (left->failed) fail();
    if (left->dir.failed() && errno != ENOENT) report_unchecked();
    if (!restore()) {
      messlog2(rules_.exit_code, 1, "Unable to restore & close current dir: %s\n", strerror(errno));
      fail();
    }
    if (left->dir.close() != 0) {
      messlog2(rules_.exit_code, 1, "Unable to close dir %s: %s\n", descent_.name(),
               strerror(errno));
      fail();
    }
    const Descent::Level* above = descent_.present();
    const bool act = above != nullptr ? !above->lost : rules_.include_top;
    if (act && !action_.on_directory(descent_)) fail();
  }

  bool restore() {
    if (!descent_.return_to_present()) return false;
    return descent_.present() != nullptr || descent_.close_start() == 0;
  }

  Descent descent_;
  WalkRules rules_;
  TreeAction& action_;
  bool failed_ = false;
};

}  // namespace

bool walk_tree(const char* path, const WalkRules& rules, TreeAction& action) {
  UniqueFd start(::open(".", O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!start) {
    messlog2(rules.exit_code, 1, "Unable to get file descriptor of current dir: %s\n",
             strerror(errno));
    return false;
  }
  return TreeWalk(std::move(start), path, rules, action).run();
}

}  // namespace frask
