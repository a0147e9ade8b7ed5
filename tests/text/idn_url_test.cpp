#include <errno.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <locale.h>
#include <string.h>
#include <unistd.h>

#include <initializer_list>
#include <string>

#include "endless_text.h"
#include "log/messlog.h"
#include "support/child.h"
#include "text/idn.h"

namespace {

using testsupport::in_child;
using testsupport::Outcome;

/// Converts `url` and writes the result between brackets behind what was reported.
Outcome convert(const std::string& url) {
  return in_child([&url] {
    PROGNAME = "tembrix";
    errno = 0;
    const char* ascii = idn_url_toascii(url.c_str());
    printf("[%s]", ascii == nullptr ? "(null)" : ascii);
  });
}

struct Row {
  std::string url;
  std::string ascii;
};

void expect_conversions(std::initializer_list<Row> rows) {
  for (const Row& row : rows) {
    SCOPED_TRACE(row.url);
    const Outcome outcome = convert(row.url);
    EXPECT_EQ(outcome.out, "[" + row.ascii + "]");
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.exit_code(), 0);
  }
}

void expect_refusal(const std::string& url) {
  const Outcome outcome = in_child([&url] {
    idn_errno = 77;
    errno = 0;
    if (idn_url_toascii(url.c_str()) != nullptr) _exit(1);
    if (idn_errno != 5) _exit(2);
  });
  EXPECT_EQ(outcome.err, "idn_toascii() failed: Invalid length\n");
  EXPECT_EQ(outcome.out, outcome.err);
  EXPECT_EQ(outcome.exit_code(), 0);
}

TEST(IdnUrlToascii, ConvertsTheHostAndKeepsTheRest) {
  expect_conversions(
      {{"b\u00fccher.example", "xn--bcher-kva.example"},
       {"http://b\u00fccher.example", "http://xn--bcher-kva.example"},
       {"https://b\u00fccher.example", "https://xn--bcher-kva.example"},
       {"ftp://b\u00fccher.example", "ftp://xn--bcher-kva.example"},
       {"https://m\u00fcller:pw@b\u00fccher.example/\u00fc?q=\u00fc",
        "https://m\u00fcller:pw@xn--bcher-kva.example/\u00fc?q=\u00fc"},
       {"m\u00fcller@b\u00fccher.example", "m\u00fcller@xn--bcher-kva.example"},
       {"http://b\u00fccher.example:8080/\u00fc", "http://xn--bcher-kva.example:8080/\u00fc"},
       {"b\u00fccher:80", "xn--bcher-kva:80"},
       {"http://b\u00fccher/a:b/c@", "http://xn--bcher-kva/a:b/c@"},
       {"http://b\u00fccher/\xff", "http://xn--bcher-kva/\xff"},
       {"http://b\u00fccher/a\nb", "http://xn--bcher-kva/a\nb"},
       {"http://example.com/100%n%s", "http://example.com/100%n%s"}});
}

TEST(IdnUrlToascii, TakesACapitalSchemeForTheHost) {
  // In the label with a letter that needs conversion, capitals are folded.
  expect_conversions({{"HTTP://B\u00dcCHER.example/", "HTTP://B\u00dcCHER.example/"},
                      {"Https://b\u00fccher/", "Https://b\u00fccher/"},
                      {"HTTP\u00dc://B\u00dcCHER/", "xn--http-3ra://B\u00dcCHER/"}});
}

TEST(IdnUrlToascii, TakesAnUnknownSchemeForTheHost) {
  expect_conversions({{"sftp://b\u00fccher/", "sftp://b\u00fccher/"},
                      {"http:/b\u00fccher/", "http:/b\u00fccher/"},
                      {"http://http://b\u00fccher", "http://http://b\u00fccher"},
                      {"http://", "http://"},
                      {"http:///b\u00fccher", "http:///b\u00fccher"}});
}

TEST(IdnUrlToascii, EndsTheUserPartAtTheFirstAt) {
  expect_conversions({{"a@b\u00fc@c/x", "a@xn--b@c-hoa/x"},
                      {"http://\u00fc/p@b\u00fccher/x", "http://\u00fc/p@xn--bcher-kva/x"},
                      {"http://@b\u00fccher", "http://xn--@bcher-4ya"},
                      {"user@/b\u00fccher", "user@/b\u00fccher"}});
}

TEST(IdnUrlToascii, ReportsAUrlThatDoesNotMatch) {
  for (const char* url : {"", "/path", ":80", "//host"}) {
    SCOPED_TRACE(url);
    const Outcome outcome = convert(url);
    EXPECT_EQ(outcome.err, "tembrix: regexec() failed: No match\n");
    EXPECT_EQ(outcome.out, outcome.err + "[(null)]");
    EXPECT_EQ(outcome.exit_code(), 0);
  }
}

