// A directory for one test, and the small file operations that tests need.
#ifndef TESTS_SUPPORT_SCRATCH_H
#define TESTS_SUPPORT_SCRATCH_H

#include <sys/types.h>

#include <filesystem>
#include <string>

namespace testsupport {

/// A new directory below the temporary directory or another parent, removed with all it holds at
/// the end of the test, immutable files included.
class ScratchDir {
 public:
  ScratchDir();
  explicit ScratchDir(const std::filesystem::path& parent);
  ~ScratchDir();
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  const std::filesystem::path& path() const { return path_; }
  /// The text of a path below the directory.
  std::string operator/(const std::string& name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

/// Throws std::runtime_error with the text of errno behind `what` unless `done`.
void require(bool done, const std::string& what);

/// A parent for directories of thousands of entries: in memory, where the system has such a place.
std::filesystem::path memory_directory();

/// Writes a whole file, with the directories above it.
void write_file(const std::filesystem::path& path, const std::string& content, mode_t mode = 0644);
std::string read_file(const std::filesystem::path& path);

/// Sets or clears the immutable flag (chattr +i) through the system call. False where the file
/// system has none.
bool set_immutable(const std::filesystem::path& path, bool immutable);

/// The permission bits, set-id bits included, without following a link.
mode_t mode_of(const std::filesystem::path& path);

}  // namespace testsupport

#endif
