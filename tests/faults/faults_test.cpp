// A bounded part of what fault_sweep does: about every second call of the roads that differ fails
// in one of the ways, and some of the calls of all other roads.
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "faults/roads.h"
#include "faults/sweep.h"

namespace {

using faults::Road;
using faults::Stage;
using faults::SweepOptions;
using faults::SweepResult;

/// Of six errors a call, so that about every second call meets one, and each error has its turn: 13
/// has no factor in common with 6.
constexpr int kSecondCalls = 13;
/// About every 24th call, for roads of which the program's own part is another's.
constexpr int kSomeCalls = 143;
constexpr int kSomeOfChildren = 613;

bool has_prefix(const Road& road, const std::vector<std::string>& prefixes) {
  return std::any_of(prefixes.begin(), prefixes.end(), [&road](const std::string& prefix) {
    return road.name.rfind(prefix, 0) == 0;
  });
}

void expect_no_complaints(const Road& road, const SweepResult& result) {
  puts(faults::summary(road, result).c_str());
  for (const std::string& complaint : result.complaints) ADD_FAILURE() << complaint;
  EXPECT_GT(result.faults, 0) << road.name;
}

/// Each road begins with its first call, which meets another of the errors than the road before it.
void sweep_all(const std::vector<Road>& roads, const std::vector<std::string>& in_part) {
  SweepOptions options;
  options.child_step = kSomeOfChildren;
  size_t first_error = 0;
  for (const Road& road : roads) {
    options.own_step = has_prefix(road, in_part) ? kSomeCalls : kSecondCalls;
    options.phase = options.own_step - static_cast<int>(first_error);
    expect_no_complaints(road, faults::sweep(road, options));
    first_error = (first_error + 1) % options.errors.size();
  }
}

void remount(const char* place, unsigned long flags, const char* options) {
  if (mount("none", place, nullptr, MS_REMOUNT | flags, options) != 0)
    throw std::runtime_error(std::string("cannot remount ") + place);
}

/// Leaves no byte and hardly an inode.
void fill(const char* place) {
  remount(place, 0, "size=1m,nr_inodes=400");
  std::ofstream filler(std::string(place) + "/filler");
  while (filler << std::string(4096, 'x') && filler.flush()) {
  }
}

void empty(const char* place) {
  unlink((std::string(place) + "/filler").c_str());
  remount(place, 0, "size=50%,nr_inodes=100000");
}

/// All modes of the program, and the routines that change a file system.
std::vector<Road> spoilt_roads() {
  std::vector<Road> roads = Stage::tool_roads();
  for (const Road& road : Stage::routine_roads())
    if (!road.state.empty()) roads.push_back(road);
  return roads;
}

const char* file_system_of(const Road& road) {
  return !road.state.empty() && road.state[0].rfind("/mnt", 0) == 0 ? "/mnt" : "/var/www";
}

class Faults : public ::testing::Test {
 protected:
  void SetUp() override {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer's own system calls would fail, too, and end the program";
#endif
    stage_ = std::make_unique<Stage>();
  }

 private:
  std::unique_ptr<Stage> stage_;
};

}  // namespace

TEST_F(Faults, LeaveTheProgramWithADocumentedEnd) {
  sweep_all(Stage::tool_roads(),
            {"test-archive z", "test-archive tar", "test-archive tgz", "install-skel z",
             "install-skel tar", "install-skel,", "install-default"});
}

TEST_F(Faults, LeaveTheRoutinesWithADocumentedEndAndNoDescriptor) {
  sweep_all(Stage::routine_roads(), {"get_param", "get_mail"});
}

TEST_F(Faults, OfAKilledInstallationAreMendedByTheNext) {
  for (const Road& road : Stage::tool_roads()) {
    if (has_prefix(road, {"install-skel tgz"}))
      expect_no_complaints(road, faults::kill_sweep(road, 20));
    else if (has_prefix(road, {"install-skel z", "install-skel tar"}))
      expect_no_complaints(road, faults::kill_sweep(road, 90));
  }
}

TEST_F(Faults, OfAFullFileSystemAreReported) {
  for (const Road& road : spoilt_roads()) {
    const char* place = file_system_of(road);
    const auto mend = [place] { empty(place); };
    expect_no_complaints(road, faults::run_spoilt(
                                   road, [place] { fill(place); }, mend));
    if (!has_prefix(road, {"install"})) continue;
    // The removal of an earlier store makes room.
    const auto spoil = [&] {
      std::filesystem::remove_all(road.state[0]);
      fill(place);
    };
    const SweepResult result = faults::run_spoilt(road, spoil, mend);
    expect_no_complaints(road, result);
    EXPECT_EQ(result.outcomes.count("answer 0, reported"), 1U) << "nothing fitted";
  }
}

TEST_F(Faults, OfAReadOnlyFileSystemAreReported) {
  for (const Road& road : spoilt_roads()) {
    const char* place = file_system_of(road);
    expect_no_complaints(road, faults::run_spoilt(
                                   road, [place] { remount(place, MS_RDONLY, nullptr); },
                                   [place] { remount(place, 0, nullptr); }));
  }
}
