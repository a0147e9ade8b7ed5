#include "support/swapping.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/futex.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <new>
#include <stdexcept>
#include <thread>

#include "support/tree_listing.h"

namespace testsupport {
namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kPatience = std::chrono::minutes(2);

/// What this process, the one that swaps and the one that runs the routine have in common.
struct Shared {
  std::atomic<int> go{0};
  std::atomic<int> resting{0};  ///< it has seen that it is not to go on
  std::atomic<long> swaps{0};   ///< since the beginning
  std::atomic<long> before{0};  ///< of them, before the routine began
  std::atomic<long> after{-1};  ///< and when it had ended; -1 while it runs
};

Shared& make_shared_memory() {
  void* memory =
      mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) throw std::runtime_error("mmap failed");
  return *new (memory) Shared;
}

/// How many times all pairs are swapped in a row. Then the swapping process sleeps as long as that
/// took: it comes before others, and where it shares a processor with the routine, or each of the
/// two has one of such a process from another test, that would come to nothing.
constexpr int kLongestBurst = 8;
constexpr auto kMoment = std::chrono::microseconds(10);

/// On a busy machine the routine would else be done with before anything is swapped under it, or
/// wait for others while all is. Where this is not allowed, it only takes longer.
void come_first(int priority) {
  const sched_param parameters = {priority};
  static_cast<void>(sched_setscheduler(0, SCHED_RR, &parameters));
}

/// Another process that swaps while it is let.
class Swapper {
 public:
  explicit Swapper(const SwapPlan& plan) : shared_(make_shared_memory()), pid_(fork()) {
    if (pid_ == 0) swap_for_ever(plan);
    if (pid_ < 0) throw std::runtime_error("fork failed");
    await_rest();
  }
  ~Swapper() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    munmap(&shared_, sizeof shared_);
  }
  Swapper(const Swapper&) = delete;
  Swapper& operator=(const Swapper&) = delete;

  Shared& shared() const { return shared_; }

  /// Returns when it swaps.
  void begin() const {
    shared_.before = shared_.swaps.load();
    shared_.resting = 0;
    shared_.go = 1;
    syscall(SYS_futex, &shared_.go, FUTEX_WAKE, 1, nullptr, nullptr, 0);
    while (shared_.swaps == shared_.before) usleep(10);
    shared_.before = shared_.swaps.load();
  }

  /// Takes the count and has it swap no more, in the process of the routine, whichever way that
  /// comes to its end.
  void end() const {
    if (shared_.go == 0) return;
    shared_.after = shared_.swaps.load();
    shared_.go = 0;
  }

  /// Returns when it does not swap any more.
  void await_rest() const {
    while (shared_.resting == 0) {
      if (waitpid(pid_, nullptr, WNOHANG) != 0)
        throw std::runtime_error("the swapping process is gone");
      usleep(10);
    }
  }

 private:
  [[noreturn]] void swap_for_ever(const SwapPlan& plan) const {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (chdir(plan.directory.c_str()) != 0) _exit(97);
    come_first(2);
    for (int round = 0;; ++round) {
      const auto begin = Clock::now();
      for (int burst = round % kLongestBurst; burst >= 0 && shared_.go != 0; --burst)
        swap_all(plan);
      std::this_thread::sleep_for(std::max<Clock::duration>(Clock::now() - begin, kMoment));
      if (shared_.go != 0) continue;
      shared_.resting = 1;
      syscall(SYS_futex, &shared_.go, FUTEX_WAIT, 0, nullptr, nullptr, 0);
    }
  }

  void swap_all(const SwapPlan& plan) const {
    for (const SwappedPair& pair : plan.pairs)
      if (renameat2(AT_FDCWD, pair.entry.c_str(), AT_FDCWD, pair.decoy.c_str(), RENAME_EXCHANGE) ==
          0)
        ++shared_.swaps;
  }

  Shared& shared_;
  pid_t pid_;
};

const Swapper* in_use = nullptr;  ///< in the routine's process

/// Runs the routine in a child, with swapping from its beginning to its end.
void run_swapped(const SwapPlan& plan, const Swapper& swapper) {
  RunOptions options;
  options.input = plan.input;
  swapper.shared().after = -1;
  in_child(
      [&] {
        come_first(1);
        in_use = &swapper;
        atexit([] { in_use->end(); });
        swapper.begin();
        plan.routine();
        swapper.end();
        fflush(nullptr);
        _exit(0);
      },
      options);
  if (swapper.shared().after < 0) throw std::runtime_error("the routine was ended from outside");
  swapper.await_rest();
}

}  // namespace

SwapCounts run_under_swapping(const SwapPlan& plan, long swaps, long runs) {
  const auto give_up = Clock::now() + kPatience;
  const Swapper swapper(plan);
  const std::vector<std::string> untouched = exact_listing(plan.victim);
  usleep(20000);  // so that whatever is done to it from here on shows in its times
  SwapCounts counts;
  while (counts.swaps < swaps || counts.runs < runs) {
    if (Clock::now() > give_up) break;
    plan.rebuild();
    run_swapped(plan, swapper);
    counts.swaps += swapper.shared().after - swapper.shared().before;
    ++counts.runs;
    EXPECT_EQ(exact_listing(plan.victim), untouched) << "after run " << counts.runs;
    if (plan.inspect) plan.inspect();
    if (testing::Test::HasFailure()) break;
  }
  printf("%ld swaps in %ld runs\n", counts.swaps, counts.runs);
  return counts;
}

}  // namespace testsupport
