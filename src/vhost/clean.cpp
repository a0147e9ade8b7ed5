#include <string_view>

#include "vhost/clean.private.h"
#include "vhost/delete_entry.private.h"
#include "vhost/listing.private.h"
#include "vhost/path_text.private.h"

namespace frask {
namespace {

/// Lists one of the content directories under its own name, wherever it lies. The document root and
/// the CGI directory are held until their entries go: a link put in their place meanwhile would
/// lead elsewhere.
void listContent(const std::string& name, const std::string& vhostDir, const ExtractParams& params,
                 TreeListing& listing, DeleteDirEntry& remove) {
  const auto list = [&](std::string_view dir) {
    return listing.add(std::string(withoutTrailingSeparators(dir)), name);
  };
  if (name == "httpdocs")
    remove.holdDocroot(list(params.docrootDir));
  else if (name == "cgi-bin" && !params.keepCgiBin)
    remove.holdCgiBin(list(params.cgiBinDir));
  else if (name != "cgi-bin" && (name != "error_docs" || !params.keepErrorDocs))
    list(joinedPaths(withoutTrailingSeparators(vhostDir), name));
}

}  // namespace

void cleanDocroot(const std::string& vhostDir, const ExtractParams& params) {
  DeleteDirEntry remove(vhostDir, params);
  TreeListing listing;
  for (const std::filesystem::path& directory : vhostUsedDirs(SETUP_SKELETON_CONTENT))
    listContent(directory.native(), vhostDir, params, listing, remove);
  listing.descending(
      [&remove](const std::string& entry, bool isDirectory) { remove(entry, isDirectory); });
}

}  // namespace frask
