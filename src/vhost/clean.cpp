#include <errno.h>
#include <fcntl.h>

#include <string_view>
#include <utility>

#include "vhost/clean.private.h"
#include "vhost/delete_entry.private.h"
#include "vhost/listing.private.h"
#include "vhost/path_text.private.h"

namespace frask {
namespace {

/// Deliberate: separators and "." behind a directory's name mean nothing, to the system neither, so
/// that a link is not emptied for them; nor is "DIRECTORY/." an entry to remove. Pinned by
/// CleanDocroot.LeavesAloneWhatStandsInTheirPlace and .DropsADotBehindTheDirectories.
UniqueFd listDirectory(std::string_view dir, const std::string& name, TreeListing& listing) {
  const std::string bare(withoutTrailingDots(dir));
  const std::string path(withoutTrailingSeparators(dir));
  return listing.add({AT_FDCWD, bare.c_str()}, path, name);
}

/// The host's directory, or why it could not be opened.
struct Host {
  UniqueFd fd;
  int error;
};

Host openHost(const std::string& vhostDir) noexcept {
  UniqueFd fd(::open(vhostDir.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  return {std::move(fd), errno};
}

/// What lies in a host that could not be opened is not tried again: if it could be reached by now,
/// then perhaps somewhere else.
void listBelow(const Host& host, const std::string& vhostDir, const std::string& name,
               TreeListing& listing) {
  const std::string path = joinedPaths(withoutTrailingSeparators(vhostDir), name);
  if (host.fd)
    listing.add({host.fd.get(), name.c_str()}, path, name);
  else
    reportUnreached(path, host.error);
}

/// Lists one of the content directories under its own name, wherever it lies. The document root and
/// the CGI directory are held until their entries go: a link put in their place meanwhile would
/// lead elsewhere.
void listContent(const std::string& name, const Host& host, const std::string& vhostDir,
                 const ExtractParams& params, TreeListing& listing, DeleteDirEntry& remove) {
  if (name == "httpdocs")
    remove.holdDocroot(listDirectory(params.docrootDir, name, listing));
  else if (name == "cgi-bin" && !params.keepCgiBin)
    remove.holdCgiBin(listDirectory(params.cgiBinDir, name, listing));
  else if (name != "cgi-bin" && (name != "error_docs" || !params.keepErrorDocs))
    listBelow(host, vhostDir, name, listing);
}

}  // namespace

void cleanDocroot(const std::string& vhostDir, const ExtractParams& params) {
  DeleteDirEntry remove(vhostDir, params);
  TreeListing listing;
  Host host = openHost(vhostDir);
  for (const std::filesystem::path& directory : vhostUsedDirs(SETUP_SKELETON_CONTENT))
    listContent(directory.native(), host, vhostDir, params, listing, remove);
  remove.holdBase(std::move(host.fd));
  listing.descending(
      [&remove](const std::string& entry, bool isDirectory) { remove(entry, isDirectory); });
}

}  // namespace frask
