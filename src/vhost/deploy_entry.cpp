#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <boost/format.hpp>
#include <filesystem>
#include <iostream>
#include <string_view>
#include <system_error>
#include <utility>

#include "fs/unique_fd.h"
#include "vhost/deploy_entry.private.h"
#include "vhost/path_text.private.h"
#include "vhost/read_file.private.h"

namespace fs = std::filesystem;

namespace frask {
namespace {

constexpr mode_t kReadWrite = 0666;
constexpr mode_t kSetIdsAndPermissions = 07777;
constexpr uid_t kUnchangedOwner = static_cast<uid_t>(-1);

/// Nothing lies there and nothing can be created: every call gives ENOENT.
constexpr Place kNowhere = {-1, ""};

bool hasHoles(const struct stat& st) {
  constexpr off_t kBlock = 512;  // of st_blocks (POSIX leaves it open, Linux has no other)
  return st.st_blocks < st.st_size / kBlock;
}

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

/// Creates a target with what is missing on the way to it from its base. False with errno set:
/// EEXIST where the target itself is there by now.
bool makeWithParents(const Target& target, mode_t mode, Place& place) {
  const std::string_view below(target.below);
  for (size_t end = below.find('/'); end != below.npos; end = below.find('/', end + 1)) {
    const std::string parent(below.substr(0, end));
    if (!target.directory->locate(parent.c_str(), place)) return false;
    if (::mkdirat(place.dir_fd, place.name, kPermissions) != 0 && errno != EEXIST) return false;
  }
  return target.directory->locate(target.below, place) &&
         ::mkdirat(place.dir_fd, place.name, mode) == 0;
}

/// Creates the directory that the options give, for what is to lie below it. It was there, or was
/// created, before that, and somebody has removed it since; or a link has its name that leads
/// nowhere, which then stays.
void makeBaseAnew(const Target& target) {
  Place place = {};
  if (!target.directory->locateMissingBase(place)) throwUncreated(target, lastError());
  if (::mkdirat(place.dir_fd, place.name, kPermissions) == 0) return;
  const std::error_code cause = lastError();
  if (cause.value() != EEXIST || !target.directory->open()) throwUncreated(target, cause);
}

/// Creates a target. False with errno set: EEXIST where something has got into its place meanwhile,
/// ELOOP where a link has got among its parents. What stands on the way to a base ends it all.
///
/// @param place  the target's, as far as it was found; receives the one where it was created
bool makeDirectory(const Target& target, mode_t mode, Place& place) {
  if (target.isBase() && !target.directory->locateMissingBase(place))
    throwUncreated(target, lastError());
  if (::mkdirat(place.dir_fd, place.name, mode) == 0) return true;
  if (errno != ENOENT || !target.remapped || target.isBase()) return false;
  if (makeWithParents(target, mode, place)) return true;
  if (errno != ENOENT) return false;
  makeBaseAnew(target);
  return makeWithParents(target, mode, place);
}

mode_t presentMask() noexcept {
  const mode_t mask = ::umask(S_IRWXG | S_IRWXO);
  ::umask(mask);
  return mask;
}

/// Whether a directory that has just been opened holds nothing.
bool isEmpty(int fd) noexcept {
  alignas(dirent64) char entries[1024];
  ssize_t got = 0;
  while ((got = ::getdents64(fd, entries, sizeof entries)) > 0)
    for (ssize_t at = 0; at < got;) {
      const auto* entry = reinterpret_cast<const dirent64*>(entries + at);
      if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) return false;
      at += entry->d_reclen;
    }
  return got == 0;
}

/// Access control lists, where a directory has any for what is created in it, take the mask's place
/// and are inherited with it.
bool inheritsAccess(int fd) noexcept {
  return ::fgetxattr(fd, "system.posix_acl_default", nullptr, 0) > 0;
}

}  // namespace

EntryDeployer::EntryDeployer(ConfinedDirectory skeleton, ConfinedDirectory host,
                             const ExtractParams& params, const std::string& siteName, gid_t group)
    : skeleton_(std::move(skeleton)),
      targets_(std::move(host), params),
      copier_(siteName),
      owner_(::geteuid()),
      mask_(presentMask()),
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

/// Before its target is created: a site is not to show an empty file for as long as a lease is
/// waited for, nor to keep one when the process is killed meanwhile.
UniqueFd EntryDeployer::openOriginal(const Place& place, const Target& target) {
  UniqueFd from = openAtOnce(place.dir_fd, place.name, O_NOFOLLOW);
  // What exists is not written, so there is nothing to wait for.
  if (!from && errno == EAGAIN && look(*target.directory, target.below).error == ENOENT)
    from = openBehindLease(place.dir_fd, place.name, O_NOFOLLOW);
  return from;
}

bool EntryDeployer::createFile(const Found& original, const Target& target) {
  UniqueFd from = openOriginal(original.place, target);
  // By what was opened: others may have put something else in the place that was looked at, a file
  // that fewer may read, or a pipe or a device that never ends.
  struct stat st = {};
  if (!from || ::fstat(from.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
    from.reset();
    st = original.st;
  }
  Place place = {};
  if (!target.directory->locate(target.below, place)) return false;
  // Not even at first is it open to more users than in the end.
  const UniqueFd to(::openat(place.dir_fd, place.name,
                             O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                             st.st_mode & kReadWrite));
  if (!to && errno != EEXIST) return false;
  if (!to) {
    reportExisting(target);
    return true;
  }
  if (from && hasHoles(st))
    copier_.copyWithHoles(from.get(), to.get());
  else if (from)
    copier_.copy(from.get(), to.get(), st.st_size);
  setModeAndGroup(to.get(), st.st_mode);
  return true;
}

void EntryDeployer::createDirectory(mode_t mode, const Target& target, Place place) {
  // Its owner, who is to open it, must be able to, unless the mask forbids even that.
  const mode_t first = (mode & kPermissions) | S_IRWXU;
  if (!makeDirectory(target, first, place)) {
    if (errno == EEXIST) return reportExisting(target);
    if (errno == ELOOP) return reportUnexaminedTarget(target, ELOOP);
    throwUncreated(target, lastError());
  }
  UniqueFd made(::openat(place.dir_fd, place.name,
                         O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!made || !isAsMade(made.get(), first)) return;
  setModeAndGroup(made.get(), mode);
  target.directory->enter(target.below, std::move(made));
}

/// Whoever may write beside a new directory may have put another in its place before it was opened:
/// one of their own, or one of ours that lay there under another name. Neither is touched.
///
/// Deliberate: where what is created belongs to another user than the one who creates it, as on a
/// file system from afar that does not trust root, new directories keep the mode and group that
/// they came with. Pinned by SetupSkeletonInARace.LeavesTheModeOfAnothersDirectoryAlone.
bool EntryDeployer::isAsMade(int fd, mode_t mode) const noexcept {
  struct stat st = {};
  if (::fstat(fd, &st) != 0 || st.st_uid != owner_) return false;
  const mode_t found = st.st_mode & kPermissions;
  const bool expected = found == (mode & ~mask_) || ((found & ~mode) == 0 && inheritsAccess(fd));
  return expected && isEmpty(fd);
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
