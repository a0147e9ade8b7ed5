#include "exec/TEArgs.h"

#include <gtest/gtest.h>

#include <limits>
#include <type_traits>

#include "exec/texec.h"

using frask::xtos;
using frask::sys::TEArgs;
using frask::sys::TSysErr;

namespace {

/// What objects saw that are built before main(), as a program's own may be.
struct EarlyUser {
  std::string texts =
      TEArgs::exceed_lim + "/" + TEArgs::wrong_index + "/" + frask::sys::TExec::bad_args_m;
  TEArgs args = frask::sys::el;
  bool def_mode = frask::sys::TExec(args).mode().all();
};
const EarlyUser early_user;

TEArgs of_size(unsigned long size) {
  TEArgs args;
  for (unsigned long i = 0; i < size; ++i) args.push_back("argument " + std::to_string(i));
  return args;
}

std::string overflow_message(unsigned long size, unsigned long added) {
  return "The number of arguments has exceeded the defined limits (arguments number = " +
         std::to_string(size) + ", add. arguments number = " + std::to_string(added) +
         ", max = 100)";
}

/// The message of the TOverflow that appending throws, "" when it throws none.
template <class Added>
std::string overflow_of(TEArgs& args, const Added& added) {
  try {
    args.push_back(added);
    return "";
  } catch (const TEArgs::TOverflow& error) {
    return error.what();
  }
}

std::vector<std::string> strings(const TEArgs& args) {
  std::vector<std::string> all;
  for (unsigned long i = 0; i < args.size(); ++i) all.push_back(args[i]);
  return all;
}

using Strings = std::vector<std::string>;

}  // namespace

TEST(TEArgs, IsEmptyAtFirst) {
  EXPECT_EQ(TEArgs().size(), 0U);
  EXPECT_TRUE(TEArgs().empty());
  EXPECT_EQ(frask::sys::el.size(), 0U);
}

TEST(TEArgs, HasItsConstantsBeforeOtherStaticObjectsAreBuilt) {
  EXPECT_EQ(early_user.texts,
            "The number of arguments has exceeded the defined limits/Wrong index/Bad execute "
            "arguments");
  EXPECT_TRUE(early_user.args.empty());
  EXPECT_TRUE(early_user.def_mode);
}

TEST(TEArgs, KeepsStringsInOrder) {
  TEArgs args;
  args.push_back("program");
  args.push_back(std::string("with\0NUL", 8));
  args.push_back("");
  EXPECT_EQ(strings(args), (Strings{"program", std::string("with\0NUL", 8), ""}));
  EXPECT_FALSE(args.empty());
}

TEST(TEArgs, HasRoomForTenWithoutMovingThem) {
  TEArgs args = of_size(1);
  const std::string* const first = &args[0];
  while (args.size() < 10) args.push_back("next");
  EXPECT_EQ(&args[0], first);
  args.push_back("eleventh");
  EXPECT_NE(&args[0], first) << "room was made for more than ten";
}

TEST(PushBack, AcceptsAHundredthStringAndNoMore) {
  TEArgs args = of_size(99);
  EXPECT_EQ(overflow_of(args, std::string("hundredth")), "");
  EXPECT_EQ(overflow_of(args, std::string("another")), overflow_message(100, 1));
  EXPECT_EQ(args.size(), 100U);
  EXPECT_EQ(args[99], "hundredth");
}

TEST(PushBack, AcceptsAVectorThatFitsAndNoPartOfOneThatDoesNot) {
  struct Row {
    unsigned long size, added;
    bool fits;
  };
  for (const Row row : {Row{99, 1, true}, Row{99, 2, false}, Row{0, 100, true}, Row{100, 0, true},
                        Row{100, 1, false}, Row{60, 41, false}, Row{1, 100, false}}) {
    SCOPED_TRACE(testing::Message() << row.size << " + " << row.added);
    TEArgs args = of_size(row.size);
    EXPECT_EQ(overflow_of(args, of_size(row.added)),
              row.fits ? "" : overflow_message(row.size, row.added));
    EXPECT_EQ(args.size(), row.fits ? row.size + row.added : row.size);
  }
}

TEST(PushBack, AppendsAVectorInOrder) {
  TEArgs args = of_size(1);
  args.push_back(of_size(2));
  EXPECT_EQ(strings(args), (Strings{"argument 0", "argument 0", "argument 1"}));
}

TEST(PushBack, AppendsAVectorToItself) {
  for (const unsigned long size : {0UL, 1UL, 2UL, 10UL, 50UL}) {
    SCOPED_TRACE(size);
    TEArgs args = of_size(size);
    args.push_back(args);
    ASSERT_EQ(args.size(), 2 * size);
    for (unsigned long i = 0; i < size; ++i) EXPECT_EQ(args[size + i], args[i]);
  }
}

