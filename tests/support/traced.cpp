#include "support/traced.h"

#include <fstream>
#include <stdexcept>

namespace testsupport {

Outcome run_traced(const std::vector<std::string>& strace_options,
                   const std::vector<std::string>& program, RunOptions options) {
  std::vector<std::string> words{"strace", "-qq"};
  words.insert(words.end(), strace_options.begin(), strace_options.end());
  words.insert(words.end(), program.begin(), program.end());
  // Leaks cannot be looked for under a tracer. Memory is to be used again, as without checks; and
  // no clock is to be asked whether it is time to give some back.
  options.environment["ASAN_OPTIONS"] =
      "detect_leaks=0:quarantine_size_mb=0:thread_local_quarantine_size_kb=0:"
      "allocator_release_to_os_interval_ms=-1";
  return run(words, options);
}

long counted_calls(const std::string& log_path) {
  std::ifstream log(log_path);
  int marks = 0;
  long calls = 0;
  for (std::string line; std::getline(log, line);)
    if (line.rfind("getsid(0)", 0) == 0)
      ++marks;
    else if (marks == 1)
      ++calls;
  if (marks != 2) throw std::runtime_error(log_path + " holds " + std::to_string(marks) + " marks");
  return calls;
}

}  // namespace testsupport
