#include "text/Regexp.h"

#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include <fstream>
#include <limits>
#include <stdexcept>
#include <string>
#include <type_traits>

namespace {

using frask::Regexp;
using Result = Regexp::MatchResultData;
using Region = std::pair<int, unsigned long>;

/// regerror()'s text for `pattern`, asked of the system itself.
std::string system_text(const char* pattern, int flags) {
  regex_t compiled;
  const int code = regcomp(&compiled, pattern, flags);
  if (code == 0) {
    regfree(&compiled);
    return "the pattern compiled";
  }
  char text[256];
  regerror(code, &compiled, text, sizeof text);
  return text;
}

/// What regexec() itself returns.
int system_result(const char* pattern, const char* subject, int eflags) {
  regex_t compiled;
  if (regcomp(&compiled, pattern, REG_EXTENDED) != 0) return REG_NOMATCH;
  const int result = regexec(&compiled, subject, 0, nullptr, eflags);
  regfree(&compiled);
  return result;
}

std::string constructor_error(const std::string& pattern, int flags) {
  try {
    const Regexp compiled(pattern, flags);
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "no error";
}

// --- construction
// ---------------------------------------------------------------------------------

TEST(RegexpConstructor, ThrowsTheSystemsTextForABadPattern) {
  const struct {
    const char* pattern;
    int flags;
  } rows[] = {{"(", REG_EXTENDED},      {"[a", 0},       {"a\\", 0},        {"\\(a", 0},
              {"a{2,1}", REG_EXTENDED}, {"[[:no:]]", 0}, {"\\(a\\)\\2", 0}, {"[z-a]", REG_ICASE}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.pattern);
    const std::string expected = system_text(row.pattern, row.flags);
    ASSERT_NE(expected, "the pattern compiled");
    EXPECT_EQ(constructor_error(row.pattern, row.flags), expected);
  }
}

TEST(RegexpConstructor, AddsNothingToTheSystemsText) {
  EXPECT_EQ(constructor_error("(", REG_EXTENDED), "Unmatched ( or \\(");
}

TEST(RegexpConstructor, PassesEachCompileFlagOn) {
  const struct {
    const char* pattern;
    const char* subject;
    int flag;
  } rows[] = {
      {"^a+$", "aaa", REG_EXTENDED}, {"^abc$", "ABC", REG_ICASE}, {"^b$", "a\nb", REG_NEWLINE}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.pattern);
    EXPECT_TRUE(Regexp(row.pattern, row.flag).match(nullptr, row.subject, 0, 0));
    EXPECT_FALSE(Regexp(row.pattern, 0).match(nullptr, row.subject, 0, 0));
  }
}

TEST(RegexpConstructor, TakesFlagsInCombination) {
  const Regexp both("^b+$", REG_EXTENDED | REG_ICASE | REG_NEWLINE);
  EXPECT_TRUE(both.match(nullptr, "a\nBBB\nc", 0, 0));
}

TEST(RegexpConstructor, EndsThePatternAtANulByte) {
  const Regexp compiled(std::string("a\0(", 3), REG_EXTENDED);
  EXPECT_TRUE(compiled.match(nullptr, "cat", 0, 0));
}

TEST(RegexpConstructor, TakesAnEmptyPattern) {
  const auto found = Regexp("", 0).match("abc", 1, 0);
  ASSERT_TRUE(found);
  EXPECT_EQ(found->getRange(0), Region(0, 0));
}

TEST(Regexp, IsNeitherCopiedNorMoved) {
  static_assert(!std::is_copy_constructible_v<Regexp> && !std::is_copy_assignable_v<Regexp>);
  static_assert(!std::is_move_constructible_v<Regexp> && !std::is_move_assignable_v<Regexp>);
  static_assert(!std::is_default_constructible_v<Regexp>, "there is no object without a pattern");
  // A result is a plain value.
  static_assert(std::is_copy_constructible_v<Result> && std::is_copy_assignable_v<Result>);
}

