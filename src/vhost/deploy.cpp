#include <errno.h>
#include <grp.h>
#include <sys/stat.h>

#include <filesystem>
#include <stdexcept>

#include "vhost/deploy_entry.private.h"
#include "vhost/listing.private.h"
#include "vhost/misc.h"

namespace fs = std::filesystem;

namespace frask {
namespace {

bool isMissing(const fs::path& path) noexcept {
  struct stat st = {};
  return ::stat(path.c_str(), &st) != 0 && errno == ENOENT;
}

/// The client's skeleton or, silently, the default one. What exists but cannot be examined counts
/// as present: the entries then tell why.
fs::path chooseSkeleton(const fs::path& store, const char* skeletonId) {
  fs::path skeleton = store / skeletonId;
  if (isMissing(skeleton)) skeleton = store / "0";
  if (isMissing(skeleton))
    throw std::runtime_error("Skeleton directory `" + skeleton.string() + "' does not exist");
  return skeleton;
}

/// A section that the skeleton lacks is listed with its own entry.
TreeListing listSections(const fs::path& skeleton, SetupSkeletonMode mode) {
  TreeListing entries;
  for (const fs::path& section : vhostUsedDirs(mode))
    entries.add((skeleton / section).string(), section.string());
  return entries;
}

gid_t groupOfSites() {
  const group* found = ::getgrnam("oxacln");
  if (found == nullptr) throw std::runtime_error("group oxacln not found");
  return found->gr_gid;
}

}  // namespace

void setup_skeleton(const VhostPath& host, SetupSkeletonMode mode, const char* skeletonId,
                    const ExtractParams& params) {
  if (skeletonId == nullptr) return;
  if (!fs::exists(host.fullPath)) fs::create_directory(host.fullPath);
  const fs::path skeleton = chooseSkeleton(host.vhostsDir / ".skel", skeletonId);
  const TreeListing entries = listSections(skeleton, mode);
  EntryDeployer deployer(skeleton.string(), host, params, groupOfSites());
  entries.ascending([&deployer](const std::string& entry, bool) { deployer.deploy(entry); });
}

}  // namespace frask
