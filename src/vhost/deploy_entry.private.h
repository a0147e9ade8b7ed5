// Not installed: one entry of a skeleton, put into a site.
#ifndef FRASK_VHOST_DEPLOY_ENTRY_PRIVATE_H
#define FRASK_VHOST_DEPLOY_ENTRY_PRIVATE_H

#include <sys/stat.h>

#include <string>

#include "fs/unique_fd.h"
#include "vhost/confined.private.h"
#include "vhost/deploy_file.private.h"
#include "vhost/deploy_target.private.h"

namespace frask {

/// Puts the entries of one skeleton into one site. What exists there stays as it is.
class EntryDeployer {
 public:
  /// @param skeleton  its directory
  /// @param host      the site's, as far as `params` tells no other
  /// @param siteName  for the placeholders
  /// @param group     of all that is created
  EntryDeployer(ConfinedDirectory skeleton, ConfinedDirectory host, const ExtractParams& params,
                const std::string& siteName, gid_t group);

  /// Deploys `entry`, "SECTION" or "SECTION/...", whose parent has been deployed before. What keeps
  /// it from that is reported on standard error, one line; but an original that has vanished, and a
  /// file that cannot be created, read or written, are passed over in silence.
  ///
  /// @throws std::filesystem::filesystem_error when a directory cannot be created
  void deploy(const std::string& entry);

 private:
  /// What lies at a place. Where it was not found (`error`), the place may be none.
  struct Found {
    Place place;
    struct stat st;
    int error;
  };

  static Found look(ConfinedDirectory& directory, const char* below);
  static UniqueFd openOriginal(const Place& place, const Target& target);
  /// False when the file was not created, for another reason than that something is there.
  bool createFile(const Found& original, const Target& target);
  void createDirectory(mode_t mode, const Target& target, Place place);
  bool isAsMade(int fd, mode_t mode) const noexcept;
  void setModeAndGroup(int fd, mode_t mode) const noexcept;

  ConfinedDirectory skeleton_;
  TargetFinder targets_;
  FileCopier copier_;
  uid_t owner_;  ///< of all that this process creates
  mode_t mask_;  ///< likewise
  gid_t group_;
};

}  // namespace frask

#endif
