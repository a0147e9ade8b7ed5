#include <gtest/gtest.h>

#include <climits>

#include "vhost/backup_numbers.h"
#include "vhost/misc.h"

namespace {

using frask::BackupFileGenerator;

TEST(BackupFileGenerator, NumbersTheNamesBehindTheFirst) {
  BackupFileGenerator names("/etc/a file");
  EXPECT_EQ(names.next(), "/etc/a file.saved_by_oxa");
  for (int number = 1; number <= 1001; ++number) {
    ASSERT_TRUE(names.hasNext());
    ASSERT_EQ(names.next(), "/etc/a file.saved_by_oxa." + std::to_string(number));
  }
}

TEST(BackupFileGenerator, HasItsSuffixByName) {
  EXPECT_EQ(BackupFileGenerator::savedSuffix, ".saved_by_oxa");
}

TEST(BackupFileGenerator, EndsBelowTheLargestInteger) {
  BackupFileGenerator names("f");
  vhosttest::jump_to(names, INT_MAX - 2);
  ASSERT_TRUE(names.hasNext());
  EXPECT_EQ(names.next(), "f.saved_by_oxa.2147483645");
  ASSERT_TRUE(names.hasNext());
  EXPECT_EQ(names.next(), "f.saved_by_oxa.2147483646");
  EXPECT_FALSE(names.hasNext());
}

}  // namespace
