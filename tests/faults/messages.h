// How a run may end: the documented results and messages.
#ifndef TESTS_FAULTS_MESSAGES_H
#define TESTS_FAULTS_MESSAGES_H

#include <string>
#include <vector>

#include "support/child.h"

namespace faults {

struct Verdict {
  std::string kind;       ///< for a table of outcomes
  std::string complaint;  ///< "" where the outcome is a documented one
};

/// Of the program: the last line is a number of `results`, and so is the exit status; or the status
/// is 1 behind a fatal report. `failed_call` may have been the write of all that.
Verdict verdict_of_tool(const testsupport::Outcome& outcome, const std::vector<int>& results,
                        long failed_call);

/// Of a routine in routine_caller.
Verdict verdict_of_routine(const testsupport::Outcome& outcome, long failed_call);

}  // namespace faults

#endif
