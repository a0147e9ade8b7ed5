// Archives as an enemy would pack them, unpacked by the real program with the real tools.
#ifndef TESTS_TOOL_HOSTILE_FIXTURE_H
#define TESTS_TOOL_HOSTILE_FIXTURE_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tool/archive_writer.h"
#include "tool/layered_root.h"

/// What an archive holds beside an innocent page, and what a tool says of it: a proof that the
/// attack was met, not lost on the way. An empty text asks for none; "-" stands for an archive type
/// that cannot hold it.
struct HostileRow {
  const char* what;
  Members members;
  std::string tar_says;
  std::string zip_says;
};

/// From any directory of these tests up to that of the root.
extern const std::string climb;

/// After each archive: nothing outside the client's store has changed, anywhere in the file system;
/// the store holds nothing that is set-id, foreign, a device or writable for others; the program
/// has kept to its protocol; and it can remove the store again.
class HostileArchives : public ::testing::Test {
 protected:
  void SetUp() override;

  static void write_inside(const std::string& path, const std::string& content);
  static std::string read_inside(const std::string& path);

  /// Makes something inside with a shell script, in "/srv/archives".
  static void shell(const std::string& script);

  /// Installs an archive that lies in "/srv/archives", and looks for harm.
  static testsupport::Outcome install(const std::string& archive,
                                      const std::vector<std::string>& more = {});
  /// Removes the store with the program.
  static void remove();

  /// install() and remove() for each of the three types that can hold it.
  static void expect_harmless(const HostileRow& row);

  static constexpr const char* kStore = "/var/www/vhosts/.skel/7";
  /// The place of an entry of the store, as this process reaches it.
  static std::string in_store(const std::string& name);

 private:
  static void expect_harmless(const std::string& archive, const std::string& says);

  LayeredRoot root_;
};

#endif
