#include <errno.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <functional>
#include <string>

#include "support/allocations.h"
#include "support/child.h"
#include "text/idn.h"

namespace {

using testsupport::fail_allocations;
using testsupport::in_child;
using testsupport::Outcome;
using testsupport::stop_failing_allocations;

constexpr int kAllSucceeded = 96;

const std::string kAllocationFailed =
    "Allocation failed\nSystem error 12: Cannot allocate memory\n";

/// Runs `conversion` again and again while one allocation after the other fails, until none is left
/// to fail. Each run must return silently, or end the process with `report` or kAllocationFailed.
/// @return how many runs ended the process with `report`
int count_ends(const std::function<void()>& conversion,
               const std::string& report = kAllocationFailed) {
  int ends = 0;
  for (unsigned skipped = 0; skipped < 1000; ++skipped) {
    SCOPED_TRACE("allocation " + std::to_string(skipped));
    const Outcome outcome = in_child([&] {
      fail_allocations(skipped);
      conversion();
      _exit(stop_failing_allocations() ? 0 : kAllSucceeded);
    });
    if (outcome.exit_code() == kAllSucceeded) return ends;
    EXPECT_EQ(outcome.out, outcome.err);
    if (outcome.exit_code() == 0) {
      EXPECT_EQ(outcome.err, "");
    } else {
      EXPECT_EQ(outcome.exit_code(), 1);
      EXPECT_TRUE(outcome.err == report || outcome.err == kAllocationFailed) << outcome;
    }
    if (outcome.err == report) ++ends;
  }
  ADD_FAILURE() << "the conversion never gets by without a failure";
  return 0;
}

TEST(IdnToasciiWithoutMemory, EndsTheProcess) {
  const int ends = count_ends([] {
    idn_errno = 0;
    const char* ascii = idn_toascii("b\u00fccher.\u00fc.example");
    // The library tells some of its failures to allocate by other codes than 201.
    if ((ascii == nullptr) != (idn_errno == 1 || idn_errno == 2 || idn_errno == 9)) _exit(2);
  });
  EXPECT_GT(ends, 0);
}

TEST(IdnToutf8WithoutMemory, EndsTheProcess) {
  const int ends = count_ends([] {
    idn_errno = 0;
    const char* utf8 = idn_toutf8("xn--bcher-kva.xn--tda.example");
    if ((utf8 == nullptr) != (idn_errno == 9)) _exit(2);
  });
  EXPECT_GT(ends, 0);
}

TEST(IdnUrlToasciiWithoutMemory, EndsTheProcessWhenThePatternCannotBeCompiled) {
  const Outcome outcome = in_child([] {
    fail_allocations(0);
    idn_url_toascii("http://host/");
    _exit(99);
  });
  EXPECT_EQ(outcome.err,
            "regcomp() failed: Memory exhausted\nSystem error 12: Cannot allocate memory\n");
  EXPECT_EQ(outcome.out, outcome.err);
  EXPECT_EQ(outcome.exit_code(), 1);
}

TEST(IdnUrlToasciiWithoutMemory, ReportsAMatchThatFailsAndGoesOn) {
  // The C library's regexec() gives REG_NOMATCH for every failure.
  const std::string exhausted =
      "regexec() failed: No match\nSystem error 12: Cannot allocate memory\n";
  int reports = 0;
  for (unsigned skipped = 0;; ++skipped) {
    const Outcome outcome = in_child([skipped] {
      // Most of the ends are reports of missing memory. What they leave in use is no leak, and to
      // look for one takes the sanitizer longer than all the rest.
      on_exit([](int status, void* /*unused*/) { _exit(status); }, nullptr);
      fail_allocations(skipped);
      const char* ascii = idn_url_toascii("https://user@host/path");
      if (!stop_failing_allocations()) _exit(kAllSucceeded);
      _exit(ascii == nullptr ? 2 : 3);
    });
    ASSERT_LT(skipped, 10000U);
    if (outcome.exit_code() == kAllSucceeded) break;
    if (outcome.err != exhausted) continue;
    ++reports;
    ASSERT_EQ(outcome.out, outcome.err);
    ASSERT_EQ(outcome.exit_code(), 2) << "null, and the process goes on";
  }
  EXPECT_GT(reports, 0);
}

TEST(IdnEmailToasciiWithoutMemory, EndsTheProcessWhenTheAddressCannotBeFormatted) {
  const int ends = count_ends(
      [] {
        const char* ascii = idn_email_toascii("user@example");
        if (strcmp(ascii, "user@example") != 0 && strcmp(ascii, "user@(null)") != 0) _exit(2);
      },
      "Cannot allocate memory: Cannot allocate memory\n"
      "System error 12: Cannot allocate memory\n");
  EXPECT_EQ(ends, 1);
}

}  // namespace
