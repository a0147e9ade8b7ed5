// Lets chosen allocations of the whole process fail. What links this replaces malloc() and operator
// new, so only programs of their own do.
#ifndef TESTS_SUPPORT_FAILING_MEMORY_H
#define TESTS_SUPPORT_FAILING_MEMORY_H

namespace testsupport {

/// From now on the next `skipped` allocations succeed, the `failing` ones after them fail as with
/// exhausted memory (ENOMEM, std::bad_alloc), and all later ones succeed. Counted are malloc(),
/// calloc() and realloc(), those of the libraries included, and operator new once.
void fail_allocations(unsigned skipped, unsigned failing = 1);

/// Every allocation succeeds again.
/// @return whether any has failed since fail_allocations()
bool stop_failing_allocations();

}  // namespace testsupport

#endif
