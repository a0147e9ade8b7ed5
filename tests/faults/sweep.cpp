#include "faults/sweep.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/syscall.h>

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <stdexcept>

#include "faults/messages.h"
#include "support/call_faults.h"
#include "support/tree_listing.h"

namespace fs = std::filesystem;
using testsupport::CallFault;
using testsupport::FaultedRun;
using testsupport::Outcome;
using testsupport::run_with_fault;
using Lines = std::vector<std::string>;

namespace faults {
namespace {

/// Calls that never return, and those that cannot fail as they are made here: the C library takes a
/// failed futex for a broken kernel and aborts.
bool is_left_out(long number) {
  switch (number) {
    case SYS_exit:
    case SYS_exit_group:
    case SYS_rt_sigreturn:
    case SYS_restart_syscall:
    case SYS_futex:
    case SYS_rt_sigprocmask:
    case SYS_rt_sigaction:
      return true;
    default:
      return false;
  }
}

/// A wait for a child that there is can only be interrupted. Made to fail in another way, it would
/// have the program go on beside a child that still runs, which the kernel sees to that it cannot.
bool can_give(long number, int error) {
  if (number == SYS_wait4 || number == SYS_waitid) return error == EINTR;
  return number != SYS_brk || error == ENOMEM;
}

/// How often the call at `index` has been made up to there.
int occurrence(const std::vector<long>& calls, size_t index) {
  const auto end = calls.begin() + static_cast<std::ptrdiff_t>(index) + 1;
  return static_cast<int>(std::count(calls.begin(), end, calls[index]));
}

Outcome run_once(const Road& road, const CallFault& fault, FaultedRun& run) {
  testsupport::RunOptions options;
  options.input = road.input;
  run = run_with_fault(road.words, fault, options);
  return run.outcome;
}

Outcome run_clean(const Road& road) {
  testsupport::RunOptions options;
  options.input = road.input;
  return testsupport::run(road.words, options);
}

Lines state_of(const Road& road) {
  Lines lines;
  for (const std::string& top : road.state) {
    if (!fs::exists(top)) continue;
    lines.push_back(top);
    for (std::string& line : testsupport::tree_listing(top)) lines.push_back(std::move(line));
  }
  return lines;
}

/// What stands in one and not in the other, the first of it.
std::string difference(const Lines& expected, const Lines& found) {
  for (const std::string& line : expected)
    if (std::find(found.begin(), found.end(), line) == found.end()) return "without: " + line;
  for (const std::string& line : found)
    if (std::find(expected.begin(), expected.end(), line) == expected.end()) return "has: " + line;
  return "";
}

/// What a clean run leaves, and what lies around it.
class Bench {
 public:
  explicit Bench(const Road& road) : road_(road) {
    road.prepare();
    FaultedRun run;
    clean_outcome_ = run_once(road, {}, run);
    calls_ = run.calls;
    clean_state_ = state_of(road);
    outside_ = Stage::outside();
    road.prepare();
    if (run_clean(road).status != clean_outcome_.status || state_of(road) != clean_state_)
      throw std::runtime_error(road.name +
                               " is another thing when it is followed: " + clean_outcome_.err);
  }

  const std::vector<std::vector<long>>& calls() const { return calls_; }

  /// Runs with the fault; false where the call was not made.
  bool try_fault(const CallFault& fault, SweepResult& result) {
    road_.prepare();
    FaultedRun run;
    const Outcome outcome = run_once(road_, fault, run);
    if (!run.met) return false;
    std::string complaint =
        run.timed_out ? "does not end" : look(outcome, fault.error == 0, fault.number, result);
    if (complaint.empty()) complaint = look_again();
    if (!complaint.empty()) result.complaints.push_back(where(fault) + complaint);
    return true;
  }

  void run_spoilt(const std::function<void()>& spoil, const std::function<void()>& mend,
                  SweepResult& result) {
    road_.prepare();
    spoil();
    const Outcome outcome = run_clean(road_);
    mend();
    ++result.faults;
    std::string complaint = look(outcome, false, -1, result);
    if (complaint.empty()) complaint = look_again();
    if (!complaint.empty()) result.complaints.push_back(road_.name + ": " + complaint);
  }

 private:
  std::string where(const CallFault& fault) const {
    std::ostringstream text;
    text << road_.name << ": process " << fault.process << ", system call " << fault.number
         << ", occurrence " << fault.occurrence << ", "
         << (fault.error == 0 ? "killed" : strerrorname_np(fault.error)) << ": ";
    return text.str();
  }

