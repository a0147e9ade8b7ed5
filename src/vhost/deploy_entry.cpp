#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <boost/format.hpp>
#include <filesystem>
#include <iostream>
#include <system_error>

#include "fs/unique_fd.h"
#include "vhost/deploy_entry.private.h"
#include "vhost/path_text.private.h"

namespace fs = std::filesystem;

namespace frask {
namespace {

constexpr mode_t kReadWrite = 0666;
constexpr mode_t kPermissions = 0777;
constexpr mode_t kSetIdsAndPermissions = 07777;
constexpr uid_t kUnchangedOwner = static_cast<uid_t>(-1);

/// Nothing lies there and nothing can be created: every call gives ENOENT.
constexpr Place kNowhere = {-1, ""};

std::string pathOf(const ConfinedDirectory& directory, const char* below) {
  return *below == '\0' ? directory.base() : joinedPaths(directory.base(), below);
}

std::string pathOf(const Target& target) {
  return pathOf(*target.directory, target.below);
}

void reportExisting(const Target& target) {
  boost::format text("widoctl:InstallSkeleton(): %1% already exists, not restoring\n");
  std::cerr << (text % pathOf(target)).str();
}

void reportUnexaminedTarget(const Target& target, int error) {
  boost::format text("widoctl:InstallSkeleton(): stat(\"%1%\") failed: %2%\n");
  std::cerr << (text % pathOf(target) % strerror(error)).str();
}

void reportUnexaminedOriginal(const std::string& path, int error) {
  boost::format text("widoctl:InstallSkeleton(): %1%: %2%\n");
  std::cerr << (text % path % strerror(error)).str();
}

void reportSpecial(const Target& target) {
  boost::format text("widoctl:InstallSkeleton(): %1% not a file or directory, skipping\n");
  std::cerr << (text % pathOf(target)).str();
}

[[noreturn]] void throwUncreated(const Target& target, const std::error_code& cause) {
  throw fs::filesystem_error(
      target.remapped ? "cannot create directories" : "cannot create directory", pathOf(target),
      cause);
}

std::error_code lastError() {
  return {errno, std::generic_category()};
}

/// Creates what is missing on the way to a target, the directory that the options give included: it
/// was there, or was created, before what lies below it, and somebody has removed it since.
std::error_code createParents(const Target& target) {
  std::error_code error;
  fs::create_directories(target.directory->base(), error);
  *target.directory = ConfinedDirectory(target.directory->base());
  const std::string_view below(target.below);
  for (size_t end = below.find('/'); !error && end != below.npos; end = below.find('/', end + 1)) {
    const std::string parent(below.substr(0, end));
    Place place = {};
    if (!target.directory->locate(parent.c_str(), place)) return lastError();
    if (::mkdirat(place.dir_fd, place.name, kPermissions) != 0 && errno != EEXIST)
      return lastError();
  }
  return error;
}

bool isThere(const std::string& path) noexcept {
  struct stat st = {};
  return ::lstat(path.c_str(), &st) == 0;
}

/// The directory that the options give, with its parents. False where something has got into its
/// place meanwhile.
bool makeBase(const Target& target) {
  std::error_code error;
  const std::string& base = target.directory->base();
  const bool made = fs::create_directories(base, error);
  if (error && !isThere(base)) throwUncreated(target, error);
  return made;
}

/// False where something has got into the target's place meanwhile.
bool makeDirectory(const Target& target, const Place& place, mode_t mode) {
  if (target.remapped && *target.below == '\0') return makeBase(target);
  // Its owner, who is to open it, must be able to, unless the mask forbids even that.
  const bool made = ::mkdirat(place.dir_fd, place.name, (mode & kPermissions) | S_IRWXU) == 0;
  if (!made && errno != EEXIST) throwUncreated(target, lastError());
  return made;
}

}  // namespace

EntryDeployer::EntryDeployer(const std::string& skeleton, const VhostPath& host,
                             const ExtractParams& params, gid_t group)
    : skeleton_(skeleton),
      targets_(host, params),
      copier_(host.domainName),
      owner_(::geteuid()),
      group_(group) {}

void EntryDeployer::deploy(const std::string& entry) {
  Target target = {};
  if (!targets_.find(entry, target)) return;
  const Found original = look(skeleton_, entry.c_str());
  const mode_t type = original.error == 0 ? original.st.st_mode & S_IFMT : 0;
  // Most entries are files that are missing; whether one is, its creation tells.
  if (type == S_IFREG && createFile(original, target)) return;

  const Found there = look(*target.directory, target.below);
  if (there.error == 0) {
    if (type != S_IFDIR || !S_ISDIR(there.st.st_mode)) reportExisting(target);
  } else if (there.error != ENOENT) {
    reportUnexaminedTarget(target, there.error);
  } else if (original.error != 0) {
    if (original.error != ENOENT)
      reportUnexaminedOriginal(pathOf(skeleton_, entry.c_str()), original.error);
  } else if (type == S_IFDIR) {
    createDirectory(original.st.st_mode, target, there.place);
  } else if (type != S_IFREG) {
    reportSpecial(target);
  }
}

EntryDeployer::Found EntryDeployer::look(ConfinedDirectory& directory, const char* below) {
  Found found = {kNowhere, {}, 0};
  if (!directory.locate(below, found.place)) {
    found.error = errno;
    found.place = kNowhere;
  } else if (::fstatat(found.place.dir_fd, found.place.name, &found.st, AT_SYMLINK_NOFOLLOW) != 0) {
    found.error = errno;
  }
  return found;
}

bool EntryDeployer::createFile(const Found& original, const Target& target) {
  Place place = {};
  if (!target.directory->locate(target.below, place)) return false;
  // Not even at first is it open to more users than in the end.
  const UniqueFd to(::openat(place.dir_fd, place.name,
                             O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                             original.st.st_mode & kReadWrite));
  if (!to && errno != EEXIST) return false;
  if (!to) {
    reportExisting(target);
    return true;
  }
  const UniqueFd from(::openat(original.place.dir_fd, original.place.name,
                               O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (from) copier_.copy(from.get(), to.get(), original.st.st_size);
  setModeAndGroup(to.get(), original.st.st_mode);
  return true;
}

void EntryDeployer::createDirectory(mode_t mode, const Target& target, Place place) {
  if (place.dir_fd == kNowhere.dir_fd && target.remapped) {
    const std::error_code error = createParents(target);
    const Found there = look(*target.directory, target.below);
    // A link has got among the parents: it is not passed, and nothing is the matter otherwise.
    if (there.error == ELOOP) return reportUnexaminedTarget(target, ELOOP);
    if (error) throwUncreated(target, error);
    place = there.place;
  }
  if (!makeDirectory(target, place, mode)) return reportExisting(target);
  const UniqueFd made(::openat(place.dir_fd, place.name,
                               O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  // Whoever may write beside it may have put a directory of their own there in between.
  struct stat st = {};
  if (made && ::fstat(made.get(), &st) == 0 && st.st_uid == owner_)
    setModeAndGroup(made.get(), mode);
}

/// The change of the group takes set-id bits from a file, as far as it has a bit to lose: they are
/// kept out at first, lest a set-user-ID program of root's stands in a site for a moment, and come
/// only where the group could not be changed.
void EntryDeployer::setModeAndGroup(int fd, mode_t mode) const noexcept {
  const mode_t all = mode & kSetIdsAndPermissions;
  const mode_t lost = S_ISDIR(mode) ? 0 : S_ISUID | ((mode & S_IXGRP) != 0 ? S_ISGID : 0);
  static_cast<void>(::fchmod(fd, all & ~lost));
  if (::fchown(fd, kUnchangedOwner, group_) != 0 && (all & lost) != 0)
    static_cast<void>(::fchmod(fd, all));
}

}  // namespace frask
