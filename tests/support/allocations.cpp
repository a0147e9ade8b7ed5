#include "support/allocations.h"

#include <errno.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>

// What the calls are handed on to: the sanitizer's allocator where there is one, else the C
// library's.
#ifdef __SANITIZE_ADDRESS__
#define BELOW(name) __interceptor_##name
#else
#define BELOW(name) __libc_##name
#endif

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the libraries' own names
extern "C" {
void* BELOW(malloc)(size_t size);
void* BELOW(calloc)(size_t count, size_t size);
void* BELOW(realloc)(void* memory, size_t size);
void BELOW(free)(void* memory);
}

namespace {

unsigned long calls_to_failure = 0;
bool has_failed = false;
unsigned long calls = 0;
long live = 0;

bool fails_now() {
  ++calls;
  if (calls_to_failure == 0 || --calls_to_failure != 0) return false;
  has_failed = true;
  errno = ENOMEM;
  return true;
}

void* counted(void* memory) {
  if (memory != nullptr) ++live;
  return memory;
}

}  // namespace

#define EXPORTED __attribute__((visibility("default")))

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

namespace testsupport {

long live_blocks() {
  return live;
}

unsigned long allocations_so_far() {
  return calls;
}

FailingAllocation::FailingAllocation(unsigned long number) {
  has_failed = false;
  calls_to_failure = number;
}

FailingAllocation::~FailingAllocation() {
  calls_to_failure = 0;
}

bool FailingAllocation::happened() {
  return has_failed;
}

}  // namespace testsupport
