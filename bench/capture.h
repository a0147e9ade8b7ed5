// Captured output, as the rows compare it: by popen() and by posix_spawn().
#ifndef BENCH_CAPTURE_H
#define BENCH_CAPTURE_H

#include <string>
#include <vector>

#include "measure.h"

namespace bench {

constexpr long kGibibyte = 1073741824;

struct Command {
  std::vector<std::string> words;  ///< a program's path and at most one argument
  size_t output;                   ///< how many bytes it writes
  int runs;                        ///< how often it is run and captured
};

/// "/bin/true", `runs` times.
Command many_short(int runs);

/// A program that writes 1 GiB.
Command one_long();

/// Runs the command, one time after the other. `capture` runs it once, and gives whether it ended
/// well and its output is complete.
Contender capturing(const Command& command, bool (*capture)(const Command& command));

Contender by_popen(const Command& command);
Contender by_posix_spawn(const Command& command);

}  // namespace bench

#endif
