// Other processes change a store while it is made.
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <functional>

#include "support/limits.h"
#include "support/stopped_child.h"
#include "support/swapping.h"
#include "support/tree_listing.h"
#include "tool/skeleton_store.h"
#include "tool/tool_fixture.h"

namespace fs = std::filesystem;
using testsupport::Outcome;
using testsupport::tree_listing;
using testsupport::write_file;
using Lines = std::vector<std::string>;

namespace {

/// Runs `walk`; while it stands before a call, `entry` is moved aside and a link to "outside" in
/// `scratch` put in its place, where there are forbidden entries for it to find.
Outcome with_link_put_at(const std::string& scratch, const std::string& entry,
                         const testsupport::Call& before, const std::function<void()>& walk) {
  const std::string outside = scratch + "/outside";
  write_file(outside + "/.quota", "kept", 0600);
  write_file(outside + "/sub/.quota", "kept", 0600);
  const Lines listed = tree_listing(outside);
  const auto swap = [&] {
    fs::rename(entry, entry + ".aside");
    fs::create_symlink(outside, entry);
  };
  Outcome outcome = testsupport::in_child_stopped_at(before, swap, walk);
  EXPECT_EQ(tree_listing(outside), listed);
  fs::remove_all(entry + ".aside");
  return outcome;
}

struct Swap {
  const char* entry;
  long call;         ///< that the walk stands before,
  const char* name;  ///< of that name,
  int status;        ///< and how it ends
  std::string report;
};

std::string unopened(const std::string& name) {
  return "Unable to open dir " + name + ": Not a directory\n\nSystem error 20: Not a directory\n";
}

using RemoveForbidEntries = StoreTest;
using InstallSkel = StoreTest;

}  // namespace

TEST_F(RemoveForbidEntries, CleansNothingThroughALinkPutIntoItsWay) {
  const std::string unremoved =
      "Unable to remove dir .quota: Not a directory\n\nSystem error 20: Not a directory\n";
  const Swap swaps[] = {{"section", SYS_newfstatat, "section", 0, ""},
                        {"section", SYS_openat, "section", 1, unopened("section")},
                        {"section/dir", SYS_newfstatat, "dir", 0, ""},
                        {"section/dir", SYS_openat, "dir", 1, unopened("dir")},
                        {"section/dir/.quota", SYS_newfstatat, ".quota", 0, ""},
                        {"section/dir/.quota", SYS_openat, ".quota", 1, unopened(".quota")},
                        {"section/dir/.quota", SYS_unlinkat, ".quota", 1, unremoved}};
  for (const Swap& swap : swaps) {
    SCOPED_TRACE(std::string(swap.entry) + " before " + std::to_string(swap.call));
    fs::remove_all(at("section"));
    fs::create_directories(at("section/dir/.quota/sub"));
    EXPECT_EQ(with_link_put_at(at(""), at(swap.entry), {swap.call, swap.name},
                               [this] {
                                 fs::current_path(at(""));
                                 remove_forbid_entries("section");
                               }),
              (Outcome{swap.report, swap.report, swap.status << 8}));
  }
}

TEST_F(InstallSkel, EndsWhereTheStoreBecomesALinkBeforeItIsCleaned) {
  pack("mkdir -p httpdocs; touch httpdocs/.quota");
  const std::string path = at("skel.tar");
  const std::string report = "Problems with opening directory '" + store("7") +
                             "': Not a directory\nSystem error 20: Not a directory\n";
  EXPECT_EQ(with_link_put_at(at(""), store("7"), {SYS_openat, store("7")},
                             [&path] {
                               ArchiveDescriptor archive = adc_tar;
                               archive.file_name = path.c_str();
                               installSkeleton(&archive, "7");
                             }),
            (Outcome{report, report, 1 << 8}));
}

TEST_F(RemoveForbidEntries, EndsWhereTheWayBackLeadsElsewhere) {
  const std::string report =
      "Unable to change dir ..: Stale file handle\n\nSystem error 116: Stale file handle\n";
  fs::create_directories(at("section/a/b/c/d/e"));
  write_file(at("outside/.quota"), "kept");
  EXPECT_EQ(
      testsupport::in_child_stopped_at(
          {SYS_chdir, "", 1}, [this] { fs::rename(at("section/a/b/c/d/e"), at("outside/e")); },
          [this] {
            if (fchdir(open(at("").c_str(), O_PATH | O_CLOEXEC)) != 0) _exit(97);
            testsupport::allow_descriptors(3);
            remove_forbid_entries("section");
          }),
      (Outcome{report, report, 1 << 8}));
  EXPECT_TRUE(fs::exists(at("outside/.quota")));
}

TEST_F(RemoveForbidEntries, HarmsNothingOutsideUnderConstantSwapping) {
  struct Swapped {
    const char* entry;
    const char* like;
  };
  constexpr Swapped kSwapped[] = {{"section/a", "outside"},
                                  {"section/b/sub", "outside/sub"},
                                  {"section/c/.quota", "outside/.quota"},
                                  {"section/d/sub/.quota", "outside/sub/.quota"}};
  const auto write_entries = [this](const std::string& top) {
    for (const char* file : {"/.quota/file", "/sub/.quota/sub/file", "/sub/sub/.quota", "/file"})
      write_file(at(top + file), "kept");
  };
  write_entries("outside");
  testsupport::SwapPlan plan;
  plan.directory = at("");
  plan.victim = at("outside");
  for (const auto& [entry, like] : kSwapped)
    plan.pairs.push_back({entry, "decoy" + std::to_string(plan.pairs.size())});
  plan.rebuild = [&] {
    fs::remove_all(at("section"));
    for (const char* top : {"section/a", "section/b", "section/c", "section/d"}) write_entries(top);
    for (size_t i = 0; i < plan.pairs.size(); ++i) {
      fs::remove_all(at(plan.pairs[i].decoy));
      fs::create_symlink(at(kSwapped[i].like), at(plan.pairs[i].decoy));
    }
  };
  plan.routine = [this] {
    fs::current_path(at(""));
    remove_forbid_entries("section");
  };
  const testsupport::SwapCounts counts =
      testsupport::run_under_swapping(plan, testsupport::kLeastSwaps, testsupport::kLeastRuns);
  EXPECT_GE(counts.swaps, testsupport::kLeastSwaps);
  EXPECT_GE(counts.runs, testsupport::kLeastRuns);
}
