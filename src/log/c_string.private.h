// Not installed: the owner of a string from malloc().
#ifndef FRASK_LOG_C_STRING_PRIVATE_H
#define FRASK_LOG_C_STRING_PRIVATE_H

#include <stdlib.h>

#include <memory>

namespace frask {

struct FreeCString {
  void operator()(char* text) const noexcept { free(text); }
};

/// Owns a string that free() takes back; free() leaves errno as it was.
using CString = std::unique_ptr<char, FreeCString>;

}  // namespace frask

#endif
