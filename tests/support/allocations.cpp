#include "support/allocations.h"

#include <errno.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>

#include <new>

// What the calls are handed on to: the sanitizer's allocator where there is one, else the C
// library's. The sanitizer's own checks must not run in here, since the first allocations come
// before it is ready.
#ifdef __SANITIZE_ADDRESS__
#define BELOW(name) __interceptor_##name
#define UNCHECKED __attribute__((no_sanitize("address", "undefined")))
#else
#define BELOW(name) __libc_##name
#define UNCHECKED
#endif

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the libraries' own names
extern "C" {
void* BELOW(malloc)(size_t size);
void* BELOW(calloc)(size_t count, size_t size);
void* BELOW(realloc)(void* memory, size_t size);
void BELOW(free)(void* memory);
}

namespace {

unsigned long to_skip = 0;
unsigned long to_fail = 0;
bool has_failed = false;
unsigned long calls = 0;
long live = 0;

UNCHECKED bool fails_now() {
  ++calls;
  if (to_fail == 0) return false;
  if (to_skip > 0) {
    --to_skip;
    return false;
  }
  --to_fail;
  has_failed = true;
  errno = ENOMEM;
  return true;
}

UNCHECKED void* counted(void* memory) {
  if (memory != nullptr) ++live;
  return memory;
}

}  // namespace

#define EXPORTED UNCHECKED __attribute__((visibility("default")))

extern "C" {

EXPORTED void* malloc(size_t size) {
  return fails_now() ? nullptr : counted(BELOW(malloc)(size));
}

EXPORTED void* calloc(size_t count, size_t size) {
  return fails_now() ? nullptr : counted(BELOW(calloc)(count, size));
}

EXPORTED void* realloc(void* memory, size_t size) {
  if (fails_now()) return nullptr;
  if (memory == nullptr) return counted(BELOW(realloc)(memory, size));
  if (size == 0) --live;
  return BELOW(realloc)(memory, size);
}

EXPORTED void free(void* memory) {
  if (memory != nullptr) --live;
  BELOW(free)(memory);
}

// The sanitizer's own versions of these two would go past the four above.
EXPORTED void* reallocarray(void* memory, size_t count, size_t size) {
  size_t bytes = 0;
  if (!__builtin_mul_overflow(count, size, &bytes)) return realloc(memory, bytes);
  errno = ENOMEM;
  return nullptr;
}

EXPORTED char* strdup(const char* text) {
  const size_t size = strlen(text) + 1;
  void* copy = malloc(size);
  return copy != nullptr ? static_cast<char*>(memcpy(copy, text, size)) : nullptr;
}

// An allocation that can never succeed gives NULL under the sanitizer too, instead of a report.
EXPORTED const char* __asan_default_options() {
  return "allocator_may_return_null=1";
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

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

long live_blocks() {
  return live;
}

unsigned long allocations_so_far() {
  return calls;
}

void fail_allocations(unsigned long skipped, unsigned long failing) {
  to_skip = skipped;
  to_fail = failing;
  has_failed = false;
}

bool stop_failing_allocations() {
  to_fail = 0;
  return has_failed;
}

FailingAllocation::FailingAllocation(unsigned long number) {
  fail_allocations(number - 1, number > 0 ? 1 : 0);
}

FailingAllocation::~FailingAllocation() {
  stop_failing_allocations();
}

bool FailingAllocation::happened() {
  return has_failed;
}

}  // namespace testsupport
