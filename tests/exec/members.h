// Every routine of the fork/exec family that waits for what it starts.
#ifndef TESTS_EXEC_MEMBERS_H
#define TESTS_EXEC_MEMBERS_H

#include <functional>
#include <string>
#include <vector>

namespace exectest {

/// How the routine starts the program: by posix_spawn() where it can, or by a fork.
enum class Start { kSpawn, kFork };

struct Member {
  const char* name;
  Start start;
  /// Runs a shell that exits with the number in `code`; its exit code as the routine gives it.
  std::function<int(const char* code)> run;
};

/// All of them, the two that only start a program together with the waits for it. fork_execv, which
/// waits for any child, is the last.
const std::vector<Member>& waiting_members();

/// Installs what they run, in a private file system.
void install_for_members();

}  // namespace exectest

#endif
