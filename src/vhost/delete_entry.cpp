#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <boost/format.hpp>
#include <iostream>
#include <string_view>
#include <utility>

#include "vhost/delete_entry.private.h"
#include "vhost/path_text.private.h"

namespace frask {
namespace {

ConfinedDirectory directoryOf(std::string_view path) {
  return ConfinedDirectory(std::string(withoutTrailingSeparators(path)));
}

/// Deliberate: separators behind its name do not make it another directory, though another path.
/// Pinned by WidoDeleteInstance.NeverRemovesTheSectionsThemselves.
bool isStandardDirectory(std::string_view entry) {
  const std::string_view directory = withoutTrailingSeparators(entry);
  const auto& standard = vhostAllDirs();
  return std::any_of(standard.begin(), standard.end(), [directory](const auto& path) {
    return comparePaths(directory, path.native()) == 0;
  });
}

void report(const char* text, const std::string& path, int error) {
  std::cerr << (boost::format(text) % path % strerror(error)).str();
}

bool unlinkAt(const Place& place, bool isDirectory) noexcept {
  return ::unlinkat(place.dir_fd, place.name, isDirectory ? AT_REMOVEDIR : 0) == 0;
}

/// An entry that was not removed by what it was taken for: looks, and removes it by what it is.
void removeByLook(const Place& place, const std::string& path, bool tried_as_directory) {
  const int error = errno;
  struct stat st = {};
  if (::fstatat(place.dir_fd, place.name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno != ENOENT) report("lstat(\"%1%\"): %2%\n", path, errno);
    return;
  }
  const bool is_directory = S_ISDIR(st.st_mode);
  errno = error;
  if (is_directory != tried_as_directory && unlinkAt(place, is_directory)) return;
  report(is_directory ? "rmdir(\"%1%\"): %2%\n" : "unlink(\"%1%\"): %2%\n", path, errno);
}

}  // namespace

DeleteDirEntry::DeleteDirEntry(const std::string& base, const ExtractParams& params)
    : base_(directoryOf(base)),
      docroot_(directoryOf(params.docrootDir)),
      cgiBin_(directoryOf(params.cgiBinDir)),
      root_("/"),
      keepErrorDocs_(params.keepErrorDocs),
      keepCgiBin_(params.keepCgiBin) {}

void DeleteDirEntry::holdBase(UniqueFd fd) noexcept {
  if (fd) base_.hold(std::move(fd));
}

void DeleteDirEntry::holdDocroot(UniqueFd fd) noexcept {
  if (fd) docroot_.hold(std::move(fd));
}

void DeleteDirEntry::holdCgiBin(UniqueFd fd) noexcept {
  if (fd) cgiBin_.hold(std::move(fd));
}

void DeleteDirEntry::operator()(const std::string& entry, bool isDirectory) {
  if (isStandardDirectory(entry)) return;
  const size_t end = std::min(entry.find('/'), entry.size());
  const std::string_view section = std::string_view(entry).substr(0, end);
  const char* rest = entry.c_str() + std::min(entry.find_first_not_of('/', end), entry.size());
  if (section == "httpdocs") {
    removeIn(docroot_, rest, isDirectory);
  } else if (section == "cgi-bin") {
    if (!keepCgiBin_) removeIn(cgiBin_, rest, isDirectory);
  } else if (section != "error_docs" || !keepErrorDocs_) {
    const bool absolute = end == 0 && !entry.empty();
    removeIn(absolute ? root_ : base_, absolute ? rest : entry.c_str(), isDirectory);
  }
}

/// Most entries can be removed at once, and to look at each of them first would cost as much again.
void DeleteDirEntry::removeIn(ConfinedDirectory& directory, const char* entry, bool isDirectory) {
  Place place = {};
  if (*entry == '\0') return removeItself(directory);
  const bool found = directory.locate(entry, place);
  if (found && unlinkAt(place, isDirectory)) return;
  const int error = errno;
  const std::string path = joinedPaths(
      directory.base(), &directory == &base_ ? entry : withoutLeadingElements(entry, 0));
  errno = error;
  if (found)
    removeByLook(place, path, isDirectory);
  else if (error != ENOENT)
    report("lstat(\"%1%\"): %2%\n", path, error);
}

/// The separator behind its path sees to it that it goes as a directory, and never as a link.
void DeleteDirEntry::removeItself(const ConfinedDirectory& directory) {
  const std::string path = joinedPaths(directory.base(), "");
  const Place place = {AT_FDCWD, path.c_str()};
  if (!unlinkAt(place, true)) removeByLook(place, path, true);
}

}  // namespace frask
