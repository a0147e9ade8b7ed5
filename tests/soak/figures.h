// Descriptors and memory of processes, and whether they stay what they were.
#ifndef TESTS_SOAK_FIGURES_H
#define TESTS_SOAK_FIGURES_H

#include <sys/types.h>

#include <map>
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

/// A figure of many pieces of work, of several kinds that differ in it. The kinds come at random:
/// only what the same kind took at first and at last can be compared.
class FigureByKind {
 public:
  /// `growth`: the ratio of last to first that is allowed.
  FigureByKind(std::string name, double growth) : name_(std::move(name)), growth_(growth) {}

  void note(const std::string& kind, long value) { values_[kind].push_back(value); }

  /// The means of the first and of the last half of each kind's values, on one line.
  std::string summary() const;
  bool is_flat() const;

 private:
  struct Sums {
    long first = 0;
    long last = 0;
    long count = 0;  ///< of either
  };
  Sums sums() const;

  std::string name_;
  double growth_;
  std::map<std::string, std::vector<long>> values_;  ///< in the order in which they came
};

}  // namespace soak

#endif
