// Runs a road again and again, each time with another of its system calls failing.
#ifndef TESTS_FAULTS_SWEEP_H
#define TESTS_FAULTS_SWEEP_H

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "faults/roads.h"

namespace faults {

/// The numbers that the calls give in turn.
const std::vector<int>& all_errors();

struct SweepOptions {
  std::vector<int> errors = all_errors();
  /// Which of (calls of the program itself) x (errors) are tried: every `own_step`-th, the
  /// `phase`-th first; and of the calls of its children, which are other people's programs.
  int own_step = 1;
  int child_step = 1;
  int phase = 0;
  long only = -1;  ///< the number of the one system call that is tried; -1: all
  std::function<bool()> go_on = [] { return true; };
};

struct SweepResult {
  int calls = 0;         ///< of the road, without those that are left out
  int own_calls = 0;     ///< of them, the program's own
  int faults = 0;        ///< runs in which a call failed
  int missed = 0;        ///< in which it was not made: the order of calls varies
  int unmade_links = 0;  ///< in which tar left a link out and claimed to have done all
  std::set<int> errors;  ///< what the calls gave; 0 where the program was killed
  std::map<std::string, int> outcomes;  ///< how those ended
  std::vector<std::string> complaints;  ///< what must not be
};

/// Each call fails as the options say, or at least one of the road's own; what is expected of every
/// run: it ends by itself, with one of the documented results and messages; nothing outside is
/// touched; a routine has the descriptors that it had, and no others; what claims to have done all
/// has, but for links that tar has left out in silence, of a call of its own; and where there is a
/// state, a run without a fault on what was left comes to what a clean one does, its output and its
/// reports included, or to what the road says instead.
SweepResult sweep(const Road& road, const SweepOptions& options);

/// Kills the program, or all of its processes, at every `step`-th call of it, and expects of the
/// run behind each that its state is that of a clean one.
SweepResult kill_sweep(const Road& road, int step);

/// Runs once with something wrong that `spoil` brings about and `mend` takes away, and expects the
/// same. What has no state must not even notice.
SweepResult run_spoilt(const Road& road, const std::function<void()>& spoil,
                       const std::function<void()>& mend);

/// A command with standard output on a device that takes nothing.
std::vector<std::string> unheard(std::vector<std::string> words);

/// Runs once so, and expects the status, the reports and the state of a clean run.
SweepResult run_unheard(const Road& road);

/// A line for a table.
std::string summary(const Road& road, const SweepResult& result);

}  // namespace faults

#endif