TEST(IdnUrlToascii, ReportsAHostThatCannotBeConverted) {
  struct Refusal {
    const char* url;
    const char* text;
    int code;
  };
  const Refusal refusals[] = {{"http://a..b/", "Invalid length", 5},
                              {"http://user@xn--\u00fc/", "ACE prefix found", 8},
                              {"\u0378:80", "Stringprep error", 1},
                              {"http://\xff/", "Iconv error", 9}};
  for (const Refusal& failure : refusals) {
    SCOPED_TRACE(failure.url);
    const Outcome outcome = in_child([&failure] {
      errno = 0;
      if (idn_url_toascii(failure.url) != nullptr) _exit(1);
      if (idn_errno != failure.code) _exit(2);
    });
    EXPECT_EQ(outcome.err, std::string("idn_toascii() failed: ") + failure.text + "\n");
    EXPECT_EQ(outcome.out, outcome.err);
    EXPECT_EQ(outcome.exit_code(), 0);
  }
}

TEST(IdnUrlToascii, LeavesIdnErrnoAloneOtherwise) {
  const Outcome outcome = in_child([] {
    idn_errno = 77;
    if (idn_url_toascii("http://b\u00fccher/") == nullptr || idn_errno != 77) _exit(1);
    if (idn_url_toascii("/") != nullptr || idn_errno != 77) _exit(2);
  });
  EXPECT_EQ(outcome.exit_code(), 0);
}

TEST(IdnUrlToascii, OverwritesOneBuffer) {
  const char* one = idn_url_toascii("http://b\u00fccher/a/long/path");
  ASSERT_STREQ(one, "http://xn--bcher-kva/a/long/path");
  const char* two = idn_url_toascii("\u00fc/");
  EXPECT_EQ(one, two);
  EXPECT_STREQ(two, "xn--tda/");
}

TEST(IdnUrlToascii, RefusesAResultOfMoreThan4095Bytes) {
  const std::string head = "https://u@b\u00fccher/";
  const std::string converted = "https://u@xn--bcher-kva/";
  const size_t room = 4095 - converted.size();
  for (const size_t length : {room - 1, room}) {
    SCOPED_TRACE(length);
    const std::string path(length, 'p');
    expect_conversions({{head + path, converted + path}});
  }
  for (const size_t length : {room + 1, size_t{100000}}) {
    SCOPED_TRACE(length);
    expect_refusal(head + std::string(length, 'p'));
  }
}

TEST(IdnUrlToascii, RefusesAUrlWhoseUserOrHostFillsTheBuffer) {
  const std::string user(4090, 'u');
  expect_conversions({{user + "@host", user + "@host"}});
  expect_refusal(std::string(5000, 'u') + "@host/x");
  expect_refusal(user + "@host/x");
  expect_refusal(user + "@b\u00fccher");
}

TEST(IdnUrlToascii, RefusesAHostOfMoreThan4095Bytes) {
  std::string host;
  while (host.size() < 4080) host += "label.";
  host.resize(4095, 'x');
  expect_conversions({{host, host}});
  expect_refusal(host + "x");
  std::string growing;
  while (growing.size() < 4000) growing += "\u00fc.";
  expect_refusal(growing);
}

TEST(IdnUrlToascii, RefusesAUrlLongerThanAPatternCanBeMatchedWith) {
  const EndlessText url("/");
  ASSERT_NE(url.get(), nullptr);
  const Outcome outcome = in_child([&url] {
    alarm(60);  // regexec() would not return
    errno = 0;
    if (idn_url_toascii(url.get() + EndlessText::kLetters + 1 - INT_MAX) != nullptr) _exit(1);
    if (idn_errno != 5) _exit(2);
  });
  EXPECT_EQ(outcome.err, "idn_toascii() failed: Invalid length\n");
  EXPECT_EQ(outcome.exit_code(), 0);
}

TEST(IdnUrlToascii, ConvertsAgainAfterARefusal) {
  const Outcome outcome = in_child([] {
    if (idn_url_toascii(std::string(5000, 'h').c_str()) != nullptr) _exit(1);
    const char* ascii = idn_url_toascii("b\u00fccher/x");
    if (ascii == nullptr || strcmp(ascii, "xn--bcher-kva/x") != 0) _exit(2);
  });
  EXPECT_EQ(outcome.exit_code(), 0);
}

TEST(IdnUrlToascii, ConvertsAlikeInAUtf8Locale) {
  const Outcome outcome = in_child([] {
    if (setlocale(LC_ALL, "C.UTF-8") == nullptr) _exit(97);
    fputs(idn_url_toascii("https://m\u00fcller@b\u00fccher/\u00fc"), stdout);
  });
  EXPECT_EQ(outcome.out, "https://m\u00fcller@xn--bcher-kva/\u00fc");
}

}  // namespace
