// A file in memory that has a path.
#ifndef TESTS_CONF_MEMORY_PATH_H
#define TESTS_CONF_MEMORY_PATH_H

#include <string>

/// Holds a file of this content, which "/proc/self/fd" gives a path that routines can open.
class MemoryPath {
 public:
  explicit MemoryPath(const std::string& content);
  ~MemoryPath();
  MemoryPath(const MemoryPath&) = delete;
  MemoryPath& operator=(const MemoryPath&) = delete;

  const char* c_str() const { return path_.c_str(); }

 private:
  int fd_;
  std::string path_;
};

#endif
