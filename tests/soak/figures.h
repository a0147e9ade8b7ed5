// Descriptors and memory of processes, and whether they stay what they were.
#ifndef TESTS_SOAK_FIGURES_H
#define TESTS_SOAK_FIGURES_H

#include <sys/types.h>

#include <set>
#include <string>
#include <vector>

namespace soak {

/// The numbers of the processes that there are, in this process's namespace.
std::set<pid_t> present_processes();

/// The name that a process gives itself; empty when it has ended.
std::string process_name(pid_t pid);

long count_descriptors(pid_t pid);
/// What lies in memory of a process, in KiB.
long resident_memory(pid_t pid);
/// What this process has allocated from the heap and not freed, in bytes.
long allocated_memory();

/// One figure, looked at again and again while some work is done.
class Figure {
 public:
  /// `allowance`: by how much the last tenth may be above the first one.
  Figure(std::string name, long allowance) : name_(std::move(name)), allowance_(allowance) {}

  /// `progress`: the share of the work that is done, 0 to 1.
  void note(double progress, long value);

  /// The largest value of each tenth, on one line.
  std::string summary() const;
  /// Whether the largest value of the last tenth is not above that of the first by more than is
  /// allowed; no when one of these was never looked at.
  bool is_flat() const;

 private:
  static constexpr size_t kTenths = 10;

  std::string name_;
  long allowance_;
  std::vector<long> largest_ = std::vector<long>(kTenths, -1);
};

}  // namespace soak

#endif
