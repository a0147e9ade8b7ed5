// The tool's processes: started, waited for, and looked at.
#ifndef TESTS_SOAK_RUNS_H
#define TESTS_SOAK_RUNS_H

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "fs/unique_fd.h"
#include "soak/operations.h"

namespace soak {

/// How one process of the tool ended.
struct Ended {
  Operation operation;
  std::string wrong;     ///< what it answered otherwise than it must; empty: nothing
  long peak_memory = 0;  ///< in KiB, the largest of the tool's and of its children's
};

/// Several processes at once. SIGCHLD has to be blocked while there is an object.
class Runs {
 public:
  /// `launcher`: the program that starts the tool (launcher.c).
  Runs(std::string launcher, std::string program, size_t at_once);

  bool has_place() const;
  bool is_empty() const;
  void start(Operation operation);

  /// Waits up to a millisecond for a process to end.
  static void wait_a_little();
  /// A process that has ended, if there is one.
  std::optional<Ended> reap();

 private:
  struct Place {
    frask::UniqueFd out;  ///< files in memory, which live as long as the place
    frask::UniqueFd err;
    frask::UniqueFd report;
    pid_t pid = -1;
    Operation operation;
  };

  std::string launcher_;
  std::string program_;
  std::vector<Place> places_;
};

}  // namespace soak

#endif
