// Stores at the limits of the system: deep trees with few descriptors, long paths.
#include <unistd.h>

#include <filesystem>

#include "support/few_descriptors.h"
#include "tool/skeleton_store.h"
#include "tool/tool_fixture.h"

namespace fs = std::filesystem;
using testsupport::Outcome;
using testsupport::write_file;

namespace {

class StoreLimits : public StoreTest {
 protected:
  /// The program with at most 256 descriptors.
  static Outcome with_few_descriptors(const std::string& words) {
    return testsupport::run(
        {"/bin/sh", "-c", std::string("ulimit -n 256; exec ") + TEMBRIX_PROGRAM + " " + words});
  }

  /// A virtual hosts directory whose path has this length.
  static std::string configured_directory(size_t length) {
    std::string path = "/var/www";
    while (length - path.size() > 250) path += "/" + std::string(199, 'a');
    path += "/" + std::string(length - path.size() - 1, 'a');
    fs::create_directories(path);
    write_file("/etc/oxa/oxa.conf", "HTTPD_VHOSTS_D " + path + "\n");
    return path;
  }

  /// How many entries below a directory are of this name, however deep.
  static long entries(const std::string& directory, const std::string& name) {
    const Outcome found = testsupport::run({"find", directory, "-name", name, "-printf", "."});
    EXPECT_EQ(found.exit_code(), 0) << found;
    return static_cast<long>(found.out.size());
  }
};

/// How a child of the test ends that reports and gives up.
Outcome failed(const std::string& report) {
  return {report, report, 1 << 8};
}

constexpr int kLevels = 1600;

std::string levels(int count) {
  std::string path;
  for (int i = 0; i < count; ++i) path += "d/";
  return path;
}

}  // namespace

TEST_F(StoreLimits, CleanAndRemoveTreesOfMoreLevelsThanDescriptors) {
  // Forbidden files and directories around the limit and at the bottom, where nothing is spare.
  shell("mkdir -p skel/httpdocs/" + levels(kLevels) + ".quota/sub/sub/sub; cd skel/httpdocs\n" +
        "for level in " + levels(200) + " " + levels(250) + " " + levels(1500) + "; do\n" +
        "  mkdir -p $level/.quota/sub/sub $level/d2; touch $level/.quota/sub/file $level/kept\n" +
        "  touch $level/d2/.quota\ndone\n" + "touch " + levels(kLevels) + "kept\n" +
        "cd ../..; tar -cf skel.tar -C skel httpdocs; rm -rf skel");
  EXPECT_EQ(with_few_descriptors("--install-skel --filename " + at("skel.tar") + " --id 7"),
            answer(0));
  EXPECT_EQ(entries(store("7"), ".quota"), 0);
  EXPECT_EQ(entries(store("7"), "kept"), 4);
  EXPECT_EQ(entries(store("7"), "d"), kLevels);
  EXPECT_EQ(with_few_descriptors("--remove-skel --id 7"), answer(0));
  EXPECT_FALSE(fs::exists(store("7")));
}

TEST_F(StoreLimits, LeaveNoForbiddenEntryHoweverFewDescriptorsThereAre) {
  std::string level = "section/";
  for (int depth = 0; depth < 12; ++depth, level += "d/") {
    if (depth < 3 || depth > 6) write_file(at("tree/" + level + ".quota/sub/sub/file"), "");
    write_file(at("tree/" + level + "z/.quota"), "");
  }
  // The starting point, a directory, and what the removal of a directory needs.
  for (int count = 3; count < 20; ++count) {
    SCOPED_TRACE(count);
    shell("rm -rf copy; cp -r tree copy");
    const Outcome outcome = testsupport::in_child([&] {
      fs::current_path(at("copy"));
      testsupport::allow_descriptors(count);
      remove_forbid_entries("section");
      if (!fs::equivalent(fs::current_path(), at("copy"))) _exit(95);
      _exit(0);
    });
    EXPECT_EQ(outcome, (Outcome{"", "", 0}));
    EXPECT_EQ(entries(at("copy"), ".quota"), 0);
    EXPECT_EQ(entries(at("copy"), "z"), 12);
  }
}

TEST_F(StoreLimits, SayWhereDescriptorsDoNotSufficeForAForbiddenDirectory) {
  write_file(at("section/.quota/file"), "");
  const Outcome outcome = testsupport::in_child([&] {
    fs::current_path(at(""));
    testsupport::allow_descriptors(2);
    remove_forbid_entries("section");
  });
  EXPECT_EQ(outcome, failed("Unable to open dir .quota: Too many open files\n\n"
                            "System error 24: Too many open files\n"));
}

TEST_F(StoreLimits, TakePathsOf4095Bytes) {
  const std::string vhosts = configured_directory(4095 - std::string("/.skel/77").size());
  const std::string path = vhosts + "/.skel/77";
  ASSERT_EQ(path.size(), 4095U);
  fs::create_directories(path);
  shell("cd " + path + "; mkdir old");
  write_file(at("a.tar"), "");
  const Outcome outcome =
      tembrix({"--install-skel", "--force-type", "tar", "--filename", at("a.tar"), "--id", "77"});
  EXPECT_EQ(outcome.out.substr(outcome.out.size() - 17), "Exit status -1\n0\n")
      << "the command does not fit, which is tolerated";
  EXPECT_EQ(outcome.exit_code(), 0);
  EXPECT_TRUE(fs::is_empty(path));
  shell("cd " + path + "; mkdir -p httpdocs/sub");
  EXPECT_EQ(tembrix({"--remove-skel", "--id", "77"}), answer(0));
  EXPECT_TRUE(fs::is_empty(vhosts + "/.skel"));
}

TEST_F(StoreLimits, RefuseLongerPathsAndTouchNothing) {
  write_file(at("a.tar"), "");
  struct Row {
    const char* left;  ///< what a path of 4095 bytes holds behind the virtual hosts directory
    const char* id;
  };
  for (const Row& row :
       {Row{"/.skel/77", "778"}, {"/.skel/", "7"}, {"/.skel", "7"}, {"/", "7"}, {"", "7"}}) {
    SCOPED_TRACE(row.left);
    const std::string vhosts = configured_directory(4095 - std::string(row.left).size());
    shell("cd " + vhosts + "; mkdir -p .skel/7 .skel/77; touch .skel/7/kept .skel/77/kept kept");
    const std::string report = "tembrix: Unable to check directory entry " +
                               (vhosts + "/.skel/" + row.id).substr(0, 4095) +
                               ": File name too long\n";
    const Outcome refused = {report, report, 1 << 8};
    EXPECT_EQ(tembrix({"--remove-skel", "--id", row.id}), refused);
    EXPECT_EQ(tembrix({"--install-skel", "--force-type", "tar", "--filename", at("a.tar"), "--id",
                       row.id}),
              refused);
    EXPECT_EQ(entries("/var/www", "kept"), 3);
    shell("rm -rf /var/www/a*");
  }
}

TEST_F(StoreLimits, RefuseClientIdsThatAreNoDirectoryName) {
  for (const size_t length : {256U, 4073U, 4074U, 5000U}) {
    SCOPED_TRACE(length);
    const std::string id(length, '7');
    const std::string path = store(id).substr(0, 4095);
    const Outcome outcome = tembrix({"--remove-skel", "--id", id});
    EXPECT_EQ(outcome.err.rfind(
                  "tembrix: Unable to check directory entry " + path + ": File name too long\n", 0),
              0U);
    EXPECT_EQ(outcome.exit_code(), 1);
  }
}
