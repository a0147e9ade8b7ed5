/**
 * @file
 * What lies in a virtual host, listed and removed.
 */
#ifndef FRASK_VHOST_FILELIST_H
#define FRASK_VHOST_FILELIST_H

#include <filesystem>
#include <vector>

#include "log/api.h"
#include "vhost/layout.h"

namespace frask {

/** The two roots of an application's files, in the order in which their entries sort. */
enum InstallSection : int {
  CgiBin = 0,  ///< the host's "cgi-bin"
  Htdocs = 1,  ///< the document root, "httpdocs" inside the host
};

/**
 * Lists a directory and all below it, each directory before what it holds, entries in the file
 * system's own order. Links are listed and not descended into. What does not exist, or is no
 * directory, gives just its own entry.
 *
 * A failure is written to standard error, one line, and the listing goes on behind it.
 *
 * @param out   the entries are appended to it: the full paths without their first `skip` elements
 * @param skip  pathLength(dir) gives entries relative to `dir`, the first of them empty; behind a
 *              last "." they begin with that
 * @return 0
 * @throws std::bad_alloc
 */
FRASK_API int readDirContent(std::vector<std::filesystem::path>* out,
                             const std::filesystem::path& dir, unsigned int skip);

/**
 * The listing of `dir`, relative to `dir`.
 *
 * Deliberate: pathLength() counts a separator at the end of `dir` as an element, and the entries
 * then lose their first one. Pinned by
 * ReadDirContent.CountsASeparatorBehindTheDirectoryAsAnElement.
 */
FRASK_API std::vector<std::filesystem::path> readDirContent(const std::filesystem::path& dir);

/**
 * Removes entries of a host, each directory after what it held; `entries` is sorted for that, in
 * place and in descending order.
 *
 * An entry whose first element is "httpdocs" or "cgi-bin" lies in the directory that `params` gives
 * for it, an absolute one where it says, the empty one is the host's directory; the standard
 * directories themselves (vhostAllDirs()) and the sections that `params` keeps are left alone. No
 * symbolic link below these directories is passed, on an absolute way none at all: the entry stays.
 * A failure is written to standard error, one line, and the work goes on.
 *
 * @param base  the host's directory
 */
FRASK_API void cleanDirContent(std::vector<std::filesystem::path>* entries,
                               const std::filesystem::path& base, const ExtractParams& params);

}  // namespace frask

#endif
