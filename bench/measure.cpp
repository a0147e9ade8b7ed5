#include "measure.h"

#include <algorithm>
#include <chrono>
#include <vector>

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

double timed(const Contender& contender) {
  if (contender.prepare) contender.prepare();
  const Clock::time_point start = Clock::now();
  contender.run();
  return seconds_since(start);
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const size_t middle = values.size() / 2;
  return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

/// The pairs of ours and one other.
class Pairs {
 public:
  Pairs(const Contender& ours, const std::optional<Contender>& other)
      : ours_(ours), other_(other) {}

  void warm_up() const {
    if (other_) timed(*other_);
  }

  void run_pair(bool ours_first) {
    if (!other_) return;
    const double before = ours_first ? timed(ours_) : 0;
    const double other = timed(*other_);
    our_times.push_back(ours_first ? before : timed(ours_));
    other_times_.push_back(other);
    ratios_.push_back(our_times.back() / other);
  }

  std::optional<Comparison> comparison(int repeats) const {
    if (!other_) return std::nullopt;
    return Comparison{median(other_times_) / repeats, median(ratios_)};
  }

  std::vector<double> our_times;

 private:
  const Contender& ours_;
  const std::optional<Contender>& other_;
  std::vector<double> other_times_;
  std::vector<double> ratios_;
};

}  // namespace

Result measure(const Contenders& contenders, const Plan& plan) {
  Pairs instead(contenders.ours, contenders.instead);
  Pairs limit(contenders.ours, contenders.limit);
  timed(contenders.ours);
  instead.warm_up();
  limit.warm_up();

  const Clock::time_point start = Clock::now();
  for (int i = 0; i < plan.most && (i < plan.least || seconds_since(start) < plan.seconds); ++i) {
    instead.run_pair(i % 2 == 0);
    limit.run_pair(i % 2 != 0);
  }
  std::vector<double> ours = instead.our_times;
  ours.insert(ours.end(), limit.our_times.begin(), limit.our_times.end());
  return {median(std::move(ours)) / contenders.repeats, instead.comparison(contenders.repeats),
          limit.comparison(contenders.repeats)};
}

}  // namespace bench
