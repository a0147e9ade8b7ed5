// A root directory of its own for one test, in which every change to any place shows.
#ifndef TESTS_TOOL_LAYERED_ROOT_H
#define TESTS_TOOL_LAYERED_ROOT_H

#include <functional>
#include <string>
#include <vector>

#include "support/child.h"

/// The whole root file system under a layer in memory, which receives whatever is written, renamed,
/// removed or given another owner or mode, wherever that may be. "/var/www" and "/dev" are file
/// systems in memory of their own. Nothing of the host is touched; all of it is gone with this
/// process, which is in a mount namespace of its own from then on. Needs root.
class LayeredRoot {
 public:
  /// Throws std::runtime_error with the reason where it cannot be done.
  LayeredRoot();

  /// The place that `path` names inside, as this process reaches it.
  static std::string at(const std::string& path);

  /// Runs a program inside, with no terminal and the words of messages in English.
  static testsupport::Outcome run(const std::vector<std::string>& words);

  /// One line for each entry in the layer and in the two other file systems: type, mode, owner,
  /// group, links, size, device, times of change, path, target of a link. `left_out` and what is
  /// below it is not there, and the directory that holds it is there without what its content
  /// changes.
  static std::vector<std::string> changes(const std::string& left_out);
};

#endif
