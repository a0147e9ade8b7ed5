#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>

#include <boost/format.hpp>
#include <filesystem>
#include <iostream>
#include <utility>
#include <vector>

#include "fs/dir_stream.h"
#include "vhost/directory_stack.private.h"
#include "vhost/listing.private.h"

namespace frask {
namespace {

bool mayBeDirectory(unsigned char type) noexcept {
  return type == DT_DIR || type == DT_UNKNOWN;
}

void appendElement(std::string& path, const char* name) {
  if (!path.empty() && path.back() != '/') path += '/';
  path += name;
}

/// What the standard library's iterator says where it fails.
void report(const std::filesystem::filesystem_error& failure) {
  std::cerr << std::string(failure.what()) + "\n";
}

}  // namespace

TreeListing::Record::Record(const char*& at) noexcept : type(static_cast<unsigned char>(*at++)) {
  if (mayBeDirectory(type)) {
    memcpy(&directory, at, sizeof directory);
    at += sizeof directory;
  }
  name = at;
  at += strlen(name) + 1;
}

void TreeListing::Record::appendTo(std::string& records) const {
  records += static_cast<char>(type);
  if (mayBeDirectory(type))
    records.append(reinterpret_cast<const char*>(&directory), sizeof directory);
  records.append(name, strlen(name) + 1);
}

/// Reads directories whole and one after the other; the levels are a list and not a recursion, so
/// that a deep tree cannot exhaust the stack.
class TreeLister {
 public:
  TreeLister(TreeListing& listing, const std::string& top) : listing_(listing), path_(top) {}

  /// @param number  receives the directory's
  UniqueFd run(const Place& top, uint32_t& number) {
    UniqueFd fd = read(top.dir_fd, top.name, number);
    way_.reset(fd.get());
    while (!levels_.empty()) step();
    return fd;
  }

 private:
  using Record = TreeListing::Record;

  struct Level {
    uint32_t directory;
    size_t path_length;
    int error;      ///< of the reading, 0 for none
    size_t at = 0;  ///< how far its records have been gone through
  };

  void step() {
    Level& level = levels_.back();
    std::string& records = listing_.directories_[level.directory];
    if (level.at == records.size()) return leave();
    const size_t begin = level.at;
    const char* at = &records[begin];
    Record record(at);
    level.at = static_cast<size_t>(at - records.data());
    if (!mayBeDirectory(record.type)) return;
    path_.resize(level.path_length);
    appendElement(path_, record.name);
    if (!isDirectory(record)) return;
    record.type = DT_DIR;
    enter(record);
    records[begin] = static_cast<char>(record.type);
    memcpy(&records[begin + 1], &record.directory, sizeof record.directory);
  }

  bool isDirectory(const Record& record) {
    struct stat st = {};
    const int parent = way_.fd();
    if (parent >= 0 && record.type == DT_DIR) return true;
    if (parent >= 0 && ::fstatat(parent, record.name, &st, AT_SYMLINK_NOFOLLOW) == 0)
      return S_ISDIR(st.st_mode);
    reportUnreached(path_, errno);
    return false;
  }

  void enter(Record& record) {
    UniqueFd fd = read(way_.fd(), record.name, record.directory);
    if (fd) way_.enter(record.name, std::move(fd));
  }

  void leave() {
    const Level left = levels_.back();
    levels_.pop_back();
    if (!levels_.empty()) way_.leave();
    if (left.error == 0) return;
    path_.resize(left.path_length);
    const std::error_code cause(left.error, std::generic_category());
    if (left.at == 0)
      report({"directory iterator cannot open directory", path_, cause});
    else
      report({"directory iterator cannot advance", cause});
  }

  /// Opens the directory `path_` and reads it, as the next level down.
  UniqueFd read(int parent, const char* name, uint32_t& number) {
    if (!stream_.open(parent, name)) {
      reportUnopened(parent, name);
      return {};
    }
    number = static_cast<uint32_t>(listing_.directories_.size());
    const int error = readRecords();
    listing_.directories_.emplace_back(records_);
    levels_.push_back({number, path_.size(), error});
    return stream_.release();
  }

  /// @return why it could not be read to its end, or 0
  int readRecords() {
    records_.clear();
    bool searchable = true;
    while (const DirStream::Entry* entry = stream_.next()) {
      if (records_.empty()) searchable = canLookAt(*entry);
      Record(searchable ? entry->d_type : static_cast<unsigned char>(DT_UNKNOWN), entry->d_name)
          .appendTo(records_);
      ++listing_.size_;
    }
    // A directory that was removed meanwhile has come to its end.
    return stream_.failed() && errno != ENOENT ? errno : 0;
  }

  /// What may be read and not searched gives names, whose types help nobody: each of them is to be
  /// looked at and reported.
  bool canLookAt(const DirStream::Entry& entry) const noexcept {
    struct stat st = {};
    return ::fstatat(stream_.fd(), entry.d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 || errno == ENOENT;
  }

  /// What cannot be opened as a directory may just be none.
  void reportUnopened(int parent, const char* name) const {
    const std::error_code cause(errno, std::generic_category());
    struct stat st = {};
    if (::fstatat(parent, name, &st, AT_SYMLINK_NOFOLLOW) == 0) {
      if (S_ISDIR(st.st_mode)) report({"directory iterator cannot open directory", path_, cause});
    } else {
      reportUnreached(path_, errno);
    }
  }

  TreeListing& listing_;
  std::string path_;  ///< the entry in hand
  DirStream stream_;
  std::string records_;
  std::vector<Level> levels_;
  DirectoryStack way_;
};

void reportUnreached(const std::string& path, int error) {
  if (error != ENOENT) std::cerr << (boost::format("%1%: %2%\n") % path % strerror(error)).str();
}

UniqueFd TreeListing::add(const std::string& dir, const std::string& name) {
  return add({AT_FDCWD, dir.c_str()}, dir, name);
}

UniqueFd TreeListing::add(const Place& place, const std::string& dir, const std::string& name) {
  Record top(DT_UNKNOWN, name.c_str());
  UniqueFd fd = TreeLister(*this, dir).run(place, top.directory);
  if (fd) top.type = DT_DIR;
  top.appendTo(tops_);
  ++size_;
  return fd;
}

}  // namespace frask
