// Not installed: the removal of a host's entries, one by one.
#ifndef FRASK_VHOST_DELETE_ENTRY_PRIVATE_H
#define FRASK_VHOST_DELETE_ENTRY_PRIVATE_H

#include <string>

#include "fs/unique_fd.h"
#include "vhost/confined.private.h"
#include "vhost/layout.h"

namespace frask {

/// Removes entries of a host, each where its section lies: "httpdocs" in the document root,
/// "cgi-bin" in the CGI directory, all else in the host's directory. The standard directories and
/// the sections that are to be kept are left alone. No symbolic link below these directories is
/// passed. A failure is written to standard error, one line.
class DeleteDirEntry {
 public:
  /// @param base  the host's directory
  DeleteDirEntry(const std::string& base, const ExtractParams& params);

  /// Directories that were opened already, when their entries were listed; nothing happens to the
  /// present one where `fd` is none.
  void holdBase(UniqueFd fd) noexcept;
  void holdDocroot(UniqueFd fd) noexcept;
  void holdCgiBin(UniqueFd fd) noexcept;

  /// Removes a file, or a directory that is empty.
  ///
  /// @param entry  a path whose first element is the section; an absolute one counts from the root
  ///               of the file system
  /// @param isDirectory  what it was seen to be: spares a system call where it still is
  void operator()(const std::string& entry, bool isDirectory = false);

 private:
  void removeIn(ConfinedDirectory& directory, const char* entry, bool isDirectory);
  static void removeItself(const ConfinedDirectory& directory);

  ConfinedDirectory base_;
  ConfinedDirectory docroot_;
  ConfinedDirectory cgiBin_;
  ConfinedDirectory root_;
  bool keepErrorDocs_;
  bool keepCgiBin_;
};

}  // namespace frask

#endif
