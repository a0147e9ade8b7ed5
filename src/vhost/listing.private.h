// Not installed: directory trees as they were listed, in the orders in which they are worked on.
#ifndef FRASK_VHOST_LISTING_PRIVATE_H
#define FRASK_VHOST_LISTING_PRIVATE_H

#include <stddef.h>
#include <stdint.h>

#include <deque>
#include <functional>
#include <string>

#include "fs/unique_fd.h"
#include "vhost/base_directory.private.h"

namespace frask {

/// What a listing says of an entry that cannot be looked at: nothing when it does not exist.
void reportUnreached(const std::string& path, int error);

/// The entries of some trees. Each is kept as its name in its directory: a tree of a million
/// entries takes some 15 MB, and to sort it is to sort each directory by names.
class TreeListing {
 public:
  /// Takes an entry: its path in the listing, and whether it was seen to be a directory.
  using Visitor = std::function<void(const std::string& path, bool isDirectory)>;

  /// Lists a directory and all below it, never through a link; only the way to `dir` may lead
  /// through some. What does not exist, or is no directory, gives just its own entry. Failures are
  /// written to standard error, one line each, and the listing goes on behind them.
  ///
  /// @param dir   a path; the reports begin with it
  /// @param name  stands for it in the listing: one element, or "" for entries relative to `dir`
  /// @return the directory, none when it was not opened: whoever works on the entries later has
  ///         it still when its path leads elsewhere by then
  UniqueFd add(const std::string& dir, const std::string& name);
  /// The same, reached from another place than the path that the reports begin with.
  UniqueFd add(const Place& place, const std::string& dir, const std::string& name);

  size_t size() const noexcept { return size_; }

  /// Each directory before what it holds, as the file system gave them.
  void inReadingOrder(const Visitor& visit) const;
  /// The ascending order of std::filesystem::path::compare(): each directory before what it holds.
  void ascending(const Visitor& visit) const;
  /// Its descending order: each directory after what it held.
  void descending(const Visitor& visit) const;

 private:
  friend class TreeLister;
  friend class TreeVisit;

  /// An entry as it is kept: its type (a DT_ constant), for what may be a directory the number of
  /// that one, and the name with its zero.
  struct Record {
    static constexpr uint32_t kNotListed = UINT32_MAX;

    Record(unsigned char its_type, const char* its_name) noexcept
        : type(its_type), name(its_name) {}
    /// Reads a record and leaves `at` behind it.
    explicit Record(const char*& at) noexcept;
    void appendTo(std::string& records) const;

    unsigned char type;
    uint32_t directory = kNotListed;
    const char* name;
  };

  using Records = std::string;  ///< one behind the other

  Records tops_;
  std::deque<Records> directories_;
  size_t size_ = 0;
};

}  // namespace frask

#endif
