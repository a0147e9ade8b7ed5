// A deployment while others change the skeleton and the site.
#ifndef TESTS_VHOST_DEPLOY_RACE_FIXTURE_H
#define TESTS_VHOST_DEPLOY_RACE_FIXTURE_H

#include <filesystem>
#include <functional>
#include <sstream>
#include <string>

#include "support/stopped_child.h"
#include "vhost/deploy_fixture.h"

/// Beside the root there is a directory outside of it, which no deployment may touch.
class DeployRaceTest : public DeployTest {
 protected:
  testsupport::Outcome deployStoppedAt(const testsupport::Call& call,
                                       const std::function<void()>& meanwhile) const {
    return testsupport::in_child_stopped_at(call, meanwhile, [&] { deployHere(); });
  }

  void SetUp() override {
    DeployTest::SetUp();
    testsupport::write_file("/mnt/outside/kept", "kept");
    outside_ = testsupport::tree_listing("/mnt");
  }

  static void putLinkAt(const std::string& path) {
    std::filesystem::rename(path, path + ".moved");
    std::filesystem::create_directory_symlink("/mnt/outside", path);
  }

  /// What is seen meanwhile is seen by another process.
  static void noteModeOf(const std::string& path) {
    std::ostringstream mode;
    mode << std::oct << testsupport::mode_of(path);
    testsupport::write_file("/mnt/mode", mode.str());
  }
  static std::string notedMode() { return testsupport::read_file("/mnt/mode"); }

  void expectOutsideUnharmed() const {
    EXPECT_EQ(testsupport::tree_listing("/mnt/outside"), Lines{"f 0644 0:0 kept kept"});
    EXPECT_EQ(testsupport::mode_of("/mnt/outside"), 0755U);
    EXPECT_EQ(testsupport::tree_listing("/mnt"), outside_);
  }

  Lines outside_;
};

#endif
