#include "text/idn.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "endless_text.h"
#include "log/messlog.h"
#include "support/child.h"

namespace {

using testsupport::in_child;
using testsupport::Outcome;

struct Free {
  void operator()(char* text) const { free(text); }
};
using Owned = std::unique_ptr<char, Free>;

constexpr int kUntouched = 4711;

const std::string kLabel63(63, 'a');
const std::string kLabel64(64, 'a');

struct Failure {
  std::string domain;
  int code;
};

/// One domain for each failure that a user's input can cause.
const Failure kFailures[] = {
    {"\u0378", 1},                       // not assigned
    {"\u05d0a", 1},                      // right-to-left and left-to-right letters in one label
    {kLabel63.substr(3) + "\u00fc", 2},  // too long to encode
    {kLabel64, 5},                       // one too long
    {"a..b", 5},                         // an empty label
    {"\u200b", 5},                       // nothing is left of it
    {"xn--\u00fc", 8},                   // the prefix before letters that need it
    {"\xff", 9},                         // not UTF-8
    {"example.\xc3", 9},                 // cut within a letter
};

TEST(IdnErrno, IsZeroAtFirst) {
  EXPECT_EQ(idn_errno, 0);
}

TEST(IdnToascii, ConvertsEveryLabel) {
  struct Row {
    const char* domain;
    const char* ascii;
  };
  const Row rows[] = {{"b\u00fccher.example", "xn--bcher-kva.example"},
                      {"B\u00dcCHER.example", "xn--bcher-kva.example"},
                      {"www.b\u00fccher.\u00e4.example", "www.xn--bcher-kva.xn--4ca.example"},
                      {"\u043f\u0440\u0438\u043c\u0435\u0440", "xn--e1afmkfd"},
                      {"fa\u00df.example", "fass.example"},
                      {"b\u00fccher\u3002example", "xn--bcher-kva.example"},
                      {"b\u00fccher.", "xn--bcher-kva."}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.domain);
    EXPECT_STREQ(Owned(idn_toascii(row.domain)).get(), row.ascii);
  }
}

TEST(IdnToascii, ConvertsAnAsciiDomainToItself) {
  // Underscores and leading hyphens too: the rules for host names are not applied.
  for (const std::string& domain :
       {std::string("example.com"), std::string("example.com."), std::string("a_b.-c-.d"),
        std::string("xn--bcher-kva.example"), std::string("EXAMPLE.com"), std::string("a b"),
        std::string("localhost"), std::string(""), std::string("."), kLabel63}) {
    SCOPED_TRACE(domain);
    EXPECT_STREQ(Owned(idn_toascii(domain.c_str())).get(), domain.c_str());
  }
}

TEST(IdnToascii, GivesNewMemoryEachTime) {
  const Owned one(idn_toascii("example.com"));
  const Owned two(idn_toascii("example.com"));
  EXPECT_NE(one.get(), two.get());
}

TEST(IdnToascii, GivesNullAndTheCodeOfEachFailure) {
  const Outcome outcome = in_child([] {
    for (const Failure& failure : kFailures) {
      idn_errno = kUntouched;
      if (idn_toascii(failure.domain.c_str()) != nullptr || idn_errno != failure.code)
        printf("%s: %d, not %d\n", failure.domain.c_str(), idn_errno, failure.code);
    }
  });
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err, "") << "nothing is logged";
  EXPECT_EQ(outcome.exit_code(), 0);
}

TEST(IdnToascii, LeavesIdnErrnoAloneOnSuccess) {
  idn_errno = kUntouched;
  const Owned ascii(idn_toascii("b\u00fccher"));
  ASSERT_NE(ascii, nullptr);
  EXPECT_EQ(idn_errno, kUntouched);
  idn_errno = 0;
}

TEST(IdnToasciiSafe, ConvertsAsThePlainRoutineDoes) {
  const Outcome outcome = in_child([] {
    idn_errno = kUntouched;
    if (strcmp(Owned(idn_toascii_safe("b\u00fccher")).get(), "xn--bcher-kva") != 0) _exit(1);
    if (idn_errno != kUntouched) _exit(2);
  });
  EXPECT_EQ(outcome.exit_code(), 0);
  EXPECT_EQ(outcome.out + outcome.err, "");
}