/// Resident memory of this process in KiB.
long resident_kib() {
  std::ifstream statm("/proc/self/statm");
  long total = 0;
  long resident = 0;
  statm >> total >> resident;
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// The leak checker of the sanitizer build would see one leaked pattern; this sees it in any build.
TEST(Regexp, ReleasesItsPattern) {
#ifdef __SANITIZE_ADDRESS__
  constexpr int kRounds = 10;  // freed memory is held back by the sanitizer
#else
  constexpr int kRounds = 5000;  // some 10 KiB each: 50 MiB if they stayed
#endif
  const std::string pattern = "(a|b|c)*[[:alpha:]]+(d|e){1,20}$";
  for (int i = 0; i < 10; ++i) ASSERT_EQ(constructor_error(pattern, REG_EXTENDED), "no error");
  const long before = resident_kib();
  for (int i = 0; i < kRounds; ++i) {
    ASSERT_EQ(constructor_error(pattern, REG_EXTENDED), "no error");
    ASSERT_EQ(constructor_error(pattern + "(", REG_EXTENDED), "Unmatched ( or \\(");
  }
  EXPECT_LT(resident_kib() - before, 20 * 1024);
}

// --- match
// ----------------------------------------------------------------------------------------

TEST(RegexpMatch, GivesAnEmptyPointerForANonMatch) {
  EXPECT_FALSE(Regexp("x", 0).match("abc", 1, 0));
}

TEST(RegexpMatch, GivesTheWholeMatchAndItsParts) {
  const auto found = Regexp("(b+)(c+)", REG_EXTENDED).match("aabbbccd", 3, 0);
  ASSERT_TRUE(found);
  EXPECT_EQ(found->text, "aabbbccd");
  EXPECT_EQ(found->offset, 0U);
  ASSERT_EQ(found->regions.size(), 3U);
  EXPECT_EQ(found->getRange(0), Region(2, 5));
  EXPECT_EQ(found->getRange(1), Region(2, 3));
  EXPECT_EQ(found->getRange(2), Region(5, 2));
  EXPECT_EQ(found->getString(0), "bbbcc");
  EXPECT_EQ(found->getString(1), "bbb");
  EXPECT_EQ(found->getString(2), "cc");
}

TEST(RegexpMatch, ReadsAnOptionalGroupThatTookNoPartAsEmpty) {
  const auto found = Regexp("(a)(b)?", REG_EXTENDED).match("xac", 3, 0);
  ASSERT_TRUE(found);
  EXPECT_EQ(found->getRange(2), Region(0, 0));
  EXPECT_EQ(found->getString(2), "");
  EXPECT_EQ(found->getString(1), "a");
}

TEST(RegexpMatch, FillsTheCallersResult) {
  Result data;
  ASSERT_TRUE(Regexp("b", 0).match(&data, "abc", 1, 0));
  EXPECT_EQ(data.text, "abc");
  EXPECT_EQ(data.getRange(0), Region(1, 1));
}

TEST(RegexpMatch, BeginsAtTheFirstByteWhateverTheResultHolds) {
  Result data;
  data.offset = 2;
  ASSERT_TRUE(Regexp("^a", 0).match(&data, "abc", 1, 0));
  EXPECT_EQ(data.offset, 0U);
}

TEST(RegexpMatch, PassesTheExecutionFlagsOn) {
  const struct {
    const char* pattern;
    int eflags;
  } rows[] = {{"^a", REG_NOTBOL}, {"c$", REG_NOTEOL}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.pattern);
    const Regexp compiled(row.pattern, 0);
    EXPECT_TRUE(compiled.match("abc", 1, 0));
    EXPECT_FALSE(compiled.match("abc", 1, row.eflags));
    Result data;
    EXPECT_TRUE(compiled.match(&data, "abc", 1, 0));
    EXPECT_FALSE(compiled.match(&data, "abc", 1, row.eflags));
    EXPECT_FALSE(compiled.match_from(nullptr, "abc", 0, 0, row.eflags));
  }
}

// --- match_from
// -----------------------------------------------------------------------------------

TEST(RegexpMatchFrom, NeedsNoResult) {
  const Regexp compiled("(b)", REG_EXTENDED);
  EXPECT_TRUE(compiled.match_from(nullptr, "abc", 0, 2, 0));
  EXPECT_TRUE(compiled.match_from(nullptr, "abc", 1, 0, 0));
  EXPECT_FALSE(compiled.match_from(nullptr, "abc", 2, 2, 0));
}

