// Not installed: a file read whole, with what its status says.
#ifndef FRASK_VHOST_READ_FILE_PRIVATE_H
#define FRASK_VHOST_READ_FILE_PRIVATE_H

#include <sys/types.h>

#include <string>

namespace frask {

struct FileContent {
  std::string bytes;
  mode_t mode;  ///< of what was opened, its type included
};

/// readFile() by name, and the mode of the very file that was read.
FileContent readFileAndMode(const std::string& path);

/// The same of the file `name` in a directory (or AT_FDCWD); `path` is for the messages alone.
FileContent readFileAndMode(int dir_fd, const char* name, const std::string& path);

}  // namespace frask

#endif
