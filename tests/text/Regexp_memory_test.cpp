#include <gtest/gtest.h>

#include <new>

#include "support/allocations.h"
#include "text/Regexp.h"

using frask::Regexp;
using testsupport::fail_allocations;
using testsupport::stop_failing_allocations;

TEST(RegexpWithoutMemory, ChangesAResultAsAWholeOrNotAtAll) {
  const std::string subject = "a" + std::string(100, 'b');
  const Regexp::MatchResultData before{"kept", 7, {{1, 2}}};
  int thrown = 0;
  for (unsigned skipped = 0;; ++skipped) {
    SCOPED_TRACE(skipped);
    const Regexp compiled("(b)(c)?", REG_EXTENDED);  // one that was used needs less memory
    Regexp::MatchResultData data = before;
    bool matched = false;
    fail_allocations(skipped);
    try {
      matched = compiled.match_from(&data, subject, 1, 5, 0);
    } catch (const std::bad_alloc&) {
      ++thrown;
    }
    const bool failed = stop_failing_allocations();
    // Exhausted memory within regexec() may read as a match or as none.
    EXPECT_EQ(data.text, matched ? subject : before.text);
    EXPECT_EQ(data.offset, matched ? 1U : before.offset);
    EXPECT_EQ(data.regions.size(), matched ? 5U : 1U);
    if (!failed) break;
  }
  EXPECT_GE(thrown, 2) << "the text and the regions";
}
