// Lists a tree of a million entries in one way and prints the peak memory of that in bytes.
//   bench_listing nothing|paths|listing|read-dir-content DIRECTORY
#include <stdio.h>
#include <sys/resource.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "vhost/FileList.h"
#include "vhost/listing.private.h"

namespace {

using Paths = std::vector<std::filesystem::path>;

/// The vector and nothing beside it.
size_t list_paths(const std::filesystem::path& top) {
  Paths paths;
  paths.reserve(1000001);
  paths.emplace_back();
  const std::string begin = top.native() + "/";
  for (const auto& entry : std::filesystem::recursive_directory_iterator(top))
    paths.emplace_back(entry.path().native().substr(begin.size()));
  std::sort(paths.begin(), paths.end());
  return paths.size();
}

size_t list_tree(const std::string& top) {
  frask::TreeListing listing;
  listing.add(top, "");
  size_t entries = 0;
  listing.ascending([&entries](const std::string&, bool) { ++entries; });
  return entries;
}

size_t read_content(const std::string& top) {
  Paths paths = frask::readDirContent(top);
  std::sort(paths.begin(), paths.end());
  return paths.size();
}

}  // namespace

int main(int argc, char** argv) {
  const std::string way = argc == 3 ? argv[1] : "";
  size_t entries = 0;
  if (way == "paths") entries = list_paths(argv[2]);
  if (way == "listing") entries = list_tree(argv[2]);
  if (way == "read-dir-content") entries = read_content(argv[2]);
  if (entries == 0 && way != "nothing") return 2;
  rusage usage = {};
  getrusage(RUSAGE_SELF, &usage);
  printf("%ld\n", usage.ru_maxrss * 1024);
  return 0;
}
