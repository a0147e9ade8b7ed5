#include "panel.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <exception>

#include "support/private_mounts.h"

using testsupport::in_child;
using testsupport::Outcome;

namespace {

/// A forked child has its parent's failures too; its own are those that come on top.
int failures_so_far() {
  return testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count();
}

}  // namespace

Outcome in_panel(const std::function<void()>& body) {
  Outcome outcome = in_child([&body] {
    const int before = failures_so_far();
    try {
      testsupport::enter_private_mounts();
      body();
    } catch (const std::exception& failure) {
      ADD_FAILURE() << failure.what();
    }
    exit(failures_so_far() > before ? 1 : 0);
  });
  EXPECT_EQ(outcome.exit_code(), 0) << outcome;
  return outcome;
}
