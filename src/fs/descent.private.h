// Not installed: the way of a walk down into a tree and back up.
#ifndef FRASK_FS_DESCENT_PRIVATE_H
#define FRASK_FS_DESCENT_PRIVATE_H

#include <sys/stat.h>

#include <memory>
#include <utility>

#include "fs/dir_stream.h"
#include "fs/unique_fd.h"

namespace frask {

/// The directories from the top of a tree down to the present one, which is the working directory.
///
/// A client's archive is a thousand levels deep for the asking, and must not leave a store that
/// nobody can remove: the levels are a list and not a recursion, so that they use no stack, and
/// where descriptors run out some give up theirs, to be found again by "..".
///
/// Nothing is reported here. What fails says so by its result and errno; errno is otherwise as it
/// was.
class Descent {
 public:
  /// A directory on the way, and the one that holds it.
  struct Level {
    DirStream dir;
    std::unique_ptr<Level> above;
    struct stat identity = {};  ///< known once the directory has no descriptor any more
    bool failed = false;        ///< for the walk: something in it has failed, and was reported
    bool lost = false;          ///< it has no descriptor, and was not found again

    bool detached() const { return dir.fd() < 0; }
    bool detach();
    bool return_from_below();
  };

  /// @param start  the working directory
  /// @param path   the top, taken from there
  Descent(UniqueFd start, const char* path) : start_(std::move(start)), path_(path) {}

  /// Null before the top was entered, and after it was left.
  Level* present() const { return level_.get(); }

  /// The entry in hand: the one that the present directory gave last, or the top.
  const char* name() const { return level_ ? level_->dir.current()->d_name : path_; }

  /// The directory that holds it; the working directory where there is no descriptor.
  int dir_fd() const {
    const int fd = level_ ? level_->dir.fd() : start_.get();
    return fd < 0 ? AT_FDCWD : fd;
  }

  /// Opens the directory in hand. Null on failure, also where memory runs out.
  std::unique_ptr<Level> open();

  /// Makes what was opened the working directory and the present one.
  bool enter(std::unique_ptr<Level> opened);

  /// Takes the present directory out, which becomes the entry in hand again. The working directory
  /// stays until return_to_present().
  std::unique_ptr<Level> leave();

  /// Goes back from the directory that was left to the one that is present now, or to the start.
  bool return_to_present() const;

  /// close(2)'s result for the start, which is the working directory again.
  int close_start() { return start_.close(); }

  /// Sees to it that `count` more descriptors can be opened, where necessary by giving up those of
  /// directories on the way. False where that is impossible.
  bool reserve(int count);

 private:
  bool give_up_descriptor();

  UniqueFd start_;
  const char* path_;
  std::unique_ptr<Level> level_;
};

}  // namespace frask

#endif
