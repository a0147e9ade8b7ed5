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

  bool isBase() const noexcept { return *below == '\0'; }
};

/// Tells the targets of entries. The host's directory is the same for all its sections; the way
/// into it is open for one section at a time, for the entries come section by section, and a few
/// deep trees would take all descriptors there are.
class TargetFinder {
 public:
  TargetFinder(ConfinedDirectory host, const ExtractParams& params);

  /// Finds where `entry`, "SECTION" or "SECTION/...", goes. False when it is not deployed at all.
  /// The target is good until the next call, and as long as `entry` is.
  bool find(const std::string& entry, Target& target);

 private:
  void enter(const std::string& section);

  ConfinedDirectory host_;
  const ExtractParams params_;
  std::string section_;
  std::optional<ConfinedDirectory> elsewhere_;  ///< the directory of a remapped section
  ConfinedDirectory* present_ = nullptr;        ///< none for a section that is not deployed
};

}  // namespace frask

#endif
