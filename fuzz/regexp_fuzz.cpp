// Whatever the text, its quoted form compiles, and finds the text where a plain search finds it.
// Whatever the pattern, it compiles, matches and fails as regcomp(), regexec() and regerror() say.
#include <ctype.h>
#include <stdint.h>

#include <algorithm>
#include <array>
#include <optional>
#include <regex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "check.h"
#include "text/Regexp.h"

namespace {

using frask::Regexp;

/// Longer ones show nothing more, and may keep the C library busy.
constexpr size_t kLongestPattern = 40;
constexpr size_t kLongestSubject = 100;
/// No flag of regexec(), which refuses to search.
constexpr int kUnknown = 0x100;

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

/// Not every pattern comes to an end in a fuzzer's time: references back try every way to match,
/// and repetitions multiply what they hold.
bool is_cheap(const std::string& pattern) {
  static const std::regex kCostly(R"(\\[0-9]|\{.*\{|\{.*[0-9]{3})");
  return pattern.size() <= kLongestPattern && !std::regex_search(pattern, kCostly);
}

/// The pattern as the C library has it.
class Plain {
 public:
  Plain(const std::string& pattern, int flags)
      : code_(regcomp(&pattern_, pattern.c_str(), flags)) {}
  ~Plain() {
    if (code_ == 0) regfree(&pattern_);
  }
  Plain(const Plain&) = delete;
  Plain& operator=(const Plain&) = delete;

  /// What is wrong with the pattern.
  std::optional<std::string> failure() const {
    if (code_ == 0) return std::nullopt;
    std::array<char, 256> text{};
    check(regerror(code_, &pattern_, text.data(), text.size()) <= text.size());
    return text.data();
  }

  /// The regions that a match changes in those of an earlier one; none for a non-match.
  std::optional<std::vector<std::pair<int, unsigned long>>> match(
      const std::string& subject, size_t offset, int eflags,
      std::vector<std::pair<int, unsigned long>> regions) const {
    if (offset > subject.size()) return std::nullopt;
    std::vector<regmatch_t> found(regions.size(), regmatch_t{-1, -1});
    const char* text = subject.c_str() + offset;
    if (regexec(&pattern_, text, found.size(), found.data(), eflags) == REG_NOMATCH)
      return std::nullopt;
    for (size_t i = 0; i < found.size(); ++i)
      if (found[i].rm_so != -1)
        regions[i] = {found[i].rm_so, static_cast<unsigned long>(found[i].rm_eo - found[i].rm_so)};
    return regions;
  }

 private:
  regex_t pattern_{};
  int code_;
};

struct Search {
  std::string subject;
  size_t offset;
  size_t count;
  int eflags;
};

void check_search(const Regexp& pattern, const Plain& plain, const Search& search) {
  const Regexp::MatchResultData earlier{"earlier", 3, {{7, 11}, {-1, 13}}};
  auto regions = earlier.regions;
  regions.resize(search.count);
  const auto expected = plain.match(search.subject, search.offset, search.eflags, regions);
  Regexp::MatchResultData data = earlier;
  check(pattern.match_from(&data, search.subject, search.offset, search.count, search.eflags) ==
        expected.has_value());
  check(data.text == (expected ? search.subject : earlier.text));
  check(data.offset == (expected ? search.offset : earlier.offset));
  check(data.regions == (expected ? *expected : earlier.regions));
  check(pattern.match_from(nullptr, search.subject, search.offset, search.count, search.eflags) ==
        expected.has_value());
}

void check_new_result(const Regexp& pattern, const Plain& plain, const Search& search) {
  const auto expected = plain.match(search.subject, 0, search.eflags,
                                    std::vector<std::pair<int, unsigned long>>(search.count));
  const auto found = pattern.match(search.subject, search.count, search.eflags);
  check((found != nullptr) == expected.has_value());
  if (!found) return;
  check(found->text == search.subject && found->offset == 0 && found->regions == *expected);
  std::vector<std::string> parts;
  for (const auto& [start, length] : *expected)
    parts.push_back(search.subject.substr(static_cast<size_t>(start), length));
  check(Regexp::getRegions(search.subject, *found) == parts);
  for (size_t i = 0; i < parts.size(); ++i)
    check(found->getRange(i) == (*expected)[i] && found->getString(i) == parts[i]);
}

void check_pattern(const std::string& text, int flags, const Search& search) {
  const Plain plain(text, flags);
  try {
    const Regexp pattern(text, flags);
    check(!plain.failure());
    check_search(pattern, plain, search);
    check_new_result(pattern, plain, search);
  } catch (const std::runtime_error& failure) {
    check(plain.failure() == failure.what());
  }
}

}  // namespace

/// The first byte chooses the flags, the second the offset, the third the flags of the search and
/// the number of regions; the text goes to the first newline, the rest is where it is searched.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 3) return 0;
  const bool extended = (data[0] & 1) != 0;
  const bool any_case = (data[0] & 2) != 0;
  const int flags = (extended ? REG_EXTENDED : 0) | (any_case ? REG_ICASE : 0);
  const std::string bytes = c_string(std::string(data + 3, data + size));
  const size_t end = std::min(bytes.find('\n'), bytes.size());
  const std::string text = bytes.substr(0, end);
  const std::string subject = bytes.substr(std::min(end + 1, bytes.size()));
  check_whole(text, extended, flags);
  const Regexp pattern(Regexp::quote(text, extended), flags);
  check_found(pattern, text, subject, data[1], any_case);
  check_found(pattern, text, subject + text, 0, any_case);
  if (!is_cheap(text)) return 0;
  const int more = ((data[0] & 4) != 0 ? REG_NOSUB : 0) | ((data[0] & 8) != 0 ? REG_NEWLINE : 0);
  const int eflags = ((data[2] & 16) != 0 ? REG_NOTBOL : 0) |
                     ((data[2] & 32) != 0 ? REG_NOTEOL : 0) | ((data[2] & 64) != 0 ? kUnknown : 0);
  check_pattern(text, flags | more,
                {subject.substr(0, kLongestSubject), data[1], data[2] % 16U, eflags});
  return 0;
}
