/**
 * @file
 * What a virtual host looks like: its directories, and which of them a routine works on.
 *
 * For single-threaded programs: nothing here is locked.
 */
#ifndef FRASK_VHOST_LAYOUT_H
#define FRASK_VHOST_LAYOUT_H

#include <filesystem>
#include <string>
#include <vector>

#include "log/api.h"

namespace frask {

/** One virtual host: a site, or a sub-domain of a site. */
struct VhostPath {
  std::filesystem::path vhostsDir;     ///< the virtual hosts root
  std::filesystem::path relativePath;  ///< below it: SITE, or SITE/subdomains/NAME
  std::filesystem::path fullPath;      ///< vhostsDir / relativePath, the host's directory
  std::string domainName;              ///< the site's name, for a sub-domain that of its site
  bool isSubdomain = false;            ///< false: a site
};

/** Which directories of a host are meant. Callers pass any int: others select none. */
enum SetupSkeletonMode : int {
  SETUP_SKELETON_ALL = 0,         ///< every skeleton section
  SETUP_SKELETON_CONTENT = 1,     ///< "httpdocs", "cgi-bin", "private": what cleaning empties
  SETUP_SKELETON_NO_DOCROOT = 2,  ///< every skeleton section but "httpdocs"
};

/** The options of deployment and cleaning; DocrootCleanOptions is their plain form. */
struct ExtractParams {
  std::string docrootDir;      ///< the site's document root, which stands for "httpdocs"
  bool skipHttpdocs = false;   ///< for sub-domains: deploy without "httpdocs"
  bool keepErrorDocs = false;  ///< leave "error_docs" alone
  bool keepCgiBin = false;     ///< leave the CGI directory alone
  std::string cgiBinDir;       ///< the site's CGI directory, which stands for "cgi-bin"
};

/**
 * The directories of a host that are never removed themselves: "cgi-bin", "private", "httpsdocs",
 * "httpdocs".
 *
 * Deliberate: not the skeleton's sections (skeldir), of which five may be removed. Pinned by
 * VhostAllDirs.DiffersFromTheSections.
 *
 * @return one vector, the same at every call, which is never freed
 */
FRASK_API const std::vector<std::filesystem::path>& vhostAllDirs();

/**
 * The directories that `mode` selects: skeleton sections in the order of skeldir or, for
 * SETUP_SKELETON_CONTENT, "httpdocs", "cgi-bin" and "private"; none for an unknown mode.
 */
FRASK_API std::vector<std::filesystem::path> vhostUsedDirs(SetupSkeletonMode mode);

/**
 * The depth of a path: the number of its elements, the root directory and the empty one behind a
 * trailing separator included, without a last one that is ".".
 */
FRASK_API int pathLength(const std::filesystem::path& p);

/**
 * What file(1), searched in PATH, says of a path, links followed: its standard output as it is, the
 * newline included, whatever its exit status. A missing path is something that it says, too.
 *
 * Deliberate: "./" is put before a path that begins with "-", which would be taken for options.
 * Pinned by TypeFromPath.TakesNoPathForAnOption.
 *
 * @throws sys::TSysCallErr when the program cannot be started, with the errno value of that, ENOMEM
 *         for whatever went wrong before it was tried; only in the caller's own process, never in
 *         the child
 */
FRASK_API std::string typeFromPath(const std::string& path);

/**
 * The host that a directory is, told by its name alone: nothing is normalised or resolved.
 *
 * Deliberate: the virtual hosts root is the compiled-in one; a root moved in the configuration file
 * is not seen. Pinned by VhostPathFromDir.IgnoresTheConfigurationFile.
 *
 * No name may be empty, as behind a trailing separator, or "." or "..".
 *
 * @throws std::runtime_error "Virtual host DIR is not a subdirectory of ROOT" where it does not
 *         begin with the root's elements; "Directory DIR does not represent a virtual host" where
 *         it is neither ROOT/SITE nor ROOT/SITE/subdomains/NAME
 */
FRASK_API VhostPath vhostPathFromDir(const std::filesystem::path& dir);

}  // namespace frask

#endif
