// Runs one routine, for strace:
//   content_calls list|library DIRECTORY          the entries on standard output, each with a zero
//   content_calls tree DIRECTORY                  the same, sorted; a directory with "/" behind it
//   content_calls clean VHOST DOCUMENTS CGI
//   content_calls delete VHOST DOCUMENTS CGI PREFIX
#include <stdlib.h>
#include <string.h>

#include <exception>
#include <iostream>

#include "library_listing.h"
#include "support/counted_part.h"
#include "vhost/FileList.h"
#include "vhost/entry_points.h"
#include "vhost/listing.private.h"

namespace {

int list(const std::filesystem::path& dir, bool by_library) {
  std::vector<std::filesystem::path> entries;
  const auto skip = static_cast<unsigned>(frask::pathLength(dir));
  if (by_library)
    vhosttest::LibraryListing(entries, skip).list(dir);
  else
    frask::readDirContent(&entries, dir, skip);
  for (const std::filesystem::path& entry : entries) std::cout << entry.native() << '\0';
  return 0;
}

int list_tree(const std::string& dir) {
  frask::TreeListing listing;
  listing.add(dir, "");
  listing.ascending([](const std::string& path, bool isDirectory) {
    std::cout << path << (isDirectory ? "/" : "") << '\0';
  });
  return 0;
}

int run(int argc, char** argv) {
  if (argc == 3 && strcmp(argv[1], "list") == 0) return list(argv[2], false);
  if (argc == 3 && strcmp(argv[1], "library") == 0) return list(argv[2], true);
  if (argc == 3 && strcmp(argv[1], "tree") == 0) return list_tree(argv[2]);
  if (argc < 5) return 2;
  const DocrootCleanOptions options = {argv[3], 0, 0, 0, argv[4]};
  if (argc == 5 && strcmp(argv[1], "clean") == 0) return clean_docroot(argv[2], &options);
  if (argc != 6 || strcmp(argv[1], "delete") != 0) return 2;
  wido_delete_instance(argv[2], &options, argv[5]);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    counted_part_mark();
    const int result = run(argc, argv);
    counted_part_mark();
    return result;
  } catch (const std::exception& failure) {
    std::cerr << failure.what();
    return 1;
  }
}
