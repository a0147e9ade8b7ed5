// Counts this program's allocations, and makes chosen ones fail as they do when memory is
// exhausted.
//
// A program that uses anything of this calls malloc, calloc, realloc, reallocarray, strdup, free
// and operator new through it at all times, and so does every library in it. For single-threaded
// programs.
#ifndef TESTS_SUPPORT_ALLOCATIONS_H
#define TESTS_SUPPORT_ALLOCATIONS_H

namespace testsupport {

/// How many blocks were allocated and not freed; only differences between two calls say something.
long live_blocks();

/// How many allocations were asked for since the program began; operator new counts once.
unsigned long allocations_so_far();

/// From now on the next `skipped` allocations succeed, the `failing` ones after them fail as with
/// exhausted memory (ENOMEM, std::bad_alloc), and all later ones succeed.
void fail_allocations(unsigned long skipped, unsigned long failing = 1);

/// Every allocation succeeds again.
/// @return whether any has failed since fail_allocations()
bool stop_failing_allocations();

/// While an object lives, the `number`th allocation (from 1) counted from its construction fails,
/// none for 0. One object at a time.
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
