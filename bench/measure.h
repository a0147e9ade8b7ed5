// Measuring in alternating pairs: what disturbs the machine disturbs both of a pair.
#ifndef BENCH_MEASURE_H
#define BENCH_MEASURE_H

#include <functional>
#include <optional>

namespace bench {

/// One way of doing a work.
struct Contender {
  std::function<void()> prepare;  ///< not timed
  std::function<void()> run;      ///< timed; ends the benchmark when the work was not done
};

/// The ways that are compared.
struct Contenders {
  Contender ours;
  std::optional<Contender> instead;  ///< what a user would run instead
  std::optional<Contender> limit;    ///< nothing but the unavoidable system calls
  int repeats = 1;                   ///< how often one run does the work
};

/// How many pairs are run: `least`, and more until `seconds` have passed or `most` are done.
struct Plan {
  int least;
  int most;
  double seconds;
};

struct Comparison {
  double seconds;  ///< median time of the other, for the work done once
  double ratio;    ///< median of the ratios of ours to the other
};

struct Result {
  double ours;  ///< median, in seconds, for the work done once
  std::optional<Comparison> instead;
  std::optional<Comparison> limit;
};

/// Runs ours and the one other, then ours and the other other, again and again; who begins changes
/// from pair to pair. One run of each goes before and does not count.
Result measure(const Contenders& contenders, const Plan& plan);

}  // namespace bench

#endif
