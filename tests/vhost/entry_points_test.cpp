#include "vhost/entry_points.h"

#include <gtest/gtest.h>

#include "vhost/entry_points.private.h"

namespace {

using frask::ExtractParams;
using frask::toExtractParams;

TEST(ToExtractParams, CopiesBothTexts) {
  std::string docroot = "/srv/docroot";
  std::string cgi_bin = "/srv/cgi";
  const ExtractParams params = toExtractParams({docroot.c_str(), 0, 0, 0, cgi_bin.c_str()});
  docroot.assign(docroot.size(), '-');
  cgi_bin.assign(cgi_bin.size(), '-');
  EXPECT_EQ(params.docrootDir, "/srv/docroot");
  EXPECT_EQ(params.cgiBinDir, "/srv/cgi");
}

TEST(ToExtractParams, TakesANullTextForAnEmptyOne) {
  const ExtractParams neither = toExtractParams({nullptr, 0, 0, 0, nullptr});
  EXPECT_EQ(neither.docrootDir, "");
  EXPECT_EQ(neither.cgiBinDir, "");
  EXPECT_EQ(toExtractParams({nullptr, 0, 0, 0, "/cgi"}).cgiBinDir, "/cgi");
  EXPECT_EQ(toExtractParams({"/docroot", 0, 0, 0, nullptr}).docrootDir, "/docroot");
}

TEST(ToExtractParams, TakesAnyNonzeroNumberForTrueEachForItself) {
  for (const int yes : {1, 2, -1, 256, INT32_MIN}) {
    SCOPED_TRACE(yes);
    for (int which = 0; which < 3; ++which) {
      SCOPED_TRACE(which);
      const auto flag = [&](int position) { return position == which ? yes : 0; };
      const ExtractParams params = toExtractParams({"", flag(0), flag(1), flag(2), ""});
      EXPECT_EQ(params.skipHttpdocs, which == 0);
      EXPECT_EQ(params.keepErrorDocs, which == 1);
      EXPECT_EQ(params.keepCgiBin, which == 2);
    }
  }
}

}  // namespace
