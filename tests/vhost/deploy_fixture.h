// A private virtual hosts root with skeletons to deploy.
#ifndef TESTS_VHOST_DEPLOY_FIXTURE_H
#define TESTS_VHOST_DEPLOY_FIXTURE_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/child.h"
#include "support/scratch.h"
#include "support/tree_listing.h"
#include "vhost/entry_points.h"
#include "vhost/layout.h"

/// Every test begins with an empty root, a group "oxacln" of the number 4242, and the options of a
/// site whose document root and CGI directory lie in its own directory.
class DeployTest : public ::testing::Test {
 protected:
  using Lines = std::vector<std::string>;

  void SetUp() override;

  /// Paths in the skeleton "7", in the store of skeletons, in the host "example.com" and in the
  /// root.
  static std::string skeleton(const std::string& entry) { return store("7/" + entry); }
  static std::string store(const std::string& entry) { return root(".skel/" + entry); }
  static std::string host(const std::string& entry) { return root("example.com/" + entry); }
  static std::string root(const std::string& entry) { return "/var/www/vhosts/" + entry; }

  /// setup_skeleton() in this process, or in a child after `before`: its result, or the text of the
  /// exception, is written to standard output.
  void deployHere(const char* id = "7", int mode = frask::SETUP_SKELETON_ALL) const;
  testsupport::Outcome deploy(const char* id = "7", int mode = frask::SETUP_SKELETON_ALL) const;
  testsupport::Outcome deployAfter(const std::function<void()>& before) const;

  /// What lies in the host's directory.
  static Lines deployed() { return testsupport::tree_listing(root("example.com")); }

  DocrootCleanOptions options_ = {"/var/www/vhosts/example.com/httpdocs", 0, 0, 0,
                                  "/var/www/vhosts/example.com/cgi-bin"};
};

/// How a deployment ends that has reported this.
testsupport::Outcome done(const std::string& reports = {});

/// The same with an exception.
testsupport::Outcome thrown(const std::string& text, const std::string& reports = {});

/// Runs `call`, and writes its result or the text of its exception to standard output.
void tell(const std::function<int()>& call);

/// The reports of a deployment.
std::string existing(const std::string& path);
std::string unexaminedTarget(const std::string& path, int error);
std::string unexaminedOriginal(const std::string& path, int error);
std::string special(const std::string& path);

#endif
