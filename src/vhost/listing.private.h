// Not installed: the listing of a tree as texts, and the order in which entries are worked on.
#ifndef FRASK_VHOST_LISTING_PRIVATE_H
#define FRASK_VHOST_LISTING_PRIVATE_H

#include <string>
#include <string_view>
#include <vector>

namespace frask {

/// Takes the entries of a listing as full paths, each directory before what it holds.
class ListingSink {
 public:
  virtual void entry(const std::string& path) = 0;

 protected:
  ~ListingSink() = default;
};

/// Lists `dir` and all below it, never through a link (but `dir` may be reached through links).
/// Failures go to standard error, and the listing goes on behind them.
void listTree(const std::string& dir, ListingSink& sink);

/// The order of std::filesystem::path::compare() on the texts of two paths, at the cost of
/// comparing strings: building the elements of a path costs more than all else in a large tree.
/// @return below, equal to or above 0
int comparePaths(std::string_view a, std::string_view b) noexcept;

}  // namespace frask

#endif
