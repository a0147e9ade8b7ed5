#include <gtest/gtest.h>

#include <filesystem>

#include "content_support.h"
#include "support/traced.h"

// What cleaning costs in system calls: it does not depend on the machine or its load.
namespace {

using testsupport::write_file;
using vhosttest::Host;

/// The calls in all, those for memory aside, of a document root of `dirs` directories with `files`
/// files each.
long calls_for(int dirs, int files) {
  const Host host(testsupport::memory_directory());
  for (int dir = 0; dir < dirs; ++dir) {
    const std::string path = host / ("documents/" + std::to_string(dir));
    std::filesystem::create_directories(path);
    for (int file = 0; file < files; ++file) write_file(path + "/" + std::to_string(file), "");
  }
  EXPECT_EQ(vhosttest::run_traced({"-o", host / "log", "-e", "trace=!%memory"},
                                  {"clean", host.site, host.documents, host.cgi}),
            (testsupport::Outcome{"", "", 0}));
  EXPECT_TRUE(std::filesystem::is_empty(host.documents));
  return testsupport::counted_calls(host / "log");
}

constexpr int kDirs = 50;
constexpr int kFiles = 40;

TEST(CleanDocroot, MakesOneCallForAFileAndEightForADirectory) {
  const long least = calls_for(1, 1);
  const long with_dirs = calls_for(1 + kDirs, 1);
  const long with_files = calls_for(1 + kDirs, 1 + kFiles);
  EXPECT_GT(least, 0);
  EXPECT_EQ(with_dirs - least, (8L + 1) * kDirs);
  EXPECT_EQ(with_files - with_dirs, 1L * kFiles * (1 + kDirs));
}

}  // namespace