TEST(RegexpMatchFrom, LeavesTheResultAloneOnANonMatch) {
  const Result before{"kept", 7, {{1, 2}}};
  Result data = before;
  EXPECT_FALSE(Regexp("x", 0).match_from(&data, "abc", 1, 3, 0));
  EXPECT_EQ(data.text, before.text);
  EXPECT_EQ(data.offset, before.offset);
  EXPECT_EQ(data.regions, before.regions);
}

TEST(RegexpMatchFrom, StoresTextAndOffsetAlsoForACountOfZero) {
  Result data{"old", 9, {{1, 2}, {3, 4}}};
  ASSERT_TRUE(Regexp("c", 0).match_from(&data, "abc", 1, 0, 0));
  EXPECT_EQ(data.text, "abc");
  EXPECT_EQ(data.offset, 1U);
  EXPECT_TRUE(data.regions.empty());
}

TEST(RegexpMatchFrom, MakesTheRegionsExactlyCountLong) {
  const Regexp compiled("(a)(b)(c)", REG_EXTENDED);
  Result data;
  for (const unsigned long count : {1UL, 4UL, 2UL, 9UL, 3UL}) {
    SCOPED_TRACE(count);
    ASSERT_TRUE(compiled.match_from(&data, "abc", 0, count, 0));
    EXPECT_EQ(data.regions.size(), count);
    EXPECT_EQ(data.getRange(0), Region(0, 3));
  }
}

TEST(RegexpMatchFrom, ReadsRegionsPastThePatternsOwnAsEmpty) {
  const auto found = Regexp("(b)", REG_EXTENDED).match("abc", 5, 0);
  ASSERT_TRUE(found);
  EXPECT_EQ(found->regions, (std::vector<Region>{{1, 1}, {1, 1}, {0, 0}, {0, 0}, {0, 0}}));
}

TEST(RegexpMatchFrom, KeepsInAReusedResultWhatTookNoPart) {
  const Regexp compiled("(a)(b)?(c)?", REG_EXTENDED);
  Result data;
  ASSERT_TRUE(compiled.match_from(&data, "xabc", 0, 4, 0));
  ASSERT_EQ(data.regions, (std::vector<Region>{{1, 3}, {1, 1}, {2, 1}, {3, 1}}));
  ASSERT_TRUE(compiled.match_from(&data, "a--c", 0, 4, 0));
  EXPECT_EQ(data.regions, (std::vector<Region>{{0, 1}, {0, 1}, {2, 1}, {3, 1}}));
  EXPECT_EQ(data.getString(3), "c") << "the old region, read in the new text";
}

TEST(RegexpMatchFrom, KeepsAMarkOfNoPartThatTheCallerSet) {
  Result data;
  data.regions = {{5, 5}, {-1, 3}};
  ASSERT_TRUE(Regexp("(a)|b", REG_EXTENDED).match_from(&data, "b", 0, 2, 0));
  EXPECT_EQ(data.regions, (std::vector<Region>{{0, 1}, {-1, 3}}));
  EXPECT_EQ(data.getString(1), "");
}

TEST(RegexpMatchFrom, GivesAnEmptySubMatchThatTookPartItsPlace) {
  Result data;
  data.regions = {{9, 9}, {9, 9}};
  ASSERT_TRUE(Regexp("a(x*)", REG_EXTENDED).match_from(&data, "bab", 0, 2, 0));
  EXPECT_EQ(data.regions, (std::vector<Region>{{1, 1}, {2, 0}}));
}

TEST(RegexpMatchFrom, FillsNoRegionUnderNosub) {
  const Regexp compiled("(b)(c)", REG_EXTENDED | REG_NOSUB);
  EXPECT_FALSE(compiled.match("xyz", 2, 0));
  const auto fresh = compiled.match("abc", 3, 0);
  ASSERT_TRUE(fresh);
  EXPECT_EQ(fresh->text, "abc");
  EXPECT_EQ(fresh->regions, (std::vector<Region>{{0, 0}, {0, 0}, {0, 0}}));

  Result reused{"old", 0, {{1, 2}, {3, 4}}};
  ASSERT_TRUE(compiled.match_from(&reused, "abc", 1, 3, 0));
  EXPECT_EQ(reused.regions, (std::vector<Region>{{1, 2}, {3, 4}, {0, 0}}));
}

