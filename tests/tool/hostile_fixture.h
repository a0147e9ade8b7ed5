// Archives as an enemy would pack them, unpacked by the real program with the real tools.
#ifndef TESTS_TOOL_HOSTILE_FIXTURE_H
#define TESTS_TOOL_HOSTILE_FIXTURE_H

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tool/archive_writer.h"
#include "tool/layered_root.h"

/// What is to come of an archive.
struct Effect {
  /// Most rows of the tables are told by their text alone, and so these two convert.
  Effect(std::string text) : says(std::move(text)) {}
  Effect(const char* text) : says(text) {}
  Effect(std::string text, std::vector<std::string> entries)
      : says(std::move(text)), leaves(std::move(entries)) {}

  /// What a tool says of it: a proof that the attack was met, not lost on the way. An empty text
  /// asks for none; "-" stands for an archive type that cannot hold it.
  std::string says;
  /// The entries that stand in the store afterwards beside the innocent pages and their sections,
  /// in the order of their paths: "d httpdocs/x", "f httpdocs/x/y content", "l httpdocs/z target".
  std::optional<std::vector<std::string>> leaves;
  /// Whether it may end the installation, with this text as its report and status 1.
  bool fatal = false;
};

/// It ends the installation with this report.
inline Effect fatal_with(const std::string& report) {
  Effect effect(report);
  effect.fatal = true;
  return effect;
}

/// What an archive holds beside innocent pages, and what comes of it.
struct HostileRow {
  const char* what;
  Members members;
  Effect tar;
  Effect zip;
};

/// From any directory of these tests up to that of the root.
extern const std::string climb;

/// After each archive: nothing outside the client's store has changed, anywhere in the file system,
/// and neither when the store is removed or installed anew; the store holds nothing that is set-id,
/// foreign, a device, writable for others or with rights beside its mode, and, after the answer 0,
/// nothing that a store may not hold; there is no "conf" in it in any case; the program has kept to
/// its protocol.
class HostileArchives : public ::testing::Test {
 protected:
  void SetUp() override;

  static void write_inside(const std::string& path, const std::string& content);
  static std::string read_inside(const std::string& path);

  /// Makes something inside with a shell script, in "/srv/archives".
  static void shell(const std::string& script);

  /// Installs an archive that lies in "/srv/archives", and looks for harm.
  static testsupport::Outcome install(const std::string& archive,
                                      const std::vector<std::string>& more = {},
                                      bool fatal = false);
  /// Removes the store with the program, and looks for harm.
  static void remove();

  /// For each of the three types that can hold it: install() and remove(), then once more with an
  /// innocent archive installed over the store.
  static void expect_harmless(const HostileRow& row);

  static constexpr const char* kStore = "/var/www/vhosts/.skel/7";
  /// The place of an entry of the store, as this process reaches it.
  static std::string in_store(const std::string& name);

 private:
  static void expect_harmless(const std::string& archive, const Effect& effect);
  static void expect_good_archive_in_its_place();

  LayeredRoot root_;
};

#endif
