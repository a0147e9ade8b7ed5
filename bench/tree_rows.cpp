// The library's walks, called in the process, against the commands that do the same.
#include <errno.h>

#include <memory>

#include "forest.h"
#include "fs/tree.h"
#include "limit/limit.h"
#include "program.h"
#include "rows.h"
#include "tree.h"

namespace bench {
namespace {

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