TEST(RegexpMatchFrom, TakesTheTextOfItsOwnResultAsSubject) {
  const Regexp compiled("[a-z]+", REG_EXTENDED);
  Result data;
  ASSERT_TRUE(compiled.match_from(&data, "one two", 0, 1, 0));
  ASSERT_TRUE(compiled.match_from(&data, data.text, 3, 1, 0));
  EXPECT_EQ(data.text, "one two");
  EXPECT_EQ(data.getRange(0), Region(1, 3));
}

TEST(RegexpMatchFrom, EndsTheSubjectAtANulByte) {
  const std::string subject("ab\0cd", 5);
  EXPECT_FALSE(Regexp("c", 0).match(subject, 1, 0));
  const auto found = Regexp("b$", 0).match(subject, 1, 0);
  ASSERT_TRUE(found);
  EXPECT_EQ(found->text, subject) << "what follows the NUL byte is stored all the same";
  Result behind;
  ASSERT_TRUE(Regexp("^c", 0).match_from(&behind, subject, 3, 1, 0));
  EXPECT_EQ(behind.getRange(0), Region(0, 1));
}

TEST(RegexpMatchFrom, AllocatesNothingForAnEnormousCountThatFindsNothing) {
  constexpr unsigned long kMost = std::numeric_limits<unsigned long>::max();
  Result data;
  EXPECT_FALSE(Regexp("x", 0).match_from(&data, "abc", 0, kMost, 0));
  EXPECT_TRUE(Regexp("b", 0).match_from(nullptr, "abc", 0, kMost, 0));
}

TEST(RegexpMatchFrom, IgnoresBoundsThatNobodyGave) {
  const Regexp compiled("c$", 0);
  Result data;
  ASSERT_TRUE(compiled.match_from(&data, "abc", 0, 1, REG_STARTEND));
  EXPECT_EQ(data.getRange(0), Region(2, 1));
  EXPECT_TRUE(compiled.match_from(nullptr, "abc", 0, 0, REG_STARTEND));
}

TEST(RegexpMatchFrom, LeavesTheResultAloneWhenThereIsNoRoomForSoMany) {
  constexpr unsigned long kMost = std::numeric_limits<unsigned long>::max();
  const Result before{"kept", 7, {{1, 2}}};
  Result data = before;
  EXPECT_THROW(Regexp("b", 0).match_from(&data, "abc", 1, kMost, 0), std::length_error);
  EXPECT_EQ(data.text, before.text);
  EXPECT_EQ(data.offset, before.offset);
  EXPECT_EQ(data.regions, before.regions);
}

/// An execution flag that regexec() refuses with REG_BADPAT: its one error beside REG_NOMATCH here,
/// for it reports exhausted memory as REG_NOMATCH.
constexpr int kUnknownFlag = 1 << 20;

TEST(RegexpMatchFrom, MasksNoFlagButTheBounds) {
  const Regexp compiled("^abc$", 0);
  for (const int flag : {REG_NOTBOL, REG_NOTEOL}) {
    SCOPED_TRACE(flag);
    ASSERT_TRUE(compiled.match_from(nullptr, "abc", 0, 0, REG_STARTEND));
    EXPECT_FALSE(compiled.match_from(nullptr, "abc", 0, 0, flag | REG_STARTEND));
  }
  EXPECT_TRUE(compiled.match_from(nullptr, "no", 0, 0, kUnknownFlag | REG_STARTEND))
      << "a flag that is not known reaches regexec(), which refuses it";
}

