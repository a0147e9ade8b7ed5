#include "support/failing_memory.h"

#include <errno.h>
#include <stddef.h>
#include <stdlib.h>

#include <new>

// The allocator below: AddressSanitizer's where it is linked, the C library's otherwise. Its own
// checks must not run in here, since the first allocations come before it is ready.
#ifdef __SANITIZE_ADDRESS__
#define TEST_ALLOCATOR(name) __interceptor_##name
#define TEST_UNCHECKED __attribute__((no_sanitize("address", "undefined")))
#else
#define TEST_ALLOCATOR(name) __libc_##name
#define TEST_UNCHECKED
#endif

extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c): these are the allocator's own names
void* TEST_ALLOCATOR(malloc)(size_t size);
void* TEST_ALLOCATOR(calloc)(size_t count, size_t size);
void* TEST_ALLOCATOR(realloc)(void* block, size_t size);
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c)
}

namespace {

bool armed = false;
unsigned to_skip = 0;
unsigned to_fail = 0;
bool has_failed = false;

TEST_UNCHECKED bool fails_now() {
  if (!armed) return false;
  if (to_skip > 0) {
    --to_skip;
    return false;
  }
  if (to_fail == 0) return false;
  --to_fail;
  has_failed = true;
  errno = ENOMEM;
  return true;
}

}  // namespace

extern "C" {

TEST_UNCHECKED void* malloc(size_t size) {
  return fails_now() ? nullptr : TEST_ALLOCATOR(malloc)(size);
}

TEST_UNCHECKED void* calloc(size_t count, size_t size) {
  return fails_now() ? nullptr : TEST_ALLOCATOR(calloc)(count, size);
}

TEST_UNCHECKED void* realloc(void* block, size_t size) {
  return fails_now() ? nullptr : TEST_ALLOCATOR(realloc)(block, size);
}
}

// AddressSanitizer's own operator new does not come by malloc().
void* operator new(size_t size) {
  void* block = malloc(size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

void* operator new(size_t size, const std::nothrow_t& /*tag*/) noexcept {
  return malloc(size);
}

void operator delete(void* block) noexcept {
  free(block);
}

void operator delete(void* block, size_t /*size*/) noexcept {
  free(block);
}

namespace testsupport {

void fail_allocations(unsigned skipped, unsigned failing) {
  to_skip = skipped;
  to_fail = failing;
  has_failed = false;
  armed = true;
}

bool stop_failing_allocations() {
  armed = false;
  return has_failed;
}

}  // namespace testsupport
