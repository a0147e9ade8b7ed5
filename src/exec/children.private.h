// Not installed: who waits for which child.
#ifndef FRASK_EXEC_CHILDREN_PRIVATE_H
#define FRASK_EXEC_CHILDREN_PRIVATE_H

#include <vector>

#include "exec/texec.h"

namespace frask::sys {

/// Leaves a child whose number no caller learns to the next collectAbandoned(). Under memory
/// exhaustion it is forgotten: it stays a zombie for as long as this process runs.
void abandon(int pid) noexcept;

/// Collects those abandoned children that have ended, whichever thread has abandoned them, and
/// forgets those that are no children any more. Never blocks, and leaves errno as it was. It
/// touches no other child, except one that has got the number of an abandoned one that the caller
/// itself collected.
void collectAbandoned() noexcept;

/// The raw status of a child that has ended or stopped; 0 when it is no child of this process, as
/// after execute() has waited for it. Leaves errno as it was. @throws SystemError
int wait_process(const TSLProcess& process);

/// Children for which execute() did not wait; those not settled with in the end are abandoned.
class Unwaited {
 public:
  /// There is room for `most` children: none is lost to an exhausted memory.
  explicit Unwaited(std::size_t most) { pids_.reserve(most); }
  Unwaited(const Unwaited&) = delete;
  Unwaited& operator=(const Unwaited&) = delete;
  ~Unwaited();

  /// Takes note of a child, unless it was waited for or there is none.
  void note(const TExec& command, const TSLProcess& process) noexcept;

  /// wait_process(), and a child that has only stopped is abandoned.
  int settle(const TSLProcess& process);
  void settleAll();

 private:
  std::vector<int> pids_;
};

/// Executes each command and returns the last one's result; the others are noted. A pipe of which
/// the reader is not started, be it for an exception, is closed.
TSLProcess executeInOrder(TExecsList& line, Unwaited& others);

}  // namespace frask::sys

#endif
