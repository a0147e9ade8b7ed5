// Directories and files of a site, and of a skeleton, are swapped for links to what lies outside
// while the routines work in them: nothing outside is changed, and nothing of it gets into a site.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

#include "content_support.h"
#include "support/private_mounts.h"
#include "support/swapping.h"
#include "support/tree_listing.h"
#include "vhost/deploy_fixture.h"
#include "vhost/entry_points.h"

namespace {

namespace fs = std::filesystem;
using testsupport::run_under_swapping;
using testsupport::SwapCounts;
using testsupport::SwapPlan;
using testsupport::write_file;

const char* const kSecret = "what is outside";

/// An entry, and what the link leads to that takes its place.
struct Swapped {
  std::string entry;
  std::string like;
};

/// Files of one shape, in a site and outside of it.
void writeFiles(const std::string& top, const std::string& content) {
  for (const char* file : {"/file", "/sub/file", "/sub/sub/file"}) write_file(top + file, content);
}

/// A plan that swaps these entries of `directory`, and makes their decoys anew beside them.
SwapPlan planFor(const std::string& directory, const std::vector<Swapped>& swapped,
                 const std::function<void()>& rebuild) {
  SwapPlan plan;
  plan.directory = directory;
  plan.victim = directory + "/outside";
  for (const Swapped& swap : swapped)
    plan.pairs.push_back({swap.entry, "decoys/" + std::to_string(plan.pairs.size())});
  plan.rebuild = [=, pairs = plan.pairs] {
    fs::remove_all(directory + "/decoys");
    fs::create_directory(directory + "/decoys");
    for (size_t i = 0; i < pairs.size(); ++i)
      fs::create_symlink(directory + "/" + swapped[i].like, directory + "/" + pairs[i].decoy);
    rebuild();
  };
  return plan;
}

void expectUnharmed(const SwapPlan& plan) {
  const SwapCounts counts =
      run_under_swapping(plan, testsupport::kLeastSwaps, testsupport::kLeastRuns);
  EXPECT_GE(counts.swaps, testsupport::kLeastSwaps);
  EXPECT_GE(counts.runs, testsupport::kLeastRuns);
}

/// Nothing below `top` holds a text.
void expectNowhere(const std::string& text, const std::string& top) {
  for (const std::string& line : testsupport::tree_listing(top))
    EXPECT_EQ(line.find(text), std::string::npos) << line;
}

using SwappedSite = DeployTest;

}  // namespace

TEST_F(SwappedSite, IsDeployedIntoWithoutHarmOutside) {
  const std::vector<std::string> tops{"httpdocs", "cgi-bin", "conf"};
  for (const std::string& top : tops) writeFiles(skeleton(top), "@domain_name@");
  writeFiles(skeleton("error_docs"), "@domain_name@");
  write_file(root("outside/other"), kSecret);
  fs::create_directories(root("outside/sub"));
  SwapPlan plan = planFor(root(""),
                          {{"example.com/httpdocs/sub", "outside/sub"},
                           {"example.com/cgi-bin/sub", "outside/sub"},
                           {"example.com/conf", "outside"},
                           {"example.com/error_docs/sub", "outside/sub"}},  // a new one
                          [&] {
                            fs::remove_all(root("example.com"));
                            for (const std::string& top : tops)
                              fs::create_directories(host(top + "/sub"));
                          });
  plan.routine = [this] { deployHere(); };
  expectUnharmed(plan);
}

TEST_F(SwappedSite, GetsNothingOfWhatLiesOutsideTheSkeleton) {
  writeFiles(root("outside"), kSecret);
  SwapPlan plan = planFor(root(""),
                          {{".skel/7/httpdocs/sub", "outside/sub"},
                           {".skel/7/conf", "outside"},
                           {".skel/7/cgi-bin/file", "outside/file"},
                           {".skel/7/error_docs/sub/file", "outside/sub/file"}},
                          [] {
                            fs::remove_all(root("example.com"));
                            fs::remove_all(skeleton(""));
                            for (const char* top : {"httpdocs", "conf", "cgi-bin", "error_docs"})
                              writeFiles(skeleton(top), "@domain_name@");
                          });
  plan.routine = [this] { deployHere(); };
  plan.inspect = [] { expectNowhere(kSecret, root("example.com")); };
  expectUnharmed(plan);
}

namespace {

/// A host in memory whose content is swapped.
class SwappedContent : public ::testing::Test {
 protected:
  std::string at(const std::string& name) const { return scratch_ / name; }

  /// The files of the host's three content directories are made anew for each run.
  SwapPlan plan() const {
    writeFiles(at("outside"), kSecret);
    return planFor(scratch_.path().string(),
                   {{"documents/blog", "outside"},
                    {"cgi/blog/sub", "outside/sub"},
                    {"site/private/sub/sub", "outside/sub/sub"},
                    {"site/private/file", "outside/file"}},
                   [this] {
                     for (const char* directory : {"documents", "cgi", "site"})
                       fs::remove_all(at(directory));
                     for (const char* top : {"documents/blog", "cgi/blog", "site/private"})
                       writeFiles(at(top), "");
                   });
  }

  testsupport::ScratchDir scratch_{testsupport::memory_directory()};
  std::string documents_ = at("documents");
  std::string cgi_ = at("cgi");
  std::string site_ = at("site");
  DocrootCleanOptions options_ = {documents_.c_str(), 0, 0, 0, cgi_.c_str()};
};

}  // namespace

TEST_F(SwappedContent, IsCleanedWithoutHarmOutside) {
  SwapPlan swapped = plan();
  swapped.routine = [this] { clean_docroot(site_.c_str(), &options_); };
  expectUnharmed(swapped);
}

TEST_F(SwappedContent, LosesAnInstanceWithoutHarmOutside) {
  SwapPlan swapped = plan();
  std::string text = "<INSTANCE-DATA>";
  for (const char* section : {"htdocs", "cgi-bin"}) {
    text += std::string("<SECTION PREFIX='") + section + "'>";
    for (const char* entry : {"file", "sub", "sub/file", "sub/sub", "sub/sub/file"})
      text += std::string("<FILE>") + entry + "</FILE>";
    text += "</SECTION>";
  }
  swapped.input = text + "</INSTANCE-DATA>";
  swapped.routine = [this] { wido_delete_instance(site_.c_str(), &options_, "blog"); };
  expectUnharmed(swapped);
}

TEST(CopyIfNoDontedit, HarmsNothingOutsideUnderConstantSwapping) {
  const testsupport::ScratchDir scratch(testsupport::memory_directory());
  write_file(scratch / "outside/other", kSecret);
  write_file(scratch / "outside/f.saved_by_oxa", kSecret);
  SwapPlan plan = planFor(scratch.path().string(),
                          {{"conf", "outside"},
                           {"theirs/f", "outside/other"},
                           {"theirs/f.saved_by_oxa", "outside/f.saved_by_oxa"}},
                          [&] {
                            for (const char* directory : {"conf", "theirs"})
                              fs::remove_all(scratch / directory);
                            for (const char* file : {"conf/f", "theirs/f", "theirs/f.saved_by_oxa"})
                              write_file(scratch / file, "by hand");
                          });
  plan.routine = [&] {
    for (int i = 0; i < 20; ++i)
      for (const char* file : {"conf/f", "theirs/f"}) copy_if_no_dontedit((scratch / file).c_str());
  };
  expectUnharmed(plan);
}
