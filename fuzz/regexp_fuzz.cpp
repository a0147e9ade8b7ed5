// Whatever the text, its quoted form compiles, and finds the text where a plain search finds it.
#include <ctype.h>
#include <stdint.h>

#include <algorithm>
#include <string>

#include "check.h"
#include "text/Regexp.h"

namespace {

using frask::Regexp;

std::string in_small_letters(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(tolower(c)); });
  return text;
}

/// As long as there is one of the text at or behind the offset.
void check_found(const Regexp& pattern, const std::string& text, const std::string& subject,
                 size_t offset, bool any_case) {
  const size_t where = any_case ? in_small_letters(subject).find(in_small_letters(text), offset)
                                : subject.find(text, offset);
  Regexp::MatchResultData found;
  const bool matches = pattern.match_from(&found, subject, offset, 1, 0);
  check(matches == (where != std::string::npos));
  if (!matches) return;
  check(found.text == subject && found.offset == offset && found.regions.size() == 1);
  check(static_cast<size_t>(found.regions[0].first) == where - offset);
  check(found.regions[0].second == text.size());
}

void check_whole(const std::string& text, bool extended, int flags) {
  const Regexp exact("^" + Regexp::quote(text, extended) + "$", flags);
  const auto found = exact.match(text, 1, 0);
  check(found && found->getString(0) == text);
  check(!exact.match_from(nullptr, text + "x", 0, 0, 0));
  check(!exact.match_from(nullptr, "x" + text, 0, 0, 0));
}

}  // namespace

/// The first byte chooses the flags, the second the offset; the text goes to the first newline, the
/// rest is where it is searched.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const bool extended = (data[0] & 1) != 0;
  const bool any_case = (data[0] & 2) != 0;
  const int flags = (extended ? REG_EXTENDED : 0) | (any_case ? REG_ICASE : 0);
  const std::string bytes = c_string(std::string(data + 2, data + size));
  const size_t end = std::min(bytes.find('\n'), bytes.size());
  const std::string text = bytes.substr(0, end);
  const std::string subject = bytes.substr(std::min(end + 1, bytes.size()));
  check_whole(text, extended, flags);
  const Regexp pattern(Regexp::quote(text, extended), flags);
  check_found(pattern, text, subject, data[1], any_case);
  check_found(pattern, text, subject + text, 0, any_case);
  return 0;
}
