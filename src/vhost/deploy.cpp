#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>

#include <filesystem>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "vhost/deploy_entry.private.h"
#include "vhost/listing.private.h"
#include "vhost/misc.h"
#include "vhost/path_text.private.h"

namespace fs = std::filesystem;

namespace frask {
namespace {

bool isMissing(const fs::path& path) noexcept {
  struct stat st = {};
  return ::stat(path.c_str(), &st) != 0 && errno == ENOENT;
}

/// The client's skeleton or, silently, the default one. What exists but cannot be examined counts
/// as present: the entries then tell why.
///
/// Deliberate: "ID/" and "ID/." are the skeleton "ID", and its entries are not counted as if the
/// separator were one more element. Pinned by SetupSkeleton.TakesASkeletonWithASeparatorAtTheEnd.
fs::path chooseSkeleton(const fs::path& store, const char* skeletonId) {
  fs::path skeleton = store / skeletonId;
  if (isMissing(skeleton)) skeleton = store / "0";
  if (isMissing(skeleton))
    throw std::runtime_error("Skeleton directory `" + skeleton.string() + "' does not exist");
  return skeleton;
}

/// A section that the skeleton lacks is listed with its own entry.
TreeListing listSections(ConfinedDirectory& skeleton, SetupSkeletonMode mode) {
  TreeListing entries;
  for (const fs::path& section : vhostUsedDirs(mode)) {
    const std::string path = joinedPaths(skeleton.base(), section.native());
    Place place = {};
    // Where there is no way to it, the listing tells why.
    if (!skeleton.locate(section.c_str(), place)) place = {AT_FDCWD, path.c_str()};
    entries.add(place, path, section.native());
  }
  return entries;
}

gid_t groupOfSites() {
  const group* found = ::getgrnam("oxacln");
  if (found == nullptr) throw std::runtime_error("group oxacln not found");
  return found->gr_gid;
}

[[noreturn]] void throwUncreated(const fs::path& path, int error) {
  throw fs::filesystem_error("cannot create directory", path,
                             std::error_code(error, std::generic_category()));
}

/// Creates the host's directory, its parent not.
void makeHost(BaseDirectory& host, const fs::path& path) {
  Place place = {};
  const std::string_view text = path.native();
  // What is not there has no "." in it either.
  if (withoutTrailingDots(text) != withoutTrailingSeparators(text)) throwUncreated(path, ENOENT);
  if (!host.locate(place)) throwUncreated(path, errno);
  if (::mkdirat(place.dir_fd, place.name, kPermissions) == 0) return;
  const int error = errno;
  if (error != EEXIST || host.fd() < 0) throwUncreated(path, error);
}

/// The host's directory, held from here on. Where it cannot be opened, the entries tell why.
BaseDirectory openHost(const fs::path& path) {
  BaseDirectory host(path.native());
  if (!fs::exists(path)) makeHost(host, path);
  static_cast<void>(host.fd());
  return host;
}

}  // namespace

void setup_skeleton(const VhostPath& host, SetupSkeletonMode mode, const char* skeletonId,
                    const ExtractParams& params) {
  if (skeletonId == nullptr) return;
  BaseDirectory site = openHost(host.fullPath);
  ConfinedDirectory skeleton(chooseSkeleton(host.vhostsDir / ".skel", skeletonId).native());
  const TreeListing entries = listSections(skeleton, mode);
  EntryDeployer deployer(std::move(skeleton), ConfinedDirectory(std::move(site)), params,
                         host.domainName, groupOfSites());
  entries.ascending([&deployer](const std::string& entry, bool) { deployer.deploy(entry); });
}

}  // namespace frask
