// Not installed: the placeholder in a skeleton's files.
#ifndef FRASK_VHOST_PLACEHOLDER_PRIVATE_H
#define FRASK_VHOST_PLACEHOLDER_PRIVATE_H

#include <stddef.h>

#include <string>
#include <string_view>

namespace frask {

/// What stands for the site's name in a skeleton's files. There is no other placeholder.
inline constexpr std::string_view kPlaceholder = "@domain_name@";

/// A piece of a file with its placeholders replaced.
struct ReplacedPiece {
  std::string_view text;
  /// How many bytes at the end of the piece were left out, because they may be the beginning of a
  /// placeholder. They belong in front of the next piece, and behind the last one as they are.
  size_t unfinished;
};

/// Replaces every placeholder in a piece by `name`, from left to right; what was put in is not
/// searched again.
///
/// @param out  overwritten where there is something to replace
/// @return text that lies in `out`, or, without a copy, in the piece
ReplacedPiece replacePlaceholders(std::string_view piece, std::string_view name, std::string& out);

}  // namespace frask

#endif