TEST(IdnToasciiSafe, EndsTheProcessWithTheTextOfTheFailure) {
  const Outcome outcome = in_child([] {
    PROGNAME = "tembrix";
    errno = 0;
    idn_toascii_safe("a..b");
    _exit(99);
  });
  EXPECT_EQ(outcome.err, "tembrix: idn_toascii_safe(a..b) failed: Invalid length\n");
  EXPECT_EQ(outcome.out, outcome.err);
  EXPECT_EQ(outcome.exit_code(), 1);
}

TEST(IdnToutf8, ConvertsEveryLabel) {
  struct Row {
    const char* domain;
    const char* utf8;
  };
  const Row rows[] = {{"xn--bcher-kva.example", "b\u00fccher.example"},
                      {"XN--BCHER-KVA.example", "B\u00fcCHER.example"},
                      {"\u00e4.xn--bcher-kva", "\u00e4.b\u00fccher"},
                      {"example.com", "example.com"},
                      {"xn--a_-yka", "a_\u00fc"},  // the rules for host names are not applied
                      {"xn--bcher-kva\u3002example", "b\u00fccher.example"},
                      {"", ""}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.domain);
    EXPECT_STREQ(Owned(idn_toutf8(row.domain)).get(), row.utf8);
  }
}

TEST(IdnToutf8, LeavesALabelThatIsNoAsciiFormAsItIs) {
  idn_errno = kUntouched;
  for (const std::string& domain :
       {std::string("xn--a"), std::string("xn--zva"), std::string("xn--\u00fc"),
        std::string("a..b"), std::string("\u0378"), kLabel64}) {
    SCOPED_TRACE(domain);
    EXPECT_STREQ(Owned(idn_toutf8(domain.c_str())).get(), domain.c_str());
  }
  EXPECT_EQ(idn_errno, kUntouched) << "the library calls that a success";
  idn_errno = 0;
}

TEST(IdnToutf8, GivesNullAndTheCodeForMalformedUtf8) {
  const Outcome outcome = in_child([] {
    for (const char* domain : {"\xff", "example.\xc3"}) {
      idn_errno = kUntouched;
      if (idn_toutf8(domain) != nullptr || idn_errno != 9) _exit(1);
    }
  });
  EXPECT_EQ(outcome.exit_code(), 0);
  EXPECT_EQ(outcome.out + outcome.err, "") << "nothing is logged";
}

TEST(IdnEmailToascii, ConvertsTheDomainOnly) {
  struct Row {
    const char* address;
    const char* ascii;
  };
  const Row rows[] = {{"user@b\u00fccher.example", "user@xn--bcher-kva.example"},
                      {"\u00fcser@b\u00fccher.example", "\u00fcser@xn--bcher-kva.example"},
                      {"User.Name+x@example.com", "User.Name+x@example.com"},
                      {"100%s@example.com", "100%s@example.com"},
                      {"@example.com", "@example.com"},
                      {"user@", "user@"},
                      {"@", "@"}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.address);
    EXPECT_STREQ(Owned(idn_email_toascii(row.address)).get(), row.ascii);
  }
}

TEST(IdnEmailToascii, TakesAnyLength) {
  const std::string local(10000, 'l');
  const Owned ascii(idn_email_toascii((local + "@b\u00fccher").c_str()));
  EXPECT_EQ(ascii.get(), local + "@xn--bcher-kva");
}

TEST(IdnEmailToascii, RefusesALocalPartLongerThanAFormattedTextCanBe) {
  const EndlessText address("@host");
  ASSERT_NE(address.get(), nullptr);
  const Outcome outcome = in_child([&address] {
    const char* just_too_long = address.get() + EndlessText::kLetters - INT_MAX - 1;
    for (const char* text : {address.get(), just_too_long}) {
      idn_errno = kUntouched;
      if (idn_email_toascii(text) != nullptr) _exit(1);
      if (idn_errno != 5) _exit(2);
    }
  });
  EXPECT_EQ(outcome.exit_code(), 0);
  EXPECT_EQ(outcome.out + outcome.err, "");
}

