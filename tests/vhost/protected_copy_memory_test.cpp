#include <gtest/gtest.h>

#include <new>
#include <string>

#include "support/allocations.h"
#include "support/child.h"
#include "support/scratch.h"
#include "vhost/entry_points.h"

namespace {

namespace fs = std::filesystem;
using testsupport::in_child;
using testsupport::Outcome;
using testsupport::read_file;
using testsupport::ScratchDir;

/// Protects `path` with one allocation that fails, and writes what happened.
void protect_with_failing(const std::string& path, unsigned allocation) {
  const char* answer = "returned";
  testsupport::fail_allocations(allocation);
  try {
    copy_if_no_dontedit(path.c_str());
  } catch (const std::bad_alloc&) {
    answer = "thrown";
  }
  const bool failed = testsupport::stop_failing_allocations();
  printf("%s%s;", answer, failed ? ", failed" : "");
}

/// Whatever goes wrong once the file has been read is logged and goes no further.
TEST(CopyIfNoDontedit, ThrowsForLackOfMemoryOnlyWhileItReads) {
  const ScratchDir dir;
  const std::string file = dir / "file";
  const std::string backup = file + ".saved_by_oxa";
  testsupport::write_file(file, "a person's");
  const std::string logged = "Failed to back up file '" + file + "': std::bad_alloc\n";
  unsigned thrown = 0;
  unsigned told = 0;
  for (unsigned allocation = 0;; ++allocation) {
    ASSERT_LT(allocation, 100U);
    SCOPED_TRACE(allocation);
    fs::remove(backup);
    const Outcome outcome = in_child([&] { protect_with_failing(file, allocation); });
    ASSERT_EQ(outcome.exit_code(), 0) << outcome;
    EXPECT_EQ(read_file(file), "a person's");
    if (outcome.out == "returned;") break;  // so many allocations are not made
    if (outcome.out == "thrown, failed;") {
      EXPECT_EQ(told, 0U) << "the reading comes first";
      EXPECT_FALSE(fs::exists(backup));
      ++thrown;
    } else if (outcome.out == logged + "returned, failed;") {
      EXPECT_EQ(outcome.err, logged);
      EXPECT_FALSE(fs::exists(backup));
      ++told;
    } else {  // one that the stream to write on can do without
      EXPECT_EQ(outcome.out, "returned, failed;");
      EXPECT_EQ(read_file(backup), "a person's");
    }
  }
  EXPECT_EQ(read_file(backup), "a person's");
  EXPECT_GT(thrown, 0U);
  EXPECT_GT(told, 0U);
}

}  // namespace
