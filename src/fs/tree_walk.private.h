// Not installed: the walk that changing and removing a tree have in common.
#ifndef FRASK_FS_TREE_WALK_PRIVATE_H
#define FRASK_FS_TREE_WALK_PRIVATE_H

#include <sys/stat.h>

#include "fs/descent.private.h"

namespace frask {

/// What a walk does to the entries of a tree, each of which it is given as the entry in hand of
/// `at`, with the directory that holds it as the working directory. Each routine reports its own
/// failure and then returns false; an entry that is gone (ENOENT) is no failure.
class TreeAction {
 public:
  /// An entry as its directory lists it, of `type` (a DT_ constant). Most can be dealt with at
  /// once, and looking at each of them first would cost half as much again. False, with nothing
  /// reported, where that is not so or did not work: the entry is then looked at.
  virtual bool on_listed(const Descent& at, unsigned char type) = 0;
  /// An entry that was looked at: it is of the type `mode`, and not a directory.
  virtual bool on_entry(Descent& at, mode_t mode) = 0;
  /// A directory whose contents have been walked.
  virtual bool on_directory(Descent& at) = 0;

 protected:
  ~TreeAction() = default;
};

struct WalkRules {
  int exit_code;       ///< of the walk's own reports: nonzero ends the process at the first one
  bool stop_on_error;  ///< a directory in which something failed is left at once
  bool include_top;    ///< the action is given the top directory, too, and not only what is below
};

/// Walks the directory `path`, depth first and never through a link, and acts on all it holds.
/// Failures are reported through messlog2(). @return whether nothing failed
bool walk_tree(const char* path, const WalkRules& rules, TreeAction& action);

}  // namespace frask

#endif
