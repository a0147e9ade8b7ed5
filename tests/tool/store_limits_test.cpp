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
