#include "memory_path.h"

#include <sys/mman.h>
#include <unistd.h>

#include <stdexcept>

MemoryPath::MemoryPath(const std::string& content)
    : fd_(memfd_create("file", MFD_CLOEXEC)), path_("/proc/self/fd/" + std::to_string(fd_)) {
  if (fd_ < 0 || write(fd_, content.data(), content.size()) != static_cast<ssize_t>(content.size()))
    throw std::runtime_error("cannot make a file in memory");
}

MemoryPath::~MemoryPath() {
  close(fd_);
}
