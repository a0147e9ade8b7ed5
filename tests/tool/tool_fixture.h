// The real program in a private mount namespace, and archives made by the real tools.
#ifndef TESTS_TOOL_TOOL_FIXTURE_H
#define TESTS_TOOL_TOOL_FIXTURE_H

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/scratch.h"

/// Every test begins with empty compiled-in places, an "oxa.conf" that can be read (so that errno
/// is 0 once it has been) and an empty ".skel".
class ToolTest : public ::testing::Test {
 protected:
  void SetUp() override;

  /// Runs the program; the words stand behind its name.
  static testsupport::Outcome tembrix(const std::vector<std::string>& words,
                                      const testsupport::RunOptions& options = {});

  /// Runs the program, or another of its kind, behind a preparation in the same process.
  static testsupport::Outcome prepared(const std::function<void()>& prepare,
                                       std::vector<std::string> words,
                                       const std::string& program = TEMBRIX_PROGRAM);

  /// Runs a shell script in the scratch directory; the test fails unless it succeeds.
  void shell(const std::string& script) const;

  /// The path of a file below the scratch directory.
  std::string at(const std::string& name) const { return scratch_ / name; }

  static std::string store(const std::string& id) { return "/var/www/vhosts/.skel/" + id; }

 private:
  testsupport::ScratchDir scratch_;
};

/// Makes and installs archives.
class StoreTest : public ToolTest {
 protected:
  /// Packs what a script makes in an empty directory as the three types: skel.zip, .tgz, .tar.
  void pack(const std::string& script) const;

  testsupport::Outcome install(const std::string& id,
                               const std::string& archive = "skel.tgz") const {
    return tembrix({"--install-skel", "--filename", at(archive), "--id", id});
  }
};

/// What a fatal report looks like: the text on both streams, and status 1.
testsupport::Outcome fatal(const std::string& text);

/// What a run without reports looks like: the text on standard output, then the integer.
testsupport::Outcome answer(int result, const std::string& text_before = "");

/// The usage text, with the newline that puts() adds.
extern const std::string kUsage;

#endif
