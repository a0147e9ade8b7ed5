// The trees that the benchmarks work on: the same ones in every run.
#ifndef BENCH_TREE_H
#define BENCH_TREE_H

#include <string>
#include <vector>

namespace bench {

/// Makes the directory `top` with `entries` files and directories below it: 20 to 50 files of 1 to
/// 8 KiB of text in each directory, and each directory in some earlier one.
void make_tree(const std::string& top, long entries);

/// The directories and names of make_tree(), with nothing in the files.
void make_empty_tree(const std::string& top, long entries);

/// make_tree() below the sections of a skeleton, and some entries besides that an install takes
/// away. All of it belongs to user 1000 and is writable for its group.
void make_skeleton(const std::string& top, long entries);

/// Removes a tree, if there is one.
void clear_tree(const std::string& top);

/// One line for each entry, sorted: path, type, mode, owner, group, size and content. The owner of
/// a link is left out: tools differ in it, and nothing depends on it.
std::vector<std::string> describe_tree(const std::string& top);

}  // namespace bench

#endif
