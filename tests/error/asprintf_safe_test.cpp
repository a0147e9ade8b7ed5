#include "error/asprintf_safe.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "log/messlog.h"
#include "support/child.h"

namespace {

using testsupport::in_child;
using testsupport::Outcome;

struct Free {
  void operator()(char* text) const { free(text); }
};
using Owned = std::unique_ptr<char, Free>;

TEST(AsprintfSafe, FormatsIntoNewMemory) {
  const Owned text(asprintf_safe("%s-%05d-%c", "a", 42, 'z'));
  EXPECT_STREQ(text.get(), "a-00042-z");
  const Owned other(asprintf_safe("%s-%05d-%c", "a", 42, 'z'));
  EXPECT_NE(text.get(), other.get());
}

TEST(AsprintfSafe, TakesAnyLength) {
  for (const size_t length : {0U, 1U, 4095U, 4096U, 1000000U}) {
    SCOPED_TRACE(length);
    const std::string wanted(length, 'a');
    const Owned text(asprintf_safe("%s", wanted.c_str()));
    EXPECT_TRUE(text.get() == wanted);
  }
}

TEST(AsprintfSafe, EndsTheProcessWhenTheFormattingFails) {
  // Wider than an int can tell.
  const char* format = "%2147483648d";
  const Outcome outcome = in_child([format] {
    PROGNAME = "tembrix";
    asprintf_safe(format, 1);
    _exit(99);
  });
  const std::string reason = strerror(EOVERFLOW);
  EXPECT_EQ(outcome.err, "tembrix: Cannot allocate memory: " + reason + "\nSystem error " +
                             std::to_string(EOVERFLOW) + ": " + reason + "\n");
  EXPECT_EQ(outcome.out, outcome.err);
  EXPECT_EQ(outcome.exit_code(), 1);
}

}  // namespace
