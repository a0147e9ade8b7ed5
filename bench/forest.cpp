#include "forest.h"

#include "limit/limit.h"
#include "program.h"
#include "tree.h"

namespace bench {
namespace {

constexpr long kLeastEntries = 10000;

}  // namespace

Forest::Forest(long entries) : entries_(entries) {
  for (long made = 0; made < kLeastEntries; made += entries)
    tops_.push_back("/mnt/tree-" + std::to_string(tops_.size()));
}

Forest::~Forest() {
  for (const std::string& top : tops_) clear_tree(top);
}

void Forest::make() const {
  for (const std::string& top : tops_) make_tree(top, entries_);
}

void Forest::remake() const {
  for (const std::string& top : tops_) clear_tree(top);
  make();
}

void Forest::close_to_others() const {
  for (const std::string& top : tops_)
    require(limit_set_perms(top.c_str(), 1000, 1000, 0600, 0700) == 0, top);
}

std::vector<std::string> Forest::command(std::vector<std::string> words) const {
  words.insert(words.end(), tops_.begin(), tops_.end());
  return words;
}

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

}  // namespace bench
