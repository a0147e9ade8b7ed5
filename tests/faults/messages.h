// How a run may end: the documented results and messages.
#ifndef TESTS_FAULTS_MESSAGES_H
#define TESTS_FAULTS_MESSAGES_H

#include <string>

#include "faults/roads.h"
#include "support/call_faults.h"
#include "support/child.h"

namespace faults {

struct Verdict {
  std::string kind;       ///< for a table of outcomes
  std::string complaint;  ///< "" where the outcome is a documented one
};

std::vector<std::string> lines_of(const std::string& text);
bool contains(const Lines& lines, const std::string& line);

/// A fault that is not one of a call, but of what lies around the process.
constexpr testsupport::CallFault kSurroundings{};

/// Of the program. Either the last line of its output is one of its answers, which is its status,
/// too, and only what may stand ahead of that answer does; or it is a fatal report, and the status
/// 1. Each report is documented and stands on both streams. Another answer than that of a clean run
/// comes of a fault in a child alone, or in its start. Where the failed call was to write all that,
/// it may be missing, but the status is right.
Verdict verdict_of_tool(const testsupport::Outcome& outcome, const Road& road,
                        const testsupport::CallFault& fault);

/// Of a routine in routine_caller: it has come back, thrown what it is documented to throw, or
/// ended the process with 1 behind a fatal report. The descriptors are as they were.
Verdict verdict_of_routine(const testsupport::Outcome& outcome, const Road& road,
                           const testsupport::CallFault& fault);

}  // namespace faults

#endif