TEST(RegexpMatchFrom, TakesASearchThatFailedForAMatch) {
  const Regexp compiled("(x)", REG_EXTENDED);
  ASSERT_FALSE(compiled.match("abc", 2, 0)) << "in truth nothing matches";
  ASSERT_EQ(system_result("(x)", "abc", kUnknownFlag), REG_BADPAT);
  EXPECT_TRUE(compiled.match_from(nullptr, "abc", 0, 0, kUnknownFlag));
  const auto fresh = compiled.match("abc", 2, kUnknownFlag);
  ASSERT_TRUE(fresh);
  EXPECT_EQ(fresh->text, "abc");
  EXPECT_EQ(fresh->regions, (std::vector<Region>{{0, 0}, {0, 0}}));

  Result reused{"old", 0, {{1, 2}, {3, 4}}};
  ASSERT_TRUE(compiled.match_from(&reused, "abc", 2, 3, kUnknownFlag));
  EXPECT_EQ(reused.text, "abc");
  EXPECT_EQ(reused.offset, 2U);
  EXPECT_EQ(reused.regions, (std::vector<Region>{{1, 2}, {3, 4}, {0, 0}}));
}

// --- offset
// ---------------------------------------------------------------------------------------

TEST(RegexpOffset, CountsTheStartsFromTheOffset) {
  Result data;
  ASSERT_TRUE(Regexp("(c)(d)", REG_EXTENDED).match_from(&data, "cdabcdef", 2, 3, 0));
  EXPECT_EQ(data.offset, 2U);
  EXPECT_EQ(data.regions, (std::vector<Region>{{2, 2}, {2, 1}, {3, 1}}));
}

TEST(RegexpOffset, GetStringSlicesTheWholeTextAtTheUnshiftedStart) {
  Result data;
  ASSERT_TRUE(Regexp("e(f)", REG_EXTENDED).match_from(&data, "abcdef", 2, 2, 0));
  EXPECT_EQ(data.text, "abcdef");
  EXPECT_EQ(data.getRange(0), Region(2, 2));
  EXPECT_EQ(data.getString(0), "cd");
  EXPECT_EQ(data.getString(1), "d");
  EXPECT_EQ(Regexp::getRegions(data.text, data), (std::vector<std::string>{"cd", "d"}));
}

TEST(RegexpOffset, IsABeginningOfLineUnlessNotbolIsGiven) {
  const Regexp compiled("^b", 0);
  Result data;
  EXPECT_TRUE(compiled.match_from(&data, "abc", 1, 1, 0));
  EXPECT_FALSE(compiled.match_from(&data, "abc", 1, 1, REG_NOTBOL));
}

TEST(RegexpOffset, HidesWhatLiesBeforeIt) {
  EXPECT_FALSE(Regexp("a", 0).match_from(nullptr, "abc", 1, 0, 0));
}

TEST(RegexpOffset, MayStandAtTheEnd) {
  Result data;
  ASSERT_TRUE(Regexp("^$", 0).match_from(&data, "abc", 3, 1, 0));
  EXPECT_EQ(data.regions, (std::vector<Region>{{0, 0}}));
  EXPECT_EQ(data.offset, 3U);
}

TEST(RegexpOffset, BeyondTheEndIsANonMatch) {
  const Regexp compiled("", 0);
  for (const unsigned long offset : {4UL, 1000000UL, std::numeric_limits<unsigned long>::max()}) {
    SCOPED_TRACE(offset);
    Result data{"kept", 7, {{1, 2}}};
    EXPECT_FALSE(compiled.match_from(&data, "abc", offset, 1, 0));
    EXPECT_EQ(data.text, "kept");
    EXPECT_FALSE(compiled.match_from(nullptr, "abc", offset, 0, kUnknownFlag));
  }
}

// --- regions
// --------------------------------------------------------------------------------------

TEST(RegexpGetRegion, CutsTheTextAtStartAndLength) {
  const struct {
    Region region;
    const char* part;
  } rows[] = {{{0, 0}, ""},
              {{0, 6}, "abcdef"},
              {{2, 3}, "cde"},
              {{2, 100}, "cdef"},
              {{6, 0}, ""},
              {{6, 5}, ""},
              {{-1, 0}, ""},
              {{-1, 3}, ""},
              {{5, std::numeric_limits<unsigned long>::max()}, "f"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.region.first << ", " << row.region.second);
    EXPECT_EQ(Regexp::getRegion("abcdef", row.region), row.part);
  }
}

