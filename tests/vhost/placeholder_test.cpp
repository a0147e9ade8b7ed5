#include <gtest/gtest.h>

#include <random>

#include "vhost/placeholder.private.h"

namespace {

using frask::replacePlaceholders;
using namespace std::string_literals;

/// A file that comes in pieces of at most `piece` bytes, as the deployment reads one.
std::string replaced(const std::string& text, const std::string& name, size_t piece) {
  std::string result;
  std::string pending;
  std::string out;
  for (size_t at = 0; at < text.size(); at += piece) {
    pending += text.substr(at, piece);
    const frask::ReplacedPiece done = replacePlaceholders(pending, name, out);
    EXPECT_LT(done.unfinished, frask::kPlaceholder.size());
    result += done.text;
    pending.erase(0, pending.size() - done.unfinished);
  }
  return result + pending;
}

/// The same, said as simply as can be.
std::string model(std::string_view text, const std::string& name) {
  std::string result;
  while (!text.empty()) {
    const bool here = text.substr(0, frask::kPlaceholder.size()) == frask::kPlaceholder;
    result += here ? name : std::string(text.substr(0, 1));
    text.remove_prefix(here ? frask::kPlaceholder.size() : 1);
  }
  return result;
}

TEST(ReplacePlaceholders, ReplacesEachWholePlaceholderOnce) {
  struct Row {
    const char* what;
    std::string text;
    std::string name;
    std::string expected;
  };
  for (const Row& row : {
           Row{"alone", "@domain_name@", "a.test", "a.test"},
           {"at the start", "@domain_name@ b", "a.test", "a.test b"},
           {"at the end", "b @domain_name@", "a.test", "b a.test"},
           {"twice in a row", "@domain_name@@domain_name@", "a.test", "a.testa.test"},
           {"one begun in another", "@domain_name@domain_name@", "a.test", "a.testdomain_name@"},
           {"behind another at sign", "@@domain_name@@", "a.test", "@a.test@"},
           {"behind a false start", "@domain_@domain_name@", "a.test", "@domain_a.test"},
           {"next to zero bytes", "\0@domain_name@\0"s, "a.test", "\0a.test\0"s},
           {"with a zero byte inside", "@domain\0name@"s, "a.test", "@domain\0name@"s},
           {"a name that holds it", "<@domain_name@>", "x@domain_name@y", "<x@domain_name@y>"},
           {"a name that ends one", "@domain_name@domain_name@", "@", "@domain_name@"},
           {"an empty name", "a@domain_name@b", "", "ab"},
           {"an empty name and nothing else", "@domain_name@", "", ""},
           {"a name that joins one", "@domain@domain_name@_name@", "", "@domain_name@"},
           {"upper case", "@DOMAIN_NAME@", "a.test", "@DOMAIN_NAME@"},
           {"cut short", "@domain_name", "a.test", "@domain_name"},
           {"its tail", "domain_name@", "a.test", "domain_name@"},
           {"nothing", "", "a.test", ""},
       }) {
    SCOPED_TRACE(row.what);
    EXPECT_EQ(model(row.text, row.name), row.expected);
    for (size_t piece = 1; piece <= row.text.size() + 1; ++piece)
      EXPECT_EQ(replaced(row.text, row.name, piece), row.expected) << "in pieces of " << piece;
  }
}

TEST(ReplacePlaceholders, CopiesNothingWhereThereIsNone) {
  const std::string text = "user@example.test, @domain_";
  std::string out = "before";
  const auto result = replacePlaceholders(text, "a.test", out);
  EXPECT_EQ(result.text.data(), text.data());
  EXPECT_EQ(result.text, "user@example.test, ");
  EXPECT_EQ(result.unfinished, 8U);
  EXPECT_EQ(out, "before");
}

TEST(ReplacePlaceholders, ForgetsWhatTheBufferHeldBefore) {
  std::string out = "before";
  EXPECT_EQ(replacePlaceholders("1 @domain_name@", "a.test", out).text, "1 a.test");
  EXPECT_EQ(replacePlaceholders("2 @domain_name@", "a.test", out).text, "2 a.test");
}

/// Texts of pieces of the placeholder, among which whole ones are frequent.
std::string random_text(std::minstd_rand& random) {
  const std::vector<std::string> kParts{
      "@domain_name@", "@", "@domain_",          "name@", "domain_name@", "@domain_name",
      "\0"s,           "x", std::string(40, '@')};
  std::string text;
  for (size_t parts = random() % 12; parts > 0; --parts) text += kParts[random() % kParts.size()];
  return text;
}

TEST(ReplacePlaceholders, AgreesWithASearchAtEveryByteHoweverItIsCut) {
  std::minstd_rand random(1);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same texts in every run
  size_t replacements = 0;
  for (int round = 0; round < 20000; ++round) {
    const std::string text = random_text(random);
    const std::string name = random_text(random).substr(0, random() % 20);
    const std::string expected = model(text, name);
    const size_t piece = 1 + random() % 30;
    ASSERT_EQ(replaced(text, name, piece), expected) << text << " in pieces of " << piece;
    if (expected != text) ++replacements;
  }
  EXPECT_GT(replacements, 5000U);
}

TEST(ReplacePlaceholders, FindsThemAmongAtSignsOnly) {
  std::string text(1000000, '@');
  std::string expected = text;
  for (const size_t at : {999987U, 500000U, 400U, 0U}) {
    text.replace(at, 13, "@domain_name@");
    expected.replace(at, 13, "a.test");
  }
  EXPECT_TRUE(replaced(text, "a.test", text.size()) == expected);
  EXPECT_TRUE(replaced(text, "a.test", 4096) == expected);
}

}  // namespace
