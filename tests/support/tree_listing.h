// A tree as text, for comparing trees in one assertion.
#ifndef TESTS_SUPPORT_TREE_LISTING_H
#define TESTS_SUPPORT_TREE_LISTING_H

#include <filesystem>
#include <string>
#include <vector>

namespace testsupport {

/// One line for each entry below `top`, sorted by path: type, octal mode, owner, group, relative
/// path, and the content of a regular file or the target of a link:
///   "d 0755 0:0 httpdocs", "f 0644 0:0 httpdocs/index.html <html>", "l - 0:0 link ../target".
/// The mode of a link says nothing and is written "-". Links are not followed.
std::vector<std::string> tree_listing(const std::filesystem::path& top);

/// The same for `top` itself and all below it, with the inode, the number of links, the size and
/// the times of the last changes in front: whatever was done to an entry shows, a mode that was set
/// to what it is included, unless it was done within a tick of the clock (10 ms) after an earlier
/// change.
std::vector<std::string> exact_listing(const std::filesystem::path& top);

}  // namespace testsupport

#endif