  std::string look(const Outcome& outcome, bool killed, long number, SweepResult& result) {
    const Verdict verdict = killed            ? Verdict{"killed", ""}
                            : road_.is_tool() ? verdict_of_tool(outcome, road_.results, number)
                                              : verdict_of_routine(outcome, number);
    ++result.outcomes[verdict.kind];
    if (!verdict.complaint.empty()) {
      std::ostringstream text;
      text << verdict.complaint << "\n" << outcome;
      return text.str();
    }
    if (const std::string harm = difference(outside_, Stage::outside()); !harm.empty())
      return "outside is changed: " + harm;
    if (!killed && road_.claims_all(outcome))
      if (const std::string lack = difference(clean_state_, state_of(road_)); !lack.empty()) {
        std::ostringstream text;
        text << "claims to be done, but its state is " << lack << "\n" << outcome;
        return text.str();
      }
    return "";
  }

  std::string look_again() {
    if (road_.state.empty()) return "";
    if (!road_.is_tool()) road_.prepare();
    const Outcome outcome = run_clean(road_);
    std::ostringstream text;
    if (outcome.status != clean_outcome_.status)
      text << "afterwards a run without a fault ends otherwise\n" << outcome;
    else if (const std::string lack = difference(clean_state_, state_of(road_)); !lack.empty())
      text << "afterwards a run without a fault leaves a state " << lack;
    return text.str();
  }

  const Road& road_;
  Outcome clean_outcome_;
  Lines clean_state_;
  Lines outside_;
  std::vector<std::vector<long>> calls_;
};

}  // namespace

const std::vector<int>& all_errors() {
  static const std::vector<int> errors{EIO, EACCES, ENOSPC, EMFILE, ENOMEM, EINTR};
  return errors;
}

SweepResult sweep(const Road& road, const SweepOptions& options) {
  Bench bench(road);
  SweepResult result;
  int own = 0;
  int others = 0;
  for (size_t process = 0; process < bench.calls().size(); ++process) {
    const std::vector<long>& calls = bench.calls()[process];
    for (size_t call = 0; call < calls.size(); ++call) {
      if (is_left_out(calls[call])) continue;
      ++result.calls;
      if (process == 0) ++result.own_calls;
      // Step by step through the errors first: with a step that has no factor in common with their
      // number, every call has its turn with one of them, and so has every error.
      for (const int error : options.errors) {
        const bool chosen = process == 0 ? (own++ + options.phase) % options.own_step == 0
                                         : (others++ + options.phase) % options.child_step == 0;
        if (!chosen || !can_give(calls[call], error)) continue;
        if (!options.go_on()) return result;
        const CallFault fault{static_cast<int>(process), calls[call], occurrence(calls, call),
                              error};
        ++(bench.try_fault(fault, result) ? result.faults : result.missed);
      }
    }
  }
  return result;
}

SweepResult kill_sweep(const Road& road, int step) {
  Bench bench(road);
  SweepResult result;
  for (size_t process = 0; process < bench.calls().size(); ++process) {
    const std::vector<long>& calls = bench.calls()[process];
    result.calls += static_cast<int>(calls.size());
    if (process == 0) result.own_calls = static_cast<int>(calls.size());
    for (size_t call = 0; call < calls.size(); call += static_cast<size_t>(step))
      for (const bool all : {false, true}) {
        if (process != 0 && !all) continue;
        const CallFault fault{static_cast<int>(process), calls[call], occurrence(calls, call), 0,
                              all};
        ++(bench.try_fault(fault, result) ? result.faults : result.missed);
      }
  }
  return result;
}

SweepResult run_spoilt(const Road& road, const std::function<void()>& spoil,
                       const std::function<void()>& mend) {
  SweepResult result;
  Bench(road).run_spoilt(spoil, mend, result);
  return result;
}

std::string summary(const Road& road, const SweepResult& result) {
  std::ostringstream text;
  text << road.name << ": " << result.calls << " calls, " << result.own_calls << " own; "
       << result.faults << " faults";
  const char* separator = ": ";
  for (const auto& [kind, count] : result.outcomes) {
    text << separator << count << " " << kind;
    separator = ", ";
  }
  if (result.missed > 0) text << "; " << result.missed << " not met";
  return text.str();
}

}  // namespace faults
