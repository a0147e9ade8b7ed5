// malloc() for tests that use memory up: the compiler drops calls whose result nobody uses.
#ifndef TESTS_SUPPORT_OPAQUE_MALLOC_H
#define TESTS_SUPPORT_OPAQUE_MALLOC_H

#include <stdlib.h>

namespace testsupport {

inline void* (*volatile opaque_malloc)(size_t) = malloc;

}  // namespace testsupport

#endif