TEST(IdnEmailToascii, GivesNullSilentlyWithoutAnAt) {
  const Outcome outcome = in_child([] {
    for (const char* address : {"user", "", "b\u00fccher.example", "\xff"}) {
      idn_errno = kUntouched;
      if (idn_email_toascii(address) != nullptr || idn_errno != kUntouched) _exit(1);
    }
  });
  EXPECT_EQ(outcome.exit_code(), 0);
  EXPECT_EQ(outcome.out + outcome.err, "");
}

TEST(IdnEmailToascii, TakesAllBehindTheFirstAtForTheDomain) {
  EXPECT_STREQ(Owned(idn_email_toascii("a@b@\u00fc")).get(), "a@xn--b@-yka");
  EXPECT_STREQ(Owned(idn_email_toascii("a@b\u00fc@c")).get(), "a@xn--b@c-hoa");
  EXPECT_STREQ(Owned(idn_email_toascii("a@b@c")).get(), "a@b@c");
}

TEST(IdnEmailToascii, WritesNullForADomainThatCannotBeConverted) {
  const Outcome outcome = in_child([] {
    for (const Failure& failure : kFailures) {
      idn_errno = kUntouched;
      const Owned ascii(idn_email_toascii(("user@" + failure.domain).c_str()));
      if (strcmp(ascii.get(), "user@(null)") != 0 || idn_errno != failure.code)
        printf("%s: %s and %d\n", failure.domain.c_str(), ascii.get(), idn_errno);
    }
  });
  EXPECT_EQ(outcome.exit_code(), 0);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err, "") << "nothing is logged";
}

TEST(IdnEmailToasciiSafe, ConvertsAsThePlainRoutineDoes) {
  const Outcome outcome = in_child([] {
    const Owned converted(idn_email_toascii_safe("user@b\u00fccher"));
    const Owned failed(idn_email_toascii_safe("user@a..b"));
    if (strcmp(converted.get(), "user@xn--bcher-kva") != 0) _exit(1);
    if (strcmp(failed.get(), "user@(null)") != 0 || idn_errno != 5) _exit(2);
  });
  EXPECT_EQ(outcome.exit_code(), 0);
  EXPECT_EQ(outcome.out + outcome.err, "");
}

TEST(IdnEmailToasciiSafe, ReportsTheFailureOfAnEarlierConversion) {
  const auto report = [](bool after_a_failure) {
    return in_child([after_a_failure] {
      PROGNAME = "tembrix";
      if (after_a_failure) idn_toascii("a..b");
      errno = 0;
      idn_email_toascii_safe("user");
      _exit(99);
    });
  };
  const Outcome after = report(true);
  EXPECT_EQ(after.err, "tembrix: idn_email_toascii_safe(user) failed: Invalid length\n");
  EXPECT_EQ(after.out, after.err);
  EXPECT_EQ(after.exit_code(), 1);
  const Outcome first = report(false);
  EXPECT_EQ(first.err, "tembrix: idn_email_toascii_safe(user) failed: Success\n");
  EXPECT_EQ(first.exit_code(), 1);
}

/// The text of each code that is known, null for all others.
const char* known_text(int code) {
  static const char* const texts[] = {
      "Success",          "Stringprep error", "Punycode error",       "Contains non-LDH characters",
      "Contains minus",   "Invalid length",   "ACE prefix not found", "Verify error",
      "ACE prefix found", "Iconv error"};
  if (code == 201) return "Cannot allocate buffer";
  return code >= 0 && code <= 9 ? texts[code] : nullptr;
}

TEST(IdnStrerror, KnowsTheTextOfEveryCode) {
  int known = 0;
  for (int code = -300; code <= 300; ++code) {
    SCOPED_TRACE(code);
    const char* text = known_text(code);
    if (text != nullptr) ++known;
    EXPECT_STREQ(idn_strerror(code), text != nullptr ? text : "Unknown error");
  }
  EXPECT_EQ(known, 11);
  for (const int code : {10, 200, 202, -1, 2147483647, -2147483647 - 1})
    EXPECT_STREQ(idn_strerror(code), "Unknown error") << code;
}

}  // namespace
