// Not installed: the owner of memory from malloc().
#ifndef FRASK_LOG_C_STRING_PRIVATE_H
#define FRASK_LOG_C_STRING_PRIVATE_H

#include <stddef.h>
#include <stdlib.h>

#include <memory>

namespace frask {

/// free() leaves errno as it was.
struct Free {
  void operator()(void* memory) const noexcept { free(memory); }
};

/// Owns a string, or bytes, that free() takes back.
using CString = std::unique_ptr<char, Free>;

/// Gives the memory another size, as realloc() does. False with errno set, and nothing changed,
/// when there is none.
inline bool resize(CString& memory, size_t size) noexcept {
  char* moved = static_cast<char*>(realloc(memory.get(), size));
  if (moved == nullptr) return false;
  static_cast<void>(memory.release());
  memory.reset(moved);
  return true;
}

}  // namespace frask

#endif
