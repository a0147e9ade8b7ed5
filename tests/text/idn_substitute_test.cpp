// Rules of the conversions that the real libraries give no occasion for: their routines are
// replaced at link time and answer as the real ones never do.
#include <errno.h>
#include <gtest/gtest.h>
#include <regex.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "support/allocations.h"
#include "support/child.h"
#include "text/idn.h"

namespace {
bool host_left_out = false;
int match_failure = 0;
bool string_left_on_failure = false;
}  // namespace

extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c): the linker's names
int __real_regexec(const regex_t* pattern, const char* text, size_t count, regmatch_t* groups,
                   int flags);
int __wrap_regexec(const regex_t* pattern, const char* text, size_t count, regmatch_t* groups,
                   int flags) {
  const int result = __real_regexec(pattern, text, count, groups, flags);
  if (match_failure != 0) return match_failure;
  if (host_left_out) groups[3].rm_so = groups[3].rm_eo = -1;
  return result;
}

int __real_idna_to_ascii_8z(const char* input, char** output, int flags);
int __wrap_idna_to_ascii_8z(const char* input, char** output, int flags) {
  if (!string_left_on_failure) return __real_idna_to_ascii_8z(input, output, flags);
  *output = strdup("left behind");
  return 7;
}

int __real_idna_to_unicode_8z8z(const char* input, char** output, int flags);
int __wrap_idna_to_unicode_8z8z(const char* input, char** output, int flags) {
  if (!string_left_on_failure) return __real_idna_to_unicode_8z8z(input, output, flags);
  *output = strdup("left behind");
  return 7;
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c)
}

namespace {

using testsupport::in_child;
using testsupport::live_blocks;
using testsupport::Outcome;

TEST(IdnUrlToasciiWithASubstitute, ReportsAMatchWithoutAHost) {
  const Outcome outcome = in_child([] {
    if (idn_url_toascii("http://host/") == nullptr) _exit(1);
    host_left_out = true;
    errno = 0;
    if (idn_url_toascii("http://host/") != nullptr) _exit(2);
  });
  EXPECT_EQ(outcome.exit_code(), 0);
  EXPECT_EQ(outcome.err, "no hostname found in URL\n");
  EXPECT_EQ(outcome.out, outcome.err);
}

TEST(IdnUrlToasciiWithASubstitute, ReportsAMatchThatFailsByItsOwnText) {
  const Outcome outcome = in_child([] {
    match_failure = REG_ESPACE;
    errno = 0;
    if (idn_url_toascii("http://host/") != nullptr) _exit(1);
  });
  EXPECT_EQ(outcome.exit_code(), 0);
  EXPECT_EQ(outcome.err, "regexec() failed: Memory exhausted\n");
  EXPECT_EQ(outcome.out, outcome.err);
}

TEST(IdnToasciiWithASubstitute, FreesWhatTheLibraryLeft) {
  const long before = live_blocks();
  string_left_on_failure = true;
  const bool failed = idn_toascii("domain") == nullptr;
  string_left_on_failure = false;
  const long after = live_blocks();
  EXPECT_TRUE(failed);
  EXPECT_EQ(after, before);
  EXPECT_EQ(idn_errno, 7);
}

TEST(IdnToutf8WithASubstitute, HandsOnWhatTheLibraryLeft) {
  string_left_on_failure = true;
  char* left = idn_toutf8("domain");
  string_left_on_failure = false;
  EXPECT_STREQ(left, "left behind");
  EXPECT_EQ(idn_errno, 7);
  free(left);
}

}  // namespace
