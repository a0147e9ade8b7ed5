#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "vhost/path_text.private.h"

namespace {

using std::filesystem::path;

int sign(int number) {
  return (number > 0) - (number < 0);
}

/// Every text of these pieces, up to `most` of them.
std::vector<std::string> texts_of(const std::vector<std::string>& pieces, int most) {
  std::vector<std::string> texts{""};
  size_t begin = 0;
  for (int length = 1; length <= most; ++length) {
    const size_t end = texts.size();
    for (size_t at = begin; at < end; ++at)
      for (const std::string& piece : pieces) texts.push_back(texts[at] + piece);
    begin = end;
  }
  return texts;
}

void expect_order_of_paths(const std::string& a, const std::string& b) {
  ASSERT_EQ(sign(frask::comparePaths(a, b)), sign(path(a).compare(path(b))))
      << testing::PrintToString(a) << " and " << testing::PrintToString(b);
}

TEST(ComparePaths, GivesTheOrderOfPathsForEveryPairOfShortOnes) {
  for (const std::vector<std::string>& pieces :
       {std::vector<std::string>{"/", "a", "."}, {"/", "a", "\x1f", "\xff"}}) {
    const std::vector<std::string> texts = texts_of(pieces, pieces.size() == 3 ? 6 : 4);
    std::vector<path> paths(texts.begin(), texts.end());
    for (size_t i = 0; i < texts.size(); ++i)
      for (size_t j = 0; j < texts.size(); ++j)
        ASSERT_EQ(sign(frask::comparePaths(texts[i], texts[j])), sign(paths[i].compare(paths[j])))
            << testing::PrintToString(texts[i]) << " and " << testing::PrintToString(texts[j]);
  }
}

TEST(ComparePaths, GivesTheOrderOfPathsForRandomOnesThatBeginAlike) {
  const std::vector<std::string> pieces{"/",
                                        "//",
                                        "///",
                                        "a",
                                        "b",
                                        ".",
                                        "..",
                                        "-",
                                        "a.b",
                                        "\x01",
                                        "!",
                                        "\x7f",
                                        "0",
                                        "\xc3\xa4",
                                        "\xff",
                                        "section-12",
                                        std::string(1, '\0')};
  std::minstd_rand random(4);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same paths in every run
  const auto some = [&](int most) {
    std::string text;
    for (auto left = random() % static_cast<unsigned>(most + 1); left > 0; --left)
      text += pieces[random() % pieces.size()];
    return text;
  };
  for (int round = 0; round < 200000; ++round) {
    const std::string common = some(6);
    ASSERT_NO_FATAL_FAILURE(expect_order_of_paths(common + some(3), common + some(3)));
  }
}

TEST(ComparePaths, PutsADirectoryBeforeWhatItHoldsAndThatBeforeLongerNames) {
  const std::vector<std::string> ascending{"",     "a",   "a/",   "a/.",     "a/b", "a/b/c",
                                           "a/b!", "a!b", "a-b",  "a.b",     "ab",  "a\x80",
                                           "/",    "/a",  "/a/b", "/a\xff/b"};
  for (size_t i = 0; i < ascending.size(); ++i)
    for (size_t j = 0; j < ascending.size(); ++j)
      EXPECT_EQ(sign(frask::comparePaths(ascending[i], ascending[j])),
                sign(static_cast<int>(i) - static_cast<int>(j)))
          << ascending[i] << " and " << ascending[j];
}

TEST(WithoutTrailingSeparators, LeavesTheRootAlone) {
  const std::vector<std::pair<std::string, std::string>> rows{
      {"", ""},   {"a", "a"},   {"a/", "a"},     {"a//", "a"},  {"/a/b//", "/a/b"},
      {"/", "/"}, {"///", "/"}, {"a/./", "a/."}, {"//a", "//a"}};
  for (const auto& [given, expected] : rows)
    EXPECT_EQ(frask::withoutTrailingSeparators(given), expected) << given;
}

TEST(WithoutTrailingDots, LeavesTheBareName) {
  const std::vector<std::pair<std::string, std::string>> rows{
      {"", ""},           {".", "."},         {"..", ".."},      {"./", "."},  {"./.", "."},
      {"a/.", "a"},       {"a/./", "a"},      {"a//.//./", "a"}, {"a.", "a."}, {"a/..", "a/.."},
      {"a/../.", "a/.."}, {"a/./b", "a/./b"}, {"a/.b", "a/.b"},  {"/.", "/"},  {"/", "/"}};
  for (const auto& [given, expected] : rows)
    EXPECT_EQ(frask::withoutTrailingDots(given), expected) << given;
}

TEST(JoinedPaths, AppendsAsAPathDoes) {
  for (const std::string& a : texts_of({"/", "a"}, 4))
    for (const std::string& b : texts_of({"/", "b"}, 3))
      EXPECT_EQ(frask::joinedPaths(a, b), (path(a) / path(b)).native()) << a << " and " << b;
}

TEST(WithoutLeadingElements, JoinsTheRestOfThePath) {
  for (const std::string& text : texts_of({"/", "a", "."}, 6)) {
    const path whole(text);
    const auto depth = static_cast<unsigned>(std::distance(whole.begin(), whole.end()));
    for (unsigned count = 0; count <= depth + 1; ++count) {
      path rest;
      auto element = whole.begin();
      std::advance(element, std::min(count, depth));
      for (; element != whole.end(); ++element) rest /= *element;
      // Of nothing but separators the library's path keeps them all, though one is as good.
      if (!rest.has_relative_path() && rest.has_root_directory()) rest = "/";
      EXPECT_EQ(frask::withoutLeadingElements(text, count), rest.native()) << text << " " << count;
    }
  }
}

}  // namespace
