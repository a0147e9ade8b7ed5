#include "vhost/skeldir.h"

#include <gtest/gtest.h>

namespace {

TEST(Skeldir, NamesTheSevenSectionsInOrderAndEndsWithNull) {
  const char* const expected[] = {"httpdocs",   "conf",       "cgi-bin",  "anon_ftp",
                                  "error_docs", "statistics", "webspace", nullptr};
  ASSERT_EQ(std::size(skeldir), std::size(expected));
  for (size_t i = 0; i < std::size(expected); ++i) EXPECT_STREQ(skeldir[i], expected[i]) << i;
}

}  // namespace
