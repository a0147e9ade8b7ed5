#include <string.h>

#include <algorithm>

#include "vhost/placeholder.private.h"

namespace frask {
namespace {

constexpr size_t kDense = 8;
constexpr size_t kPatience = 128;

/// The position of the first placeholder at or behind `start`, or npos. In text "@" is rare, and a
/// search for one byte many times as fast as memmem(): that is for what comes behind many a "@".
size_t findPlaceholder(std::string_view text, size_t start) noexcept {
  size_t at = start;
  for (size_t misses = 0; kDense * misses <= at - start + kPatience; ++misses, ++at) {
    at = text.find(kPlaceholder[0], at);
    if (at == std::string_view::npos) return at;
    if (text.compare(at, kPlaceholder.size(), kPlaceholder) == 0) return at;
  }
  const void* found =
      memmem(text.data() + at, text.size() - at, kPlaceholder.data(), kPlaceholder.size());
  if (found == nullptr) return std::string_view::npos;
  return static_cast<size_t>(static_cast<const char*>(found) - text.data());
}

/// The length of the text's end that may be the beginning of a placeholder. At most one end can be:
/// a placeholder has no "@" inside.
size_t unfinishedAtEnd(std::string_view text) noexcept {
  const std::string_view end =
      text.substr(text.size() - std::min(text.size(), kPlaceholder.size() - 1));
  const size_t begin = end.rfind(kPlaceholder[0]);
  if (begin == std::string_view::npos) return 0;
  const std::string_view candidate = end.substr(begin);
  return kPlaceholder.substr(0, candidate.size()) == candidate ? candidate.size() : 0;
}

}  // namespace

ReplacedPiece replacePlaceholders(std::string_view piece, std::string_view name, std::string& out) {
  size_t done = 0;
  for (size_t at = findPlaceholder(piece, 0); at != std::string_view::npos;
       at = findPlaceholder(piece, done)) {
    if (done == 0) out.clear();
    out.append(piece, done, at - done).append(name);
    done = at + kPlaceholder.size();
  }
  const std::string_view rest = piece.substr(done);
  const size_t unfinished = unfinishedAtEnd(rest);
  const std::string_view finished = rest.substr(0, rest.size() - unfinished);
  if (done == 0) return {finished, unfinished};
  return {out.append(finished), unfinished};
}

}  // namespace frask
