// What every fuzz target holds to.
#ifndef FUZZ_CHECK_H
#define FUZZ_CHECK_H

#include <stdint.h>
#include <stdlib.h>

#include <string>

/// Ends the run with the input kept where something does not hold.
inline void check(bool holds) {
  if (!holds) abort();
}

/// The input as C strings are read: up to its first NUL byte.
inline std::string c_string(const std::string& bytes) {
  return bytes.substr(0, bytes.find('\0'));
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

#endif
