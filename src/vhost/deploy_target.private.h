// Not installed: where in a site a skeleton's entries go.
#ifndef FRASK_VHOST_DEPLOY_TARGET_PRIVATE_H
#define FRASK_VHOST_DEPLOY_TARGET_PRIVATE_H

#include <optional>
#include <string>

#include "vhost/confined.private.h"
#include "vhost/layout.h"

namespace frask {

/// Where an entry goes: below a directory, or, where that is "", in the directory's own place.
struct Target {
  ConfinedDirectory* directory;
  const char* below;
  bool remapped;  ///< away from the host's directory: there, missing parents are created
};

/// Tells the targets of entries. Only the directory of one section is open at a time, for the
/// entries come section by section, and a few deep trees would take all descriptors there are.
class TargetFinder {
 public:
  TargetFinder(const VhostPath& host, const ExtractParams& params);

  /// Finds where `entry`, "SECTION" or "SECTION/...", goes. False when it is not deployed at all.
  /// The target is good until the next call, and as long as `entry` is.
  bool find(const std::string& entry, Target& target);

 private:
  void enter(const std::string& section);

  const std::string host_;
  const ExtractParams params_;
  std::string section_;
  bool remapped_ = false;
  std::optional<ConfinedDirectory> directory_;  ///< none for a section that is not deployed
};

}  // namespace frask

#endif
