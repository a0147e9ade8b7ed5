#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "log/messlog.h"
#include "support/allocations.h"
#include "support/child.h"

namespace {

using testsupport::fail_allocations;
using testsupport::in_child;
using testsupport::Outcome;
using testsupport::stop_failing_allocations;

constexpr int kAllocationSucceeded = 96;

/// Reports `text` with errno as `error` while the allocation after `skipped` others fails, and
/// `failing` in all.
Outcome report(const std::string& text, int error, unsigned skipped, unsigned failing = 1) {
  return in_child([&] {
    errno = error;
    fail_allocations(skipped, failing);
    messlog2(0, 1, "%s", text.c_str());
    const bool errno_kept = errno == error;
    if (!stop_failing_allocations()) _exit(kAllocationSucceeded);
    if (!errno_kept) _exit(1);
  });
}

void expect_on_both(const Outcome& outcome, const std::string& line) {
  EXPECT_EQ(outcome.err, line);
  EXPECT_EQ(outcome.out, line);
  EXPECT_EQ(outcome.exit_code(), 0);
}

TEST(Messlog2WithoutMemory, ReportsThatInsteadOfTheMessage) {
  const std::string line = "Can't allocate memory for error message\n";
  expect_on_both(report("x", 0, 0), line);
  expect_on_both(report("x", ENOENT, 0), line);
}

TEST(Messlog2WithoutMemory, EndsTheProcessWithTheExitCodeAllTheSame) {
  const Outcome outcome = in_child([] {
    PROGNAME = "tembrix";
    fail_allocations(0);
    messlog2(7, 1, "x");
    _exit(1);
  });
  EXPECT_EQ(outcome.exit_code(), 7);
  EXPECT_EQ(outcome.err, "tembrix: Can't allocate memory for error message\n");
  EXPECT_EQ(outcome.out, outcome.err);
}

TEST(Messlog2WithoutMemory, CutsAMessageThatItCannotGrowFor) {
  const std::string kept(4095, 'm');
  for (const size_t length : {4096U, 4097U, 5000U}) {
    SCOPED_TRACE(length);
    const std::string text(length, 'm');
    expect_on_both(report(text, 0, 1), kept + "\n");
    expect_on_both(report(text, ENOENT, 1), kept + "\n");
    expect_on_both(report(text, ENOENT, 1, 2), kept + "\n");
  }
}

TEST(Messlog2WithoutMemory, WritesTheTextAsItStandsWhereItCannotDropHalfASystemError) {
  const std::string suffix = std::string("\nSystem error 2: ") + strerror(2);
  for (const size_t kept : {suffix.size() - 1, size_t{5}, size_t{1}, size_t{0}}) {
    SCOPED_TRACE(kept);
    const std::string text(4095 - kept, 'm');
    std::string line = text + suffix.substr(0, kept);
    if (line.back() != '\n') line += '\n';
    expect_on_both(report(text, 2, 1), line);
  }
}

TEST(Messlog2WithoutMemory, WritesAGrownMessageWholeWhereItCannotGrowOnceMore) {
  const std::string text(5000, 'm');
  expect_on_both(report(text, ENOENT, 2), text + "\n");
}

}  // namespace
