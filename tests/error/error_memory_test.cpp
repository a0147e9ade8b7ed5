#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "error/SystemError.h"
#include "error/asprintf_safe.h"
#include "support/allocations.h"
#include "support/child.h"

namespace {

using frask::SystemError;
using testsupport::fail_allocations;
using testsupport::in_child;
using testsupport::Outcome;
using testsupport::stop_failing_allocations;

TEST(SystemErrorWithoutMemory, SaysTheBareMessageUntilItsTextCanBeBuilt) {
  struct Row {
    std::string message;
    unsigned skipped;  // allocations before the one that fails
  };
  // The first allocation is the copy of a long message, the next one its growth.
  const Row rows[] = {
      {"shorter", 0}, {std::string(100, 'm'), 0}, {std::string(100, 'm'), 1}, {"", 0}};
  for (const Row& row : rows) {
    SCOPED_TRACE("'" + row.message + "', skipping " + std::to_string(row.skipped));
    const SystemError error(row.message, EXDEV);
    fail_allocations(row.skipped);
    const char* text = error.what();
    ASSERT_TRUE(stop_failing_allocations());
    EXPECT_EQ(text, row.message);
    const std::string whole = row.message + (row.message.empty() ? "" : ": ") + strerror(EXDEV);
    EXPECT_EQ(error.what(), whole);
  }
}

TEST(SystemErrorWithoutMemory, SaysTheBareMessageWithNoMemoryAtAll) {
  const SystemError error(std::string(100, 'm'), EXDEV);
  fail_allocations(0, 1000);
  const char* text = error.what();
  ASSERT_TRUE(stop_failing_allocations());
  EXPECT_EQ(text, std::string(100, 'm'));
}

TEST(ThrowSystemErrorWithoutMemory, TakesTheErrnoOfTheCall) {
  const std::string message = "x";
  errno = ENOENT;
  fail_allocations(0);  // that of the exception, which then comes from the reserve; errno is ENOMEM
  try {
    frask::throwSystemError(message, 0);
  } catch (const SystemError& error) {
    EXPECT_TRUE(stop_failing_allocations());
    EXPECT_EQ(error.code(), ENOENT);
  }
}

TEST(AsprintfSafeWithoutMemory, EndsTheProcess) {
  const Outcome outcome = in_child([] {
    const std::string text(1000, 'x');
    fail_allocations(0);
    asprintf_safe("%s", text.c_str());
    _exit(99);
  });
  EXPECT_EQ(outcome.err,
            "Cannot allocate memory: Cannot allocate memory\n"
            "System error 12: Cannot allocate memory\n");
  EXPECT_EQ(outcome.out, outcome.err);
  EXPECT_EQ(outcome.exit_code(), 1);
}

}  // namespace
