#include "tool/command_line.h"

#include <exception>
#include <stdexcept>

#include "log/messlog.h"
#include "support/child.h"
#include "tool/tool_fixture.h"

using testsupport::in_child;
using testsupport::Outcome;

namespace {

Outcome plain_fatal(const std::string& text) {
  return {text, text, 1 << 8};
}

}  // namespace

TEST(Usage, IsTheTextToTheLetter) {
  EXPECT_EQ(in_child([] { showUsage(); }), (Outcome{kUsage, "", 0}));
}

TEST(CheckUnprocessedParameters, EndsTheProcessWhenWordsAreLeft) {
  EXPECT_EQ(
      in_child([] {
        errno = 0;
        check_unprocessed_parameters(4, 3, nullptr);
      }),
      plain_fatal(
          "Some parameters in command string are left unprocessed. Check parameters please.\n"));
}

TEST(CheckUnprocessedParameters, TakesAnyDifferenceAsLeftOver) {
  EXPECT_EQ(in_child([] { check_unprocessed_parameters(3, 4, nullptr); }).exit_code(), 1);
}

TEST(CheckUnprocessedParameters, ReturnsWhenNothingIsLeft) {
  EXPECT_EQ(in_child([] { check_unprocessed_parameters(3, 3, nullptr); }), (Outcome{"", "", 0}));
}

TEST(CheckParameter, EndsTheProcessWhenARequiredValueIsMissing) {
  for (const char* value : {static_cast<const char*>(nullptr), ""}) {
    EXPECT_EQ(in_child([value] {
                errno = 0;
                check_parameter(1, value, "domain");
              }),
              plain_fatal("Missing parameter 'domain' or previous parameter is empty.\n"));
  }
}

TEST(CheckParameter, LetsOptionalAndGivenValuesPass) {
  EXPECT_EQ(in_child([] {
              check_parameter(0, nullptr, "domain");
              check_parameter(0, "", "domain");
              check_parameter(1, "x", "domain");
            }),
            (Outcome{"", "", 0}));
}

TEST(WidoCppInit, InstallsTheTerminateHandler) {
  const Outcome outcome = in_child([] {
    wido_cpp_init();
    try {
      throw std::runtime_error("boom");
    } catch (...) {
      std::terminate();  // as for an exception that nothing catches
    }
  });
  EXPECT_EQ(outcome, (Outcome{"", "Unexpected error: boom\n", 1 << 8}));
}