TEST(PushBack, AppendsAVectorToACopyOfItself) {
  const TEArgs original = of_size(3);
  TEArgs copy = original;
  copy.push_back(original);
  EXPECT_EQ(copy.size(), 6U);
  EXPECT_EQ(copy[5], "argument 2");
  EXPECT_EQ(original.size(), 3U);
}

TEST(PushBack, RefusesAVectorToItselfBeyondTheLimit) {
  TEArgs args = of_size(51);
  EXPECT_EQ(overflow_of(args, args), overflow_message(51, 51));
  EXPECT_EQ(args.size(), 51U);
}

TEST(CopyOnWrite, SharesTheStringsUntilOneSideIsExtended) {
  TEArgs original = of_size(2);
  const TEArgs copy = original;
  EXPECT_EQ(&copy[0], &original[0]);
  original.push_back("more");
  EXPECT_NE(&copy[0], &original[0]);
}

TEST(CopyOnWrite, NeverShowsOneSidesStringsInTheOther) {
  TEArgs original = of_size(1);
  TEArgs copy = original;
  copy.push_back("one string");
  EXPECT_EQ(strings(original), (Strings{"argument 0"}));
  EXPECT_EQ(strings(copy), (Strings{"argument 0", "one string"}));

  TEArgs second_copy = original;
  original.push_back(of_size(1));
  EXPECT_EQ(strings(second_copy), (Strings{"argument 0"}));
  EXPECT_EQ(strings(original), (Strings{"argument 0", "argument 0"}));
}

TEST(CopyOnWrite, CopiesNothingForASoleOwner) {
  TEArgs args = of_size(1);
  { const TEArgs passing_copy = args; }
  const std::string* const first = &args[0];
  args.push_back("more");
  args.push_back(of_size(3));
  EXPECT_EQ(&args[0], first);
}

TEST(TOutOfRange, NamesTheIndex) {
  const TEArgs args = of_size(3);
  for (const unsigned long index : {3UL, 4UL, std::numeric_limits<unsigned long>::max()}) {
    SCOPED_TRACE(index);
    try {
      FAIL() << args[index];
    } catch (const TEArgs::TOutOfRange& error) {
      EXPECT_EQ(error.what(), "Wrong index (index = " + std::to_string(index) + ")");
      EXPECT_EQ(error.index(), index);
      EXPECT_EQ(&error.args()[0], &args[0]) << "the strings are shared, not copied";
    }
  }
  EXPECT_THROW(TEArgs()[0], TEArgs::TOutOfRange);
  EXPECT_NO_THROW(args[2]);
}

TEST(TEArgsError, KeepsTheVectorAsItWas) {
  TEArgs args = of_size(60);
  try {
    args.push_back(of_size(41));
    FAIL() << "there is no room for 101";
  } catch (const TEArgs::TEArgsError& error) {
    args.push_back("one more");
    EXPECT_EQ(error.args().size(), 60U);
    const TEArgs::TEArgsError copy(error);
    EXPECT_EQ(copy.args().size(), 60U);
    EXPECT_STREQ(copy.what(), error.what());
  }
  EXPECT_EQ(args.size(), 61U);
}

TEST(TEArgsError, BelongsToTheFamily) {
  EXPECT_TRUE((std::is_base_of_v<TSysErr, TEArgs::TEArgsError>));
  EXPECT_TRUE((std::is_base_of_v<TEArgs::TEArgsError, TEArgs::TOutOfRange>));
  EXPECT_TRUE((std::is_base_of_v<TEArgs::TEArgsError, TEArgs::TOverflow>));
}

TEST(ThrowRoutines, ThrowForTheNumbersThatTheyAreGiven) {
  const TEArgs args = of_size(2);
  try {
    args.throwTOutOfRange(1);
  } catch (const TEArgs::TOutOfRange& error) {
    EXPECT_STREQ(error.what(), "Wrong index (index = 1)") << "even for an index that exists";
  }
  try {
    args.throwTOverflow(5);
  } catch (const TEArgs::TOverflow& error) {
    EXPECT_EQ(error.what(), overflow_message(2, 5));
  }
}

TEST(Xtos, GivesDecimalDigitsInEveryLocale) {
  struct Grouping : std::numpunct<char> {
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
  };
  const std::locale usual = std::locale::global(std::locale(std::locale(), new Grouping));
  EXPECT_EQ(xtos(0UL), "0");
  EXPECT_EQ(xtos<unsigned long>(18446744073709551615UL), "18446744073709551615");
  std::locale::global(usual);
}
