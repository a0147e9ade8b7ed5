#include "error/terminate.h"

#include <stdio.h>
#include <stdlib.h>

#include <exception>

namespace frask {

void terminateByExceptionUnsafe() {
  static bool entered = false;
  if (entered) abort();
  entered = true;
  try {
    // terminate() without an exception: a rethrow would only call terminate() again.
    if (std::current_exception() != nullptr) throw;
    fputs("Unexpected error\n", stderr);
  } catch (const std::exception& error) {
    fprintf(stderr, "Unexpected error: %s\n", error.what());
  } catch (...) {
    fputs("Unexpected error\n", stderr);
  }
  exit(1);
}

}  // namespace frask

void oxa_set_terminate(void) {
  std::set_terminate(frask::terminateByExceptionUnsafe);
}
