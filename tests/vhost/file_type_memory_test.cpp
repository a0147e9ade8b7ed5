#include <gtest/gtest.h>

#include <new>
#include <string>

#include "exec/TError.h"
#include "support/allocations.h"
#include "support/child.h"
#include "support/scratch.h"
#include "vhost/layout.h"

namespace {

using testsupport::in_child;
using testsupport::Outcome;
using testsupport::ScratchDir;

/// Asks with one allocation that fails; what is written tells how many processes came back.
void ask_with_failing(unsigned allocation, const std::string& path) {
  std::string answer = "thrown";
  testsupport::fail_allocations(allocation);
  try {
    answer = frask::typeFromPath(path);
  } catch (const frask::sys::TSysCallErr& error) {
    answer = error.error_number() == ENOMEM ? "told" : "wrong";
  } catch (const std::bad_alloc&) {
  }
  const bool failed = testsupport::stop_failing_allocations();
  printf("%s%s;", answer.c_str(), failed ? ", failed" : "");
}

TEST(TypeFromPath, ComesBackOnceWhereverMemoryIsExhausted) {
  const ScratchDir dir;
  const std::string path = dir / "text";
  testsupport::write_file(path, "hello\n");
  unsigned thrown = 0;
  unsigned told = 0;
  for (unsigned allocation = 0;; ++allocation) {
    ASSERT_LT(allocation, 200U);
    const Outcome outcome = in_child([&] { ask_with_failing(allocation, path); });
    ASSERT_EQ(outcome.exit_code(), 0) << outcome;
    if (outcome.out == "ASCII text\n;") break;  // so many allocations are not made
    if (outcome.out == "thrown, failed;")
      ++thrown;
    else if (outcome.out == "told;" ||
             outcome.out == "told, failed;")  // the parent's next one, too
      ++told;
    else
      EXPECT_EQ(outcome.out, "ASCII text\n, failed;") << "allocation " << allocation;
  }
  EXPECT_GT(thrown, 0U);
  EXPECT_GT(told, 0U) << "no allocation has failed in the child";
}

}  // namespace
