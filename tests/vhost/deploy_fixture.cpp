#include "vhost/deploy_fixture.h"

#include <string.h>

#include <exception>
#include <filesystem>
#include <iostream>

#include "support/private_mounts.h"

using testsupport::Outcome;

void DeployTest::SetUp() {
  testsupport::enter_private_mounts();
  testsupport::mount_file_over("/etc/group", "root:x:0:\noxacln:x:4242:\n");
  std::filesystem::create_directories(root(".skel"));
}

void DeployTest::deployHere(const char* id, int mode) const {
  tell([&] { return setup_skeleton(root("example.com").c_str(), mode, id, &options_); });
}

Outcome DeployTest::deploy(const char* id, int mode) const {
  return testsupport::in_child([&] { deployHere(id, mode); });
}

Outcome DeployTest::deployAfter(const std::function<void()>& before) const {
  return testsupport::in_child([&] {
    before();
    deployHere();
  });
}

void tell(const std::function<int()>& call) {
  try {
    std::cout << call() << "\n";
  } catch (const std::exception& failure) {
    std::cout << failure.what() << "\n";
  }
}

Outcome done(const std::string& reports) {
  return {"0\n", reports, 0};
}

Outcome thrown(const std::string& text, const std::string& reports) {
  return {text + "\n", reports, 0};
}

std::string existing(const std::string& path) {
  return "widoctl:InstallSkeleton(): " + path + " already exists, not restoring\n";
}

std::string unexaminedTarget(const std::string& path, int error) {
  return "widoctl:InstallSkeleton(): stat(\"" + path + "\") failed: " + strerror(error) + "\n";
}

std::string unexaminedOriginal(const std::string& path, int error) {
  return "widoctl:InstallSkeleton(): " + path + ": " + strerror(error) + "\n";
}

std::string special(const std::string& path) {
  return "widoctl:InstallSkeleton(): " + path + " not a file or directory, skipping\n";
}
