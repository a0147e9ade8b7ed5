// Counts this program's allocations, and makes one of them fail as it does when memory is
// exhausted.
//
// A program that uses anything of this calls malloc, calloc, realloc, reallocarray, strdup and free
// through it at all times, and so does every library in it. For single-threaded programs.
#ifndef TESTS_SUPPORT_ALLOCATIONS_H
#define TESTS_SUPPORT_ALLOCATIONS_H

namespace testsupport {

/// How many blocks were allocated and not freed; only differences between two calls say something.
long live_blocks();

/// How many allocations were asked for since the program began.
unsigned long allocations_so_far();

/// While an object lives, the `number`th allocation (from 1) counted from its construction gives
/// NULL with errno ENOMEM. One object at a time.
class FailingAllocation {
 public:
  explicit FailingAllocation(unsigned long number);
  ~FailingAllocation();
  FailingAllocation(const FailingAllocation&) = delete;
  FailingAllocation& operator=(const FailingAllocation&) = delete;

  /// Whether so many allocations were made at all.
  static bool happened();
};

}  // namespace testsupport

#endif
