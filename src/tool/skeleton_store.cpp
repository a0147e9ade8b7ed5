#include "tool/skeleton_store.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <utility>

#include "conf/oxaconf.h"
#include "exec/keep_errno.private.h"
#include "fs/descent.private.h"
#include "fs/dir_stream.h"
#include "fs/tree.h"
#include "fs/unique_fd.h"
#include "log/messlog.h"
#include "vhost/skeldir.h"

const char* const forbidden_subs_entry[2] = {".quota", nullptr};

namespace {

using frask::Descent;
using frask::DirStream;
using frask::UniqueFd;

constexpr mode_t kFileMode = 0644;
constexpr mode_t kDirectoryMode = 0755;
using Path = std::array<char, 4096>;

bool is_listed(const char* name, const char* const* list) {
  for (; *list != nullptr; ++list)
    if (strcmp(name, *list) == 0) return true;
  return false;
}

/// A path that was cut would be another client's store, or all of them, or the virtual hosts
/// directory itself. It is refused as the system refuses one that is too long.
Path store_path(const char* client_id) {
  Path path;
  const int wanted = snprintf(path.data(), path.size(), "%s/.skel/%s",
                              oxaConfGetDefaultByIndex(OXA_CONF_HTTPD_VHOSTS_D), client_id);
  if (wanted < 0 || static_cast<size_t>(wanted) >= path.size()) {
    errno = ENAMETOOLONG;
    messlog2(1, 1, "Unable to check directory entry %s: %s\n", path.data(), strerror(errno));
  }
  return path;
}

bool is_directory(int parent, const char* name) {
  struct stat st = {};
  if (fstatat(parent, name, &st, AT_SYMLINK_NOFOLLOW) != 0)
    messlog2(1, 1, "Unable to check directory entry %s: %s\n", name, strerror(errno));
  return S_ISDIR(st.st_mode);
}

void change_into(const DirStream& directory, const char* name) {
  if (fchdir(directory.fd()) != 0)
    messlog2(1, 1, "Unable to change dir %s: %s\n", name, strerror(errno));
}

/// Nothing may stay in a store because its listing broke off.
void require_whole_listing(const DirStream& directory, const char* name) {
  if (directory.failed())
    messlog2(1, 1, "Unable to check directory entry %s: %s\n", name, strerror(errno));
}

void close_directory(DirStream& directory, const char* name) {
  if (directory.close() != 0) messlog2(1, 1, "Unable to close dir %s: %s\n", name, strerror(errno));
}

/// The walk of remove_forbid_entries() through a directory of the current one, which is the current
/// one again afterwards.
class Cleaning {
 public:
  Cleaning(UniqueFd here, const char* path) : descent_(std::move(here), path) {}

  void run() {
    enter();
    while (descent_.present() != nullptr) step(descent_.present()->dir);
  }

 private:
  void enter() {
    std::unique_ptr<Descent::Level> opened = descent_.open();
    if (!opened)
      messlog2(1, 1, "Unable to open dir %s: %s\n", descent_.name(), strerror(errno));
    else if (!descent_.enter(std::move(opened)))
      messlog2(1, 1, "Unable to change dir %s: %s\n", descent_.name(), strerror(errno));
  }

  void step(DirStream& directory) {
    const DirStream::Entry* entry = directory.next();
    if (entry == nullptr) return leave();
    const bool is_dir = is_directory(descent_.dir_fd(), entry->d_name);
    // Deliberate: hidden directories are not entered; their owners keep what is in them.
    // Pinned by RemoveForbidEntries.NeverEntersHiddenDirectories.
    if (is_listed(entry->d_name, forbidden_subs_entry))
      remove_forbidden(is_dir);
    else if (is_dir && entry->d_name[0] != '.')
      enter();
  }

  void remove_forbidden(bool is_dir) {
    constexpr int kOfRmTree = 2;  // what it needs for a directory, however deep
    // Where that fails, rm_tree() meets the same shortage and reports it.
    if (is_dir) static_cast<void>(descent_.reserve(kOfRmTree));
    rm_tree(descent_.name(), 1);
  }

  void leave() {
    const std::unique_ptr<Descent::Level> left = descent_.leave();
    require_whole_listing(left->dir, descent_.name());
    if (!descent_.return_to_present())
      messlog2(1, 1, "Unable to change dir %s: %s\n", "..", strerror(errno));
    close_directory(left->dir, descent_.name());
  }

  Descent descent_;
};

/// An ordinary client may not supply a "conf" section; only the client "0", the panel itself, may.
bool may_keep(const char* name, const char* client_id) {
  if (!is_listed(name, skeldir)) return false;
  return strcmp(name, "conf") != 0 || strcmp(client_id, "0") == 0;
}

/// Deliberate: before all other entries, wherever the listing has it. An entry that cannot be
/// removed, as a named pipe, ends the walk, and the store stays: what the client may never supply
/// must be gone by then. Pinned by InstallSkel.HasRemovedConfWhateverEndsIt.
void remove_unsupplied_conf(const char* client_id) {
  const frask::KeepErrno keep;
  if (!may_keep("conf", client_id)) rm_tree("conf", 1);
}

/// Leaves the current directory above the store.
void prune_store(const char* store, const char* client_id) {
  DirStream directory;
  if (!directory.open(AT_FDCWD, store))
    messlog2(1, 1, "Problems with opening directory '%s': %s", store, strerror(errno));
  change_into(directory, store);
  remove_unsupplied_conf(client_id);
  while (const DirStream::Entry* entry = directory.next()) {
    if (may_keep(entry->d_name, client_id))
      remove_forbid_entries(entry->d_name);
    else
      rm_tree(entry->d_name, 1);
  }
  require_whole_listing(directory, store);
  if (chdir("..") != 0) messlog2(1, 1, "Unable to change dir %s: %s\n", "..", strerror(errno));
  close_directory(directory, store);
}

}  // namespace

int installSkeleton(const ArchiveDescriptor* archive, const char* client_id) {
  const Path store = store_path(client_id);
  rm_tree(store.data(), 1);
  if (mkdir(store.data(), kDirectoryMode) != 0)
    messlog2(1, 1, "Problems with creating directory %s: %s", store.data(), strerror(errno));
  // Deliberate: a failed extraction has been reported, and the client gets what was unpacked; the
  // panel tests archives beforehand. Pinned by
  // InstallSkel.GivesAnEmptyStoreAndZeroForACorruptArchive.
  static_cast<void>(extractTo(archive, store.data()));
  prune_store(store.data(), client_id);
  tree_set_perms(store.data(), 0, 0, kFileMode, kDirectoryMode, 1);
  return 0;
}

int removeSkeleton(const char* client_id) {
  rm_tree(store_path(client_id).data(), 1);
  return 0;
}

void remove_forbid_entries(const char* path) {
  if (is_listed(path, forbidden_subs_entry)) {
    rm_tree(path, 1);
    return;
  }
  if (!is_directory(AT_FDCWD, path)) return;
  UniqueFd here(open(".", O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!here) messlog2(1, 1, "Unable to open dir %s: %s\n", ".", strerror(errno));
  Cleaning(std::move(here), path).run();
}

int rm_entry(const char* path) {
  rm_tree(path, 1);
  return 0;
}
