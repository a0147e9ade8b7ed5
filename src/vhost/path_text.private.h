// Not installed: paths as texts. Where there are many, building the elements of a path costs more
// than all else that is done with it.
#ifndef FRASK_VHOST_PATH_TEXT_PRIVATE_H
#define FRASK_VHOST_PATH_TEXT_PRIVATE_H

#include <string>
#include <string_view>

namespace frask {

/// The order of std::filesystem::path::compare() on the texts of two paths, at the cost of a
/// comparison of strings. @return below, equal to or above 0
int comparePaths(std::string_view a, std::string_view b) noexcept;

/// "/" stays as it is.
std::string_view withoutTrailingSeparators(std::string_view path) noexcept;

/// Nor with "." behind a separator: what stands before it is the same directory, by its bare name.
std::string_view withoutTrailingDots(std::string_view path) noexcept;

/// The text of `a / b`.
std::string joinedPaths(std::string_view a, std::string_view b);

/// The elements behind the first `count`, joined anew: one separator between two.
std::string withoutLeadingElements(std::string_view path, unsigned count);

}  // namespace frask

#endif
