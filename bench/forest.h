// Trees to work on, as many as a run needs.
#ifndef BENCH_FOREST_H
#define BENCH_FOREST_H

#include <memory>
#include <string>
#include <vector>

#include "measure.h"

namespace bench {

/// As many trees as give a run something to do, so that the start of a command, which is no part
/// of the walk, is a small part of its time at every size.
class Forest {
 public:
  explicit Forest(long entries);
  Forest(const Forest&) = delete;
  Forest& operator=(const Forest&) = delete;
  ~Forest();

  const std::vector<std::string>& tops() const { return tops_; }
  int size() const { return static_cast<int>(tops_.size()); }

  void make() const;
  /// make() in the place of what is there.
  void remake() const;
  /// Gives all of it to another user, who alone may read it.
  void close_to_others() const;

  /// These words and the tops.
  std::vector<std::string> command(std::vector<std::string> words) const;

 private:
  long entries_;
  std::vector<std::string> tops_;
};

using SharedForest = std::shared_ptr<const Forest>;

/// `work` on one top after the other; it gives 0 when it is done.
Contender for_each_top(const SharedForest& forest, void (Forest::*prepare)() const,
                       int (*work)(const char* top));

/// Commands, each on all the tops.
Contender by_commands(const SharedForest& forest, void (Forest::*prepare)() const,
                      const std::vector<std::vector<std::string>>& commands);

}  // namespace bench

#endif
