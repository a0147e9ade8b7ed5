// A bounded part of what fault_sweep does: every call of each road fails once, in one of the ways.
#include <gtest/gtest.h>
#include <stdio.h>

#include "faults/roads.h"
#include "faults/sweep.h"

namespace {

using faults::Road;
using faults::SweepOptions;
using faults::SweepResult;

/// Among the six errors each call meets one: 7 has no factor in common with 6.
constexpr int kOwnStep = 7;
constexpr int kChildStep = 61;

void expect_no_complaints(const Road& road, const SweepResult& result) {
  puts(faults::summary(road, result).c_str());
  for (const std::string& complaint : result.complaints) ADD_FAILURE() << complaint;
  EXPECT_GT(result.faults, 0) << road.name;
}

void sweep_all(const std::vector<Road>& roads) {
  SweepOptions options;
  options.own_step = kOwnStep;
  options.child_step = kChildStep;
  for (const Road& road : roads) {
    expect_no_complaints(road, faults::sweep(road, options));
    ++options.phase;
  }
}

}  // namespace

TEST(Faults, LeaveTheProgramWithADocumentedEnd) {
  const faults::Stage stage;
  sweep_all(faults::Stage::tool_roads());
}

TEST(Faults, LeaveTheRoutinesWithADocumentedEndAndNoDescriptor) {
  const faults::Stage stage;
  sweep_all(faults::Stage::routine_roads());
}

TEST(Faults, OfAKilledInstallationAreMendedByTheNext) {
  const faults::Stage stage;
  for (const Road& road : faults::Stage::tool_roads())
    if (road.name.rfind("install-skel t", 0) == 0 || road.name.rfind("install-skel z", 0) == 0)
      expect_no_complaints(road, faults::kill_sweep(road, 10));
}
