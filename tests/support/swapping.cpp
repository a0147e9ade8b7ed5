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

#include <atomic>
#include <chrono>
#include <new>
#include <stdexcept>

#include "support/tree_listing.h"

namespace testsupport {
namespace {

constexpr auto kPatience = std::chrono::minutes(2);

/// What this process, the one that swaps and the one that runs the routine have in common.
struct Shared {
  std::atomic<int> go{0};
  std::atomic<int> resting{0};
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

/// Another process that swaps while it is let.
class Swapper {
 public:
  explicit Swapper(const SwapPlan& plan) : shared_(make_shared_memory()), pid_(fork()) {
    if (pid_ == 0) swap_for_ever(plan);
    if (pid_ < 0) throw std::runtime_error("fork failed");
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
    const long before = shared_.swaps;
    shared_.resting = 0;
    shared_.go = 1;
    syscall(SYS_futex, &shared_.go, FUTEX_WAKE, 1, nullptr, nullptr, 0);
    wait_until([&] { return shared_.swaps > before; });
  }

  /// Returns when it does not swap any more.
  void rest() const {
    shared_.go = 0;
    wait_until([&] { return shared_.resting != 0; });
  }

 private:
  template <class Condition>
  void wait_until(Condition condition) const {
    while (!condition()) {
      if (waitpid(pid_, nullptr, WNOHANG) != 0)
        throw std::runtime_error("the swapping process is gone");
      sched_yield();
    }
  }

  [[noreturn]] void swap_for_ever(const SwapPlan& plan) const {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (chdir(plan.directory.c_str()) != 0) _exit(97);
    for (;;) {
      for (const SwappedPair& pair : plan.pairs) {
        if (shared_.go == 0) break;
        if (renameat2(AT_FDCWD, pair.entry.c_str(), AT_FDCWD, pair.decoy.c_str(),
                      RENAME_EXCHANGE) == 0)
          ++shared_.swaps;
        else
          sched_yield();
      }
      if (shared_.go != 0) continue;
      shared_.resting = 1;
      syscall(SYS_futex, &shared_.go, FUTEX_WAIT, 0, nullptr, nullptr, 0);
    }
  }

  Shared& shared_;
  pid_t pid_;
};

Shared* counted = nullptr;  ///< in the routine's process

/// Runs the routine in a child, which takes the count of swaps when it begins and when it ends.
void run_counted(const SwapPlan& plan, Shared& shared) {
  RunOptions options;
  options.input = plan.input;
  shared.after = -1;
  in_child(
      [&] {
        counted = &shared;
        atexit([] {
          if (counted->after < 0) counted->after = counted->swaps.load();
        });
        shared.before = shared.swaps.load();
        plan.routine();
        shared.after = shared.swaps.load();
        fflush(nullptr);
        _exit(0);
      },
      options);
  if (shared.after < 0) throw std::runtime_error("the routine was ended from outside");
}

}  // namespace

SwapCounts run_under_swapping(const SwapPlan& plan, long swaps, long runs) {
  const auto give_up = std::chrono::steady_clock::now() + kPatience;
  const Swapper swapper(plan);
  const std::vector<std::string> untouched = exact_listing(plan.victim);
  usleep(20000);  // so that whatever is done to it from here on shows in its times
  SwapCounts counts;
  while (counts.swaps < swaps || counts.runs < runs) {
    if (std::chrono::steady_clock::now() > give_up) break;
    plan.rebuild();
    swapper.begin();
    run_counted(plan, swapper.shared());
    swapper.rest();
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