TEST(RegexpGetRegion, ThrowsWhereTheRegionStartsPastTheEnd) {
  for (const int start : {4, 1000, std::numeric_limits<int>::max(), -2}) {
    SCOPED_TRACE(start);
    EXPECT_THROW(Regexp::getRegion("abc", {start, 0}), std::out_of_range);
  }
  EXPECT_THROW((Result{"abc", 0, {{4, 1}}}.getString(0)), std::out_of_range);
}

TEST(RegexpGetRegion, KeepsNulBytes) {
  EXPECT_EQ(Regexp::getRegion(std::string("a\0bc", 4), {0, 3}), std::string("a\0b", 3));
}

TEST(RegexpGetRegions, GivesOneStringARegionInOrder) {
  const Result data{"ignored", 3, {{2, 2}, {-1, 9}, {0, 1}, {4, 0}}};
  EXPECT_EQ(Regexp::getRegions("abcd", data), (std::vector<std::string>{"cd", "", "a", ""}));
  EXPECT_TRUE(Regexp::getRegions("abcd", Result{}).empty());
}

// --- quote
// ----------------------------------------------------------------------------------------

constexpr char kBasicSet[] = "\\.*[]^$";
constexpr char kExtendedSet[] = "+?{}()|";

TEST(RegexpQuote, EscapesTheSetsAndNothingElse) {
  for (int value = 0; value < 256; ++value) {
    SCOPED_TRACE(value);
    const std::string text(1, static_cast<char>(value));
    const bool basic = value != 0 && strchr(kBasicSet, value) != nullptr;
    const bool extended = value != 0 && strchr(kExtendedSet, value) != nullptr;
    EXPECT_EQ(Regexp::quote(text, false), basic ? "\\" + text : text);
    EXPECT_EQ(Regexp::quote(text, true), basic || extended ? "\\" + text : text);
  }
}

TEST(RegexpQuote, LeavesTheExtendedSetAloneInBasicPatterns) {
  EXPECT_EQ(Regexp::quote(kExtendedSet, false), kExtendedSet);
  EXPECT_EQ(Regexp::quote(kExtendedSet, true), R"(\+\?\{\}\(\)\|)");
  EXPECT_EQ(Regexp::quote(kBasicSet, false), R"(\\\.\*\[\]\^\$)");
  EXPECT_EQ(Regexp::quote(kBasicSet, true), R"(\\\.\*\[\]\^\$)");
}

TEST(RegexpQuote, GivesAnEmptyTextForAnEmptyText) {
  EXPECT_EQ(Regexp::quote("", false), "");
  EXPECT_EQ(Regexp::quote("", true), "");
}

TEST(RegexpQuote, EscapesTwiceWhenAskedTwice) {
  EXPECT_EQ(Regexp::quote(Regexp::quote("a.b", false), false), R"(a\\\.b)");
}

void expect_that_quoted_text_matches_itself_only(const std::string& text) {
  for (const bool extended : {false, true}) {
    SCOPED_TRACE(testing::Message() << "\"" << text << "\", extended " << extended);
    const Regexp compiled("^" + Regexp::quote(text, extended) + "$", extended ? REG_EXTENDED : 0);
    const auto found = compiled.match(text, 1, 0);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->getString(0), text);
    EXPECT_FALSE(compiled.match(text + text, 1, 0));
    EXPECT_FALSE(compiled.match("", 1, 0));
  }
}

TEST(RegexpQuote, MakesEachByteMatchItself) {
  for (int value = 1; value < 256; ++value)
    expect_that_quoted_text_matches_itself_only(std::string(1, static_cast<char>(value)));
}

TEST(RegexpQuote, MakesEachPairOfBytesThatPatternsKnowMatchItself) {
  const std::string known = std::string(kBasicSet) + kExtendedSet + "a<>wb1,-:=`'\n";
  for (const char first : known)
    for (const char second : known)
      expect_that_quoted_text_matches_itself_only(std::string{first, second});
}

TEST(RegexpQuote, MakesAllBytesInOneTextMatchThemselves) {
  std::string text;
  for (int value = 255; value >= 1; --value) text += static_cast<char>(value);
  expect_that_quoted_text_matches_itself_only(text);
}

}  // namespace
