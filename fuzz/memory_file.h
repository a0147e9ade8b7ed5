// What the fuzz targets of the file readers share.
#ifndef FUZZ_MEMORY_FILE_H
#define FUZZ_MEMORY_FILE_H

#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <string_view>

#include "check.h"

/// A file in memory of this content, with a path that the readers can open.
class MemoryFile {
 public:
  explicit MemoryFile(std::string_view content) : fd_(memfd_create("fuzz", MFD_CLOEXEC)) {
    check(fd_ >= 0);
    check(write(fd_, content.data(), content.size()) == static_cast<ssize_t>(content.size()));
    path_ = "/proc/self/fd/" + std::to_string(fd_);
  }
  ~MemoryFile() { close(fd_); }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  const char* path() const { return path_.c_str(); }

 private:
  int fd_;
  std::string path_;
};

#endif
