// Runs a program and makes one of its system calls fail, or kills it there.
#ifndef TESTS_SUPPORT_CALL_FAULTS_H
#define TESTS_SUPPORT_CALL_FAULTS_H

#include <string>
#include <vector>

#include "support/child.h"

namespace testsupport {

/// The `occurrence`-th call, from 1, of a system call by the `process`-th process: 0 is the program
/// itself, the others are its descendants in the order in which they are started. Of the program
/// itself, calls count behind the mark that main() makes, fcntl(0, F_GETFD): those of the dynamic
/// loader come before. They count up to fcntl(kEndMark, F_GETFD), where a program makes that call.
struct CallFault {
  int process = -1;  ///< -1: nothing fails
  long number = -1;
  int occurrence = 0;
  int error = 0;          ///< what the call gives; 0: SIGKILL comes instead of the call
  bool kill_all = false;  ///< SIGKILL comes to all the processes
};

constexpr int kEndMark = -4242;

struct FaultedRun {
  Outcome outcome;
  bool met = false;        ///< whether the call was made
  bool timed_out = false;  ///< it did not end by itself; all of it was killed
  /// The numbers of the calls of each process, where nothing was to fail.
  std::vector<std::vector<long>> calls;
};

/// Runs a program, found as execve() finds it, and waits for it and all that it has started. A call
/// that is to fail is not made, but for close(), which frees the descriptor whatever it gives, and
/// brk(), whose failure is a break that stays where it is, without an error number.
FaultedRun run_with_fault(const std::vector<std::string>& arguments, const CallFault& fault,
                          const RunOptions& options = {}, unsigned seconds = 120);

}  // namespace testsupport

#endif
