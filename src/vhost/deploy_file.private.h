// Not installed: the content of a skeleton's files on its way into a site.
#ifndef FRASK_VHOST_DEPLOY_FILE_PRIVATE_H
#define FRASK_VHOST_DEPLOY_FILE_PRIVATE_H

#include <stddef.h>
#include <sys/types.h>

#include <memory>
#include <string>

namespace frask {

/// Copies files with the placeholders replaced by one site's name. It needs as much memory as a
/// piece of a file, whatever the file's size, and takes it once for all files.
class FileCopier {
 public:
  /// The most that is read at once: it fits into a core's own cache together with what it becomes.
  static constexpr size_t kPiece = 262144;

  explicit FileCopier(std::string siteName);

  /// Copies what is left of `from` to `to`. Failures are passed over: a file that cannot be read is
  /// at its end there, and what cannot be written is missing from there on.
  ///
  /// @param expected  the size of a regular file, behind which nothing is read, so that whoever
  ///                  appends to it without end holds nobody; 0: to the end, for a file that may
  ///                  tell no size, so that one that was empty is followed as it grows
  void copy(int from, int to, off_t expected);

  /// The same for a whole regular file that has holes: they become holes again, but for a page
  /// behind data that ends as a placeholder begins, and for what becomes a hole while it is read.
  /// What is appended meanwhile is copied, too. Written out, a skeleton of a few bytes would fill
  /// the file system of the sites.
  void copyWithHoles(int from, int to);

 private:
  bool put(int to, size_t got);
  void putRest(int to);

  std::string siteName_;
  std::unique_ptr<char[]> piece_;
  size_t held_ = 0;  ///< bytes at the beginning of the piece that wait for what comes next
  std::string replaced_;
};

}  // namespace frask

#endif
