// Other programs, run without ceremony; a benchmark that cannot do its work ends at once.
#ifndef BENCH_PROGRAM_H
#define BENCH_PROGRAM_H

#include <string>
#include <vector>

namespace bench {

/// Ends the benchmark with status 1 after "bench: <what>" and the system error, if errno is set.
[[noreturn]] void die(const std::string& what);

/// die() unless `done`.
void require(bool done, const std::string& what);

/// Runs a program, searched for, with its output to "/dev/null", and gives its raw wait status.
int run_program(const std::vector<std::string>& words);

/// run_program() that must give 0.
void run_or_die(const std::vector<std::string>& words);

}  // namespace bench

#endif
