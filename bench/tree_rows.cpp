// The library's walks, called in the process, against the commands that do the same.
#include <errno.h>

#include <filesystem>
#include <memory>

#include "fs/tree.h"
#include "limit/limit.h"
#include "program.h"
#include "rows.h"
#include "tree.h"

namespace bench {
namespace {

constexpr long kLeastEntries = 10000;

/// As many trees as give a run something to do, so that the start of a command, which is no part
/// of the walk, is a small part of its time at every size.
class Forest {
 public:
  explicit Forest(long entries) : entries_(entries) {
    for (long made = 0; made < kLeastEntries; made += entries)
      tops_.push_back("/mnt/tree-" + std::to_string(tops_.size()));
  }
  Forest(const Forest&) = delete;
  Forest& operator=(const Forest&) = delete;
  ~Forest() {
    for (const std::string& top : tops_) clear_tree(top);
  }

  const std::vector<std::string>& tops() const { return tops_; }
  int size() const { return static_cast<int>(tops_.size()); }

  void make() const {
    for (const std::string& top : tops_) make_tree(top, entries_);
  }

  /// Gives all of it to another user, who alone may read it.
  void close_to_others() const {
    for (const std::string& top : tops_)
      require(limit_set_perms(top.c_str(), 1000, 1000, 0600, 0700) == 0, top);
  }

  std::vector<std::string> command(std::vector<std::string> words) const {
    words.insert(words.end(), tops_.begin(), tops_.end());
    return words;
  }

 private:
  long entries_;
  std::vector<std::string> tops_;
};

using SharedForest = std::shared_ptr<const Forest>;

Contender for_each_top(const SharedForest& forest, void (Forest::*prepare)() const,
                       int (*work)(const char* top)) {
  return {[forest, prepare] { ((*forest).*prepare)(); },
          [forest, work] {
            for (const std::string& top : forest->tops()) require(work(top.c_str()) == 0, top);
          }};
}

Contender by_commands(const SharedForest& forest, void (Forest::*prepare)() const,
                      const std::vector<std::vector<std::string>>& commands) {
  return {[forest, prepare] { ((*forest).*prepare)(); },
          [forest, commands] {
            for (const std::vector<std::string>& words : commands)
              run_or_die(forest->command(words));
          }};
}

int remove_ours(const char* top) {
  return rm_tree(top, 1), 0;
}
int set_perms_ours(const char* top) {
  return tree_set_perms(top, 0, 0, 0644, 0755, 1);
}
int set_perms_limit(const char* top) {
  return limit_set_perms(top, 0, 0, 0644, 0755);
}

Contenders set_up_remove(long entries) {
  const auto forest = std::make_shared<const Forest>(entries);
  Contenders contenders;
  contenders.ours = for_each_top(forest, &Forest::make, remove_ours);
  contenders.instead = by_commands(forest, &Forest::make, {{"rm", "-rf"}});
  contenders.limit = for_each_top(forest, &Forest::make, limit_remove_tree);
  contenders.repeats = forest->size();
  return contenders;
}

std::vector<std::string> tree_left_by(const Contender& contender, const std::string& top) {
  contender.prepare();
  contender.run();
  return describe_tree(top);
}

Contenders set_up_perms(long entries) {
  const auto forest = std::make_shared<const Forest>(entries);
  forest->make();
  const auto prepare = &Forest::close_to_others;
  Contenders contenders;
  contenders.ours = for_each_top(forest, prepare, set_perms_ours);
  contenders.instead =
      by_commands(forest, prepare, {{"chown", "-R", "root:root"}, {"chmod", "-R", "u=rwX,go=rX"}});
  contenders.limit = for_each_top(forest, prepare, set_perms_limit);
  contenders.repeats = forest->size();
  const std::string& last = forest->tops().back();
  const std::vector<std::string> ours = tree_left_by(contenders.ours, last);
  errno = 0;
  require(ours == tree_left_by(*contenders.instead, last) &&
              ours == tree_left_by(*contenders.limit, last),
          "the contenders leave different owners or modes");
  return contenders;
}

}  // namespace

void add_tree_rows(std::vector<Row>& rows, const std::vector<long>& sizes) {
  for (const long entries : sizes)
    rows.push_back({"rm-tree", "rm_tree", entries, Aim{"rm -rf", 1.05},
                    Aim{"a walk with one fstatat() and one unlinkat() an entry", 1.1},
                    [entries] { return set_up_remove(entries); }});
  for (const long entries : sizes)
    rows.push_back({"set-perms", "tree_set_perms", entries,
                    Aim{"chown -R and chmod -R u=rwX,go=rX", 1.0},
                    Aim{"two walks with one fstatat() and one change an entry", 1.1},
                    [entries] { return set_up_perms(entries); }});
}

}  // namespace bench
