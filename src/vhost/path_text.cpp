#include <stdint.h>
#include <string.h>

#include <algorithm>

#include "vhost/path_text.private.h"

namespace frask {
namespace {

constexpr char kSeparator = '/';

bool isAbsolute(std::string_view path) noexcept {
  return !path.empty() && path.front() == kSeparator;
}

std::string_view withoutLeadingSeparators(std::string_view path) noexcept {
  path.remove_prefix(std::min(path.find_first_not_of(kSeparator), path.size()));
  return path;
}

uint64_t word(const char* text) noexcept {
  uint64_t read = 0;
  memcpy(&read, text, sizeof read);
  return read;
}

/// How many bytes two texts have in common at their beginnings.
size_t commonLength(std::string_view a, std::string_view b) noexcept {
  const size_t shorter = std::min(a.size(), b.size());
  size_t at = 0;
  while (at + sizeof(uint64_t) <= shorter && word(&a[at]) == word(&b[at])) at += sizeof(uint64_t);
  while (at < shorter && a[at] == b[at]) ++at;
  return at;
}

/// Where a text comes among those with which it begins alike: the end of one comes first, then the
/// end of an element, then all bytes as they are.
int rank(std::string_view rest) noexcept {
  if (rest.empty()) return -2;
  return rest.front() == kSeparator ? -1 : static_cast<unsigned char>(rest.front());
}

}  // namespace

int comparePaths(std::string_view a, std::string_view b) noexcept {
  if (isAbsolute(a) != isAbsolute(b)) return isAbsolute(a) ? 1 : -1;
  a = withoutLeadingSeparators(a);
  b = withoutLeadingSeparators(b);
  while (true) {
    const size_t common = commonLength(a, b);
    const bool between_elements = common > 0 && a[common - 1] == kSeparator;
    a.remove_prefix(common);
    b.remove_prefix(common);
    const size_t remaining = a.size() + b.size();
    if (between_elements) {  // further separators mean nothing
      a = withoutLeadingSeparators(a);
      b = withoutLeadingSeparators(b);
    }
    if (a.size() + b.size() == remaining) return rank(a) - rank(b);
  }
}

std::string_view withoutTrailingSeparators(std::string_view path) noexcept {
  const size_t last = path.find_last_not_of(kSeparator);
  return path.substr(0, last == std::string_view::npos ? 1 : last + 1);
}

std::string_view withoutTrailingDots(std::string_view path) noexcept {
  path = withoutTrailingSeparators(path);
  while (path.size() > 1 && path.back() == '.' && path[path.size() - 2] == kSeparator)
    path = withoutTrailingSeparators(path.substr(0, path.size() - 1));
  return path;
}

std::string joinedPaths(std::string_view a, std::string_view b) {
  if (isAbsolute(b) || a.empty()) return std::string(b);
  std::string joined(a);
  if (joined.back() != kSeparator) joined += kSeparator;
  return joined.append(b);
}

std::string withoutLeadingElements(std::string_view path, unsigned count) {
  if (isAbsolute(path) && count > 0) {
    path = withoutLeadingSeparators(path);
    --count;
  }
  for (; count > 0 && !path.empty(); --count) {
    path.remove_prefix(std::min(path.find(kSeparator), path.size()));
    path = withoutLeadingSeparators(path);
  }
  std::string joined(path);
  const auto both_separators = [](char a, char b) { return a == kSeparator && b == kSeparator; };
  joined.erase(std::unique(joined.begin(), joined.end(), both_separators), joined.end());
  return joined;
}

}  // namespace frask
