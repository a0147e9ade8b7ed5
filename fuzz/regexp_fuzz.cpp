// Whatever the text, its quoted form compiles, and matches the whole text and nothing around it.
#include <stdint.h>
#include <stdlib.h>

#include <string>

#include "text/Regexp.h"

namespace {

void check(bool holds) {
  if (!holds) abort();
}

/// The first byte chooses the flags, the rest is the text: C strings end at their first NUL byte.
void quoteMatchesItself(uint8_t choice, const std::string& text) {
  const bool extended = (choice & 1) != 0;
  const int flags = (extended ? REG_EXTENDED : 0) | ((choice & 2) != 0 ? REG_ICASE : 0);
  const frask::Regexp exact("^" + frask::Regexp::quote(text, extended) + "$", flags);
  const auto found = exact.match(text, 1, 0);
  check(found && found->getString(0) == text);
  check(!exact.match_from(nullptr, text + "x", 0, 0, 0));
  check(!exact.match_from(nullptr, "x" + text, 0, 0, 0));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string bytes(data + 1, data + size);
  quoteMatchesItself(data[0], bytes.substr(0, bytes.find('\0')));
  return 0;
}
