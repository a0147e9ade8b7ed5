// A listing by the standard library's own directory iterator.
#ifndef TESTS_VHOST_LIBRARY_LISTING_H
#define TESTS_VHOST_LIBRARY_LISTING_H

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <vector>

namespace vhosttest {

/// What frask::readDirContent() is to equal, entries and reports, byte for byte.
class LibraryListing {
 public:
  LibraryListing(std::vector<std::filesystem::path>& out, unsigned skip) : out_(out), skip_(skip) {}

  void list(const std::filesystem::path& path) {
    std::filesystem::path relative;
    unsigned count = 0;
    for (const std::filesystem::path& element : path)
      if (count++ >= skip_) relative /= element;
    out_.push_back(relative);
    struct stat st = {};
    if (lstat(path.c_str(), &st) != 0) {
      if (errno != ENOENT) std::cerr << path.native() << ": " << strerror(errno) << "\n";
    } else if (S_ISDIR(st.st_mode)) {
      list_entries(path);
    }
  }

 private:
  void list_entries(const std::filesystem::path& path) {
    try {
      for (std::filesystem::directory_iterator entry(path), end; entry != end; ++entry)
        list(entry->path());
    } catch (const std::exception& failure) {
      std::cerr << failure.what() << std::endl;
    }
  }

  std::vector<std::filesystem::path>& out_;
  unsigned skip_;
};

}  // namespace vhosttest

#endif
