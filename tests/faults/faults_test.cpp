// A bounded part of what fault_sweep does: about every second call of the roads that differ fails
// in one of the ways, and some of the calls of all other roads.
#include <errno.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
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
/// One call of a road of which most is another road's.
constexpr int kOneCall = 10007;

bool has_prefix(const Road& road, const std::vector<std::string>& prefixes) {
  return std::any_of(prefixes.begin(), prefixes.end(), [&road](const std::string& prefix) {
    return road.name.rfind(prefix, 0) == 0;
  });
}

void expect_no_complaints(const Road& road, const SweepResult& result) {
  puts(faults::summary(road, result).c_str());
  for (const std::string& complaint : result.complaints) ADD_FAILURE() << complaint;
  if (road.makes_calls)
    EXPECT_GT(result.faults, 0) << road.name;
  else
    EXPECT_EQ(result.calls, 0) << road.name << " is listed as one that makes no system call";
}

/// Each road begins with its first call, which meets another of the errors than the road before it;
/// of a sister road one of the first calls fails.
void sweep_all(const std::vector<Road>& roads, const std::vector<std::string>& in_part) {
  SweepOptions options;
  options.child_step = kSomeOfChildren;
  const size_t errors = options.errors.size();
  std::set<int> met;
  size_t first_error = 0;
  size_t sister_call = 0;
  for (const Road& road : roads) {
    size_t first = first_error;
    if (road.is_sister) {
      options.own_step = kOneCall;
      first += errors * (sister_call++ % 5);
    } else {
      options.own_step = has_prefix(road, in_part) ? kSomeCalls : kSecondCalls;
    }
    options.phase = options.own_step - static_cast<int>(first);
    const SweepResult result = faults::sweep(road, options);
    expect_no_complaints(road, result);
    met.insert(result.errors.begin(), result.errors.end());
    first_error = (first_error + 1) % errors;
  }
  EXPECT_EQ(met.size(), errors) << "an error number that no call gave";
}

/// The names without a C++ type: what the plain layer exports, objects left out.
std::vector<std::string> exported_plain_routines() {
  std::ifstream list(EXPORTED_SYMBOLS);
  std::vector<std::string> names;
  for (std::string line; std::getline(list, line);)
    if (line.find_first_of("#: [(<") == std::string::npos) names.push_back(line);
  return names;
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

/// Where the road writes; where it does not, the file system of what it reads, of its working
/// directory and of the temporary files.
const char* file_system_of(const Road& road) {
  return road.state.empty() || road.state[0].rfind("/mnt", 0) == 0 ? "/mnt" : "/var/www";
}

}  // namespace

TEST(Faults, LeaveTheProgramWithADocumentedEnd) {
  const Stage stage;
  sweep_all(Stage::tool_roads(),
            {"test-archive z", "test-archive tar", "test-archive tgz", "install-skel z",
             "install-skel tar", "install-skel,", "install-default"});
}

TEST(Faults, LeaveTheRoutinesWithADocumentedEndAndNoDescriptor) {
  const Stage stage;
  sweep_all(Stage::routine_roads(), {"get_param", "get_mail"});
}

TEST(Faults, OfALookAtTheFileThatStandsForALinkAreNotHeardOf) {
  const Stage stage;
  SweepOptions options;
  options.only = SYS_newfstatat;
  options.errors = {EIO};
  options.own_step = kOneCall;
  options.phase = 1;  // none of the program's own
  int unmade_links = 0;
  for (const Road& road : Stage::tool_roads()) {
    if (!has_prefix(road, {"install-skel tar"})) continue;
    const SweepResult result = faults::sweep(road, options);
    expect_no_complaints(road, result);
    unmade_links += result.unmade_links;
  }
  EXPECT_EQ(unmade_links, 1)
      << "GNU tar 1.34; a tar that reports it needs no exception in sweep.cpp";
}

TEST(Faults, MeetEveryPlainRoutineThatIsExported) {
  const std::vector<Road> roads = Stage::routine_roads();
  const std::vector<std::string> exported = exported_plain_routines();
  EXPECT_GT(exported.size(), 90U);
  for (const std::string& name : exported)
    EXPECT_TRUE(std::any_of(roads.begin(), roads.end(),
                            [&name](const Road& road) { return road.name == name; }))
        << name << " is exported and has no road";
}

TEST(Faults, OfAKilledInstallationAreMendedByTheNext) {
  const Stage stage;
  for (const Road& road : Stage::tool_roads()) {
    if (has_prefix(road, {"install-skel tgz"}))
      expect_no_complaints(road, faults::kill_sweep(road, 20));
    else if (has_prefix(road, {"install-skel z", "install-skel tar"}))
      expect_no_complaints(road, faults::kill_sweep(road, 90));
  }
}

TEST(Faults, OfAFullFileSystemAreReported) {
  const Stage stage;
  for (const Road& road : spoilt_roads()) {
    const char* place = file_system_of(road);
    const auto mend = [place] { empty(place); };
    expect_no_complaints(road, faults::run_spoilt(
                                   road, [place] { fill(place); }, mend));
    if (!road.is_tool() || !has_prefix(road, {"install"})) continue;
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

TEST(Faults, OfAReadOnlyFileSystemAreReported) {
  const Stage stage;
  for (const Road& road : spoilt_roads()) {
    const char* place = file_system_of(road);
    expect_no_complaints(road, faults::run_spoilt(
                                   road, [place] { remount(place, MS_RDONLY, nullptr); },
                                   [place] { remount(place, 0, nullptr); }));
  }
}

TEST(Faults, OfAFullStandardOutputLeaveTheStatus) {
  const Stage stage;
  for (const Road& road : Stage::tool_roads())
    expect_no_complaints(road, faults::run_unheard(road));
}

TEST(Faults, OfAFullStandardOutputLeaveFatalReportsOnStandardError) {
  const Stage stage;
  const testsupport::Outcome outcome =
      testsupport::run(faults::unheard({TEMBRIX_PROGRAM, "--install-skel"}));
  EXPECT_EQ(outcome.exit_code(), 1);
  EXPECT_EQ(outcome.err, "tembrix: Error: parameter 'filename' wasn't specified\n");
}
