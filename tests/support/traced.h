// Programs under strace.
#ifndef TESTS_SUPPORT_TRACED_H
#define TESTS_SUPPORT_TRACED_H

#include <string>
#include <vector>

#include "support/child.h"

namespace testsupport {

/// How the program and its arguments end under strace with these options, and what it wrote.
Outcome run_traced(const std::vector<std::string>& strace_options,
                   const std::vector<std::string>& program, RunOptions options = {});

/// The calls in strace's log that stand between the program's two marks (counted_part_mark()).
/// Throws std::runtime_error when the log does not hold two.
long counted_calls(const std::string& log_path);

}  // namespace testsupport

#endif
