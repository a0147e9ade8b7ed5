#include "vhost/entry_points.h"

#include <iostream>

#include "conf/oxaconf.h"
#include "vhost/clean.private.h"
#include "vhost/entry_points.private.h"
#include "vhost/instance.private.h"
#include "vhost/misc.h"

namespace frask {
namespace {

std::string textOf(const char* text) {
  return text != nullptr ? text : "";
}

/// Deliberate: the virtual hosts root is the compiled-in one, and the names are not checked. Pinned
/// by SetupSkeletonOnSubdomain.TakesTheCompiledInRoot and .TakesAnyNames.
VhostPath subdomainPath(const char* domain, const char* subdomain) {
  VhostPath host;
  host.vhostsDir = theOxaConfDefauls[OXA_CONF_HTTPD_VHOSTS_D];
  host.relativePath = std::filesystem::path(domain) / "subdomains" / subdomain;
  host.fullPath = host.vhostsDir / host.relativePath;
  host.domainName = domain;
  host.isSubdomain = true;
  return host;
}

}  // namespace

ExtractParams toExtractParams(const DocrootCleanOptions& options) {
  ExtractParams params;
  params.docrootDir = textOf(options.docrootDir);
  params.skipHttpdocs = options.skipHttpdocs != 0;
  params.keepErrorDocs = options.keepErrorDocs != 0;
  params.keepCgiBin = options.keepCgiBin != 0;
  params.cgiBinDir = textOf(options.cgiBinDir);
  return params;
}

}  // namespace frask

int setup_skeleton(const char* vhostDir, int mode, const char* skeletonId,
                   const DocrootCleanOptions* options) {
  const frask::ExtractParams params = frask::toExtractParams(*options);
  const frask::VhostPath host = frask::vhostPathFromDir(vhostDir);
  frask::setup_skeleton(host, static_cast<frask::SetupSkeletonMode>(mode), skeletonId, params);
  return 0;  // failures leave as exceptions
}

int setup_skeleton_on_subdomain(const char* domain, const char* subdomain, const char* skeletonId,
                                const DocrootCleanOptions* options) {
  const frask::ExtractParams params = frask::toExtractParams(*options);
  const frask::VhostPath host = frask::subdomainPath(domain, subdomain);
  const auto mode =
      params.skipHttpdocs ? frask::SETUP_SKELETON_NO_DOCROOT : frask::SETUP_SKELETON_ALL;
  frask::setup_skeleton(host, mode, skeletonId, params);
  return 0;
}

int clean_docroot(const char* vhostDir, const DocrootCleanOptions* options) {
  frask::cleanDocroot(vhostDir, frask::toExtractParams(*options));
  return 0;  // failures are reported, and are no result
}

void wido_delete_instance(const char* vhostDir, const DocrootCleanOptions* options,
                          const char* prefix) {
  const std::string place = prefix;
  frask::deleteInstance(vhostDir, frask::toExtractParams(*options), place,
                        frask::readFile(std::cin));
}
