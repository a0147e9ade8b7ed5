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

namespace faults {
namespace {

/// Calls that never return, and those that cannot fail, or not as they are made here: the C library
/// takes a failed futex for a broken kernel and aborts.
bool is_left_out(long number) {
  switch (number) {
    case SYS_exit:
    case SYS_exit_group:
    case SYS_rt_sigreturn:
    case SYS_restart_syscall:
    case SYS_getpid:
    case SYS_getppid:
    case SYS_gettid:
    case SYS_getuid:
    case SYS_geteuid:
    case SYS_getgid:
    case SYS_getegid:
    case SYS_umask:
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

testsupport::RunOptions options_of(const Road& road) {
  testsupport::RunOptions options;
  options.input = road.input;
  options.directory = road.directory;
  return options;
}

Outcome run_clean(const Road& road) {
  return testsupport::run(road.words, options_of(road));
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
    if (!contains(found, line)) return "without: " + line;
  for (const std::string& line : found)
    if (!contains(expected, line)) return "has: " + line;
  return "";
}

/// What tar may make of `clean` and end with 0, which is all that the program hears of it: links
/// come last, in the place of empty files; where a look at such a file fails, tar takes it for one
/// that somebody has replaced, and lets it stand.
Lines with_unmade_links(Lines clean, const Lines& found) {
  const std::string link = "l - 0:0 ";
  for (std::string& line : clean) {
    if (line.rfind(link, 0) != 0) continue;
    const std::string path = line.substr(link.size(), line.find(' ', link.size()) - link.size());
    const std::string empty = "f 0644 0:0 " + path + " ";
    if (contains(found, empty)) line = empty;
  }
  return clean;
}

Lines sorted(Lines lines) {
  std::sort(lines.begin(), lines.end());
  return lines;
}

/// What a clean run leaves, and what lies around it.
class Bench {
 public:
  explicit Bench(const Road& road) : road_(road) {
    road.prepare();
    fresh_state_ = state_of(road);
    const FaultedRun run = run_with_fault(road.words, {}, options_of(road));
    clean_outcome_ = run.outcome;
    calls_ = run.calls;
    clean_state_ = state_of(road);
    outside_ = Stage::outside();
    road.prepare();
    if (!(run_clean(road) == clean_outcome_) || state_of(road) != clean_state_)
      fail("is another thing when it is followed");
    SweepResult result;
    if (const std::string complaint = look(clean_outcome_, kSurroundings, result);
        !complaint.empty())
      fail("has a clean run that is none: " + complaint);
  }

  const std::vector<std::vector<long>>& calls() const { return calls_; }

  /// Runs with the fault; false where the call was not made.
  bool try_fault(const CallFault& fault, SweepResult& result) {
    road_.prepare();
    const FaultedRun run = run_with_fault(road_.words, fault, options_of(road_));
    if (!run.met) return false;
    result.errors.insert(fault.error);
    std::string complaint = run.timed_out ? "does not end" : look(run.outcome, fault, result);
    if (complaint.empty()) complaint = look_again(fault);
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
    std::string complaint = look(outcome, kSurroundings, result);
    if (complaint.empty() && road_.state.empty() && !(outcome == clean_outcome_))
      complaint = "has nothing to write there, and ends otherwise\n" + text_of(outcome);
    if (complaint.empty()) complaint = look_again(kSurroundings);
    if (!complaint.empty()) result.complaints.push_back(road_.name + ": " + complaint);
  }

  void run_unheard(SweepResult& result) {
    road_.prepare();
    const Outcome outcome = testsupport::run(unheard(road_.words), options_of(road_));
    ++result.faults;
    ++result.outcomes["unheard"];
    const std::string lack = difference(clean_state_, state_of(road_));
    if (outcome.status != clean_outcome_.status || outcome.err != clean_outcome_.err)
      result.complaints.push_back(road_.name + ": ends otherwise\n" + text_of(outcome));
    else if (!lack.empty())
      result.complaints.push_back(road_.name + ": leaves a state " + lack);
  }

 private:
  std::string where(const CallFault& fault) const {
    std::ostringstream text;
    text << road_.name << ": process " << fault.process << ", system call " << fault.number
         << ", occurrence " << fault.occurrence << ", "
         << (fault.error == 0 ? "killed" : strerrorname_np(fault.error)) << ": ";
    return text.str();
  }

  [[noreturn]] void fail(const std::string& what) const {
    throw std::runtime_error(road_.name + " " + what + "\n" + text_of(clean_outcome_));
  }

  static std::string text_of(const Outcome& outcome) {
    std::ostringstream text;
    text << outcome;
    return text.str();
  }

  static bool is_kill(const CallFault& fault) { return fault.process >= 0 && fault.error == 0; }

  bool is_childs(const CallFault& fault) const {
    return fault.process >= 0 && static_cast<size_t>(fault.process) != road_.own_process;
  }

  std::string look(const Outcome& outcome, const CallFault& fault, SweepResult& result) {
    const Verdict verdict = is_kill(fault)    ? Verdict{"killed", ""}
                            : road_.is_tool() ? verdict_of_tool(outcome, road_, fault)
                                              : verdict_of_routine(outcome, road_, fault);
    ++result.outcomes[verdict.kind];
    if (!verdict.complaint.empty()) return verdict.complaint + "\n" + text_of(outcome);
    if (const std::string harm = difference(outside_, Stage::outside()); !harm.empty())
      return "outside is changed: " + harm;
    if (is_kill(fault) || !road_.claims_all(outcome)) return "";
    const Lines state = state_of(road_);
    std::string lack = difference(clean_state_, state);
    if (!lack.empty() && is_childs(fault) && fault.number == SYS_newfstatat) {
      lack = difference(with_unmade_links(clean_state_, state), state);
      if (lack.empty()) ++result.unmade_links;
    }
    if (!lack.empty())
      return "claims to be done, but its state is " + lack + "\n" + text_of(outcome);
    return "";
  }

  /// Without a state there is nothing that a fault could have left: all else has been compared.
  std::string look_again(const CallFault& fault) {
    if (road_.state.empty()) return "";
    Again expected{"", clean_state_, lines_of(clean_outcome_.err)};
    if (road_.again) expected = road_.again(state_of(road_), fresh_state_, clean_state_);
    if (!expected.complaint.empty() && !is_kill(fault)) return expected.complaint;
    const Outcome outcome = run_clean(road_);
    if (outcome.status != clean_outcome_.status || outcome.out != clean_outcome_.out)
      return "afterwards a run without a fault ends otherwise\n" + text_of(outcome);
    if (sorted(lines_of(outcome.err)) != sorted(expected.reports))
      return "afterwards a run without a fault reports otherwise\n" + text_of(outcome);
    if (const std::string lack = difference(expected.state, state_of(road_)); !lack.empty())
      return "afterwards a run without a fault leaves a state " + lack;
    return "";
  }

  const Road& road_;
  Outcome clean_outcome_;
  Lines fresh_state_;
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
  const auto try_one = [&](size_t process, size_t call, int error) {
    const std::vector<long>& calls = bench.calls()[process];
    const CallFault fault{static_cast<int>(process), calls[call], occurrence(calls, call), error};
    ++(bench.try_fault(fault, result) ? result.faults : result.missed);
  };
  for (size_t process = 0; process < bench.calls().size(); ++process) {
    const std::vector<long>& calls = bench.calls()[process];
    const bool is_own = process == road.own_process;
    for (size_t call = 0; call < calls.size(); ++call) {
      if (is_left_out(calls[call]) || (options.only >= 0 && calls[call] != options.only)) continue;
      ++result.calls;
      if (is_own) ++result.own_calls;
      // Step by step through the errors first: with a step that has no factor in common with their
      // number, every call has its turn with one of them, and so has every error.
      for (const int error : options.errors) {
        const bool chosen = is_own ? (own++ + options.phase) % options.own_step == 0
                                   : (others++ + options.phase) % options.child_step == 0;
        if (!chosen || !can_give(calls[call], error)) continue;
        if (!options.go_on()) return result;
        try_one(process, call, error);
      }
    }
  }
  if (result.faults > 0 || result.own_calls == 0) return result;
  // A road of one or two calls, and not with the errors that were chosen: its last call does.
  const std::vector<long>& calls = bench.calls()[road.own_process];
  for (size_t call = calls.size(); call-- > 0 && result.faults == 0;)
    for (const int error : options.errors)
      if (!is_left_out(calls[call]) && can_give(calls[call], error) && result.faults == 0)
        try_one(road.own_process, call, error);
  return result;
}

SweepResult kill_sweep(const Road& road, int step) {
  Bench bench(road);
  SweepResult result;
  for (size_t process = 0; process < bench.calls().size(); ++process) {
    const std::vector<long>& calls = bench.calls()[process];
    result.calls += static_cast<int>(calls.size());
    if (process == road.own_process) result.own_calls = static_cast<int>(calls.size());
    for (size_t call = 0; call < calls.size(); call += static_cast<size_t>(step))
      for (const bool all : {false, true}) {
        if (process != road.own_process && !all) continue;
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

std::vector<std::string> unheard(std::vector<std::string> words) {
  words.insert(words.begin(), {"/bin/sh", "-c", "exec \"$0\" \"$@\" >/dev/full"});
  return words;
}

SweepResult run_unheard(const Road& road) {
  SweepResult result;
  Bench(road).run_unheard(result);
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
  if (result.unmade_links > 0) text << "; " << result.unmade_links << " times without a link";
  if (result.missed > 0) text << "; " << result.missed << " not met";
  return text.str();
}

}  // namespace faults
