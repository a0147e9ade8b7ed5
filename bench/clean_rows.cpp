// A host's content, listed and removed.
#include <stdio.h>
#include <sys/stat.h>

#include <filesystem>
#include <memory>

#include "forest.h"
#include "limit/limit.h"
#include "program.h"
#include "rows.h"
#include "tree.h"
#include "vhost/entry_points.h"
#include "vhost/listing.private.h"

namespace bench {
namespace {

constexpr long kFew = 10000;
constexpr long kMany = 1000000;
constexpr double kLogarithms = 1.5;  ///< log(kMany) to log(kFew)

int clean_ours(const char* top) {
  const DocrootCleanOptions options = {top, 0, 0, 0, ""};
  return clean_docroot("/mnt/no-host", &options);
}

/// A contender that must leave the tops, and nothing in them.
Contender emptying(const SharedForest& forest, Contender contender) {
  contender.prepare();
  contender.run();
  for (const std::string& top : forest->tops())
    require(std::filesystem::is_empty(top), top + " is not empty");
  return contender;
}

Contenders set_up_clean(long entries) {
  const auto forest = std::make_shared<const Forest>(entries);
  const auto prepare = &Forest::remake;
  Contenders contenders;
  contenders.ours = emptying(forest, for_each_top(forest, prepare, clean_ours));
  contenders.instead = emptying(forest, {[forest] { forest->remake(); },
                                         [] {
                                           run_or_die({"sh", "-c", "rm -rf /mnt/tree-*/*"});
                                         }});
  contenders.limit = emptying(forest, for_each_top(forest, prepare, limit_clean));
  contenders.repeats = forest->size();
  return contenders;
}

/// A tree for as long as it is needed.
class EmptyTree {
 public:
  explicit EmptyTree(long entries) : top_("/mnt/empty-" + std::to_string(entries)) {
    make_empty_tree(top_, entries);
  }
  EmptyTree(const EmptyTree&) = delete;
  EmptyTree& operator=(const EmptyTree&) = delete;
  ~EmptyTree() { clear_tree(top_); }

  const std::string& top() const { return top_; }

 private:
  std::string top_;
};

Contender listing_sorted(long entries, long repeats) {
  const auto tree = std::make_shared<const EmptyTree>(entries);
  return {nullptr, [tree, entries, repeats] {
            for (long i = 0; i < repeats; ++i) {
              frask::TreeListing listing;
              listing.add(tree->top(), "");
              long seen = 0;
              listing.ascending([&seen](const std::string& path, bool) { seen += !path.empty(); });
              require(seen == entries, tree->top());
            }
          }};
}

Contenders set_up_listing() {
  Contenders contenders;
  contenders.ours = listing_sorted(kMany, 1);
  contenders.instead = listing_sorted(kFew, kMany / kFew);
  return contenders;
}

long peak_of(const std::string& way, const std::string& top) {
  FILE* pipe = popen((std::string(BENCH_LISTING) + " " + way + " " + top).c_str(), "r");
  long bytes = 0;
  require(pipe != nullptr && fscanf(pipe, "%ld", &bytes) == 1 && pclose(pipe) == 0, BENCH_LISTING);
  return bytes;
}

void print_memory() {
  const EmptyTree tree(kMany);
  const double least = static_cast<double>(peak_of("nothing", tree.top()));
  const auto per_entry = [&](const char* way) {
    return (static_cast<double>(peak_of(way, tree.top())) - least) / static_cast<double>(kMany);
  };
  const double paths = per_entry("paths");
  printf("%-34s %7ld  peak bytes an entry: the vector of paths itself %.0f\n",
         "memory of a listing", kMany, paths);
  for (const char* way : {"listing", "read-dir-content"}) {
    const double ours = per_entry(way);
    printf("%-34s %7s  %.0f, %.2f of that (target 1.10 %s)\n", way, "", ours, ours / paths,
           ours <= 1.1 * paths ? "met" : "missed");
  }
}

}  // namespace

void add_clean_rows(std::vector<Row>& rows, const std::vector<long>& sizes) {
  for (const long entries : sizes)
    rows.push_back({"clean", "clean_docroot", entries, Aim{"rm -rf DIRECTORY/*", 1.35},
                    Aim{"a listing of all, one fstatat() and one unlinkat() an entry", 1.1},
                    [entries] { return set_up_clean(entries); }});
  rows.push_back({"list-sorted", "a tree listed and sorted", kMany,
                  Aim{"the same for 10000 entries, a hundred times over: n log n", kLogarithms},
                  std::nullopt, set_up_listing});
  rows.push_back({"list-memory", "the peak memory of that", kMany, std::nullopt, std::nullopt,
                  nullptr, print_memory});
}

}  // namespace bench
