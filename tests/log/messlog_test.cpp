#include "log/messlog.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <libgen.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "support/child.h"

namespace {

using testsupport::in_child;
using testsupport::Outcome;

std::string system_error(int error) {
  return "\nSystem error " + std::to_string(error) + ": " + strerror(error);
}

/// What tembrix writes for a message that does not end in a newline.
std::string line_of(const std::string& message) {
  return "tembrix: " + message + "\n";
}

/// What `text` gives when it is reported with errno as `error`, by a program named tembrix.
Outcome report(const std::string& text, int error, int exit_code = 0, int level = 1) {
  return in_child([&] {
    PROGNAME = "/usr/sbin/tembrix";
    errno = error;
    messlog2(exit_code, level, "%s", text.c_str());
  });
}

/// The same bytes on both streams, and status 0. Long texts are not printed on failure.
void expect_on_both(const Outcome& outcome, const std::string& line) {
  EXPECT_TRUE(outcome.err == line)
      << "standard error has " << outcome.err.size() << " bytes, not " << line.size() << ": ..."
      << outcome.err.substr(outcome.err.size() - std::min<size_t>(outcome.err.size(), 80));
  EXPECT_TRUE(outcome.out == line)
      << "standard output has " << outcome.out.size() << " bytes, not " << line.size() << ": ..."
      << outcome.out.substr(outcome.out.size() - std::min<size_t>(outcome.out.size(), 80));
  EXPECT_EQ(outcome.exit_code(), 0);
}

void redirect(int fd, const char* path) {
  const int file = open(path, O_WRONLY | O_CLOEXEC);
  if (file < 0 || dup2(file, fd) < 0) _exit(97);
}

TEST(Messlog2, WritesTheMessageToBothStreams) {
  expect_on_both(report("x", 0), "tembrix: x\n");
}

TEST(Messlog2, FormatsItsValues) {
  const Outcome outcome = in_child([] {
    errno = 0;
    messlog2(0, 1, "%s of %d%% at %c", "half", 50, '@');
  });
  expect_on_both(outcome, "half of 50% at @\n");
}

TEST(Messlog2, AddsTheSystemErrorWhileErrnoIsSet) {
  for (const int error : {ENOENT, EACCES, ENOMEM, EHWPOISON, 9999, -1}) {
    SCOPED_TRACE(error);
    expect_on_both(report("x", error), line_of("x" + system_error(error)));
  }
}

TEST(Messlog2, WritesTheTextOfTheSystemError) {
  expect_on_both(report("x", 2), "tembrix: x\nSystem error 2: No such file or directory\n");
}

TEST(Messlog2, AddsNoSecondNewline) {
  expect_on_both(report("x\n", 0), "tembrix: x\n");
  expect_on_both(report("x\n\n", 0), "tembrix: x\n\n");
  expect_on_both(report("\n", 0), "tembrix: \n");
}

TEST(Messlog2, LeavesAnEmptyLineBetweenATextEndingInANewlineAndTheSystemError) {
  expect_on_both(report("x\n", 2), "tembrix: x\n" + system_error(2) + "\n");
}

TEST(Messlog2, LosesTheSystemErrorWhenItDoesNotFitWhole) {
  for (const int error : {EPERM, ENOENT, EACCES, ENOTEMPTY, EILSEQ, 12345678}) {
    const std::string suffix = system_error(error);
    const size_t last = 4095 - suffix.size();  // of this length a message still has it
    for (const size_t length : {size_t{1}, last - 1, last}) {
      SCOPED_TRACE("errno " + std::to_string(error) + ", length " + std::to_string(length));
      const std::string text(length, 'm');
      expect_on_both(report(text, error), line_of(text + suffix));
    }
    for (const size_t length : {last + 1, last + 2, last + suffix.size() - 1, size_t{4095},
                                size_t{4096}, size_t{4097}, size_t{5000}, size_t{100000}}) {
      SCOPED_TRACE("errno " + std::to_string(error) + ", length " + std::to_string(length));
      const std::string text(length, 'm');
      expect_on_both(report(text, error), line_of(text));
    }
  }
}

TEST(Messlog2, WritesALongMessageWhole) {
  for (const size_t length : {4094U, 4095U, 4096U, 4097U, 5000U, 3000000U}) {
    SCOPED_TRACE(length);
    const std::string text = std::string(length - 1, 'm') + "e";
    expect_on_both(report(text, 0), line_of(text));
  }
}

TEST(Messlog2, AddsNoSecondNewlineToALongMessage) {
  const std::string text = std::string(5000, 'm') + "\n";
  expect_on_both(report(text, 2), "tembrix: " + text);
}

TEST(Messlog2, EndsTheProcessThroughExitWithTheExitCode) {
  for (const int exit_code : {1, 2, 77, 255}) {
    SCOPED_TRACE(exit_code);
    const Outcome outcome = in_child([exit_code] {
      static_cast<void>(atexit([] { fputs("at exit\n", stderr); }));
      PROGNAME = "tembrix";
      errno = 0;
      messlog2(exit_code, 1, "over");
      fputs("still here\n", stderr);
    });
    EXPECT_EQ(outcome.exit_code(), exit_code);
    EXPECT_EQ(outcome.err, "tembrix: over\nat exit\n");
    EXPECT_EQ(outcome.out, "tembrix: over\n");
  }
}

TEST(Messlog2, TakesNoNoticeOfTheLevel) {
  for (const int level : {-1, 0, 1, 7, 1000}) {
    SCOPED_TRACE(level);
    EXPECT_EQ(report("x", 2, 0, level), report("x", 2, 0, 1));
    EXPECT_EQ(report("x", 2, 3, level), report("x", 2, 3, 1));
  }
}

TEST(Messlog2, LeavesErrnoAsItWas) {
  const Outcome outcome = in_child([] {
    redirect(STDOUT_FILENO, "/dev/full");  // a flush sets errno to ENOSPC
    for (const int error : {0, ENOENT, EINTR}) {
      errno = error;
      messlog2(0, 1, "%s", std::string(5000, 'm').c_str());
      if (errno != error) _exit(1);
    }
  });
  EXPECT_EQ(outcome.exit_code(), 0);
}

TEST(Messlog2, GivesTheFormatTheErrnoOfTheCall) {
  const char* format = "%m%*s";
  const Outcome outcome = in_child([format] {
    errno = ENOENT;
    messlog2(0, 1, format, 0, "");
    messlog2(0, 1, format, 5000, "");
  });
  const std::string text = strerror(ENOENT);
  expect_on_both(outcome,
                 text + system_error(ENOENT) + "\n" + text + std::string(5000, ' ') + "\n");
}

TEST(Messlog2, WritesAnEmptyLineForAFormatThatFails) {
  const char* too_wide = "lost%2147483648d";
  const Outcome outcome = in_child([too_wide] {
    errno = 0;
    messlog2(0, 1, too_wide, 1);
    errno = ENOENT;
    messlog2(0, 1, too_wide, 1);
  });
  expect_on_both(outcome, "\n" + system_error(ENOENT) + "\n");
}

void call_vmesslog2(int exit_code, int level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  vmesslog2(exit_code, level, format, args);
  va_end(args);
}

TEST(VMesslog2, ReportsAsMesslog2Does) {
  const std::string text(5000, 'm');
  const Outcome outcome = in_child([&text] {
    PROGNAME = "tembrix";
    errno = ENOENT;
    call_vmesslog2(0, 1, "%d %s", 1, "short");
    call_vmesslog2(0, 1, "%d %s", 2, text.c_str());
    call_vmesslog2(9, 1, "%d %s", 3, "last");
  });
  const std::string lines = "tembrix: 1 short" + system_error(ENOENT) + "\ntembrix: 2 " + text +
                            "\ntembrix: 3 last" + system_error(ENOENT) + "\n";
  EXPECT_EQ(outcome.err, lines);
  EXPECT_EQ(outcome.out, lines);
  EXPECT_EQ(outcome.exit_code(), 9);
}

TEST(ExMesslog, ReturnsZeroForExitCodeZero) {
  const Outcome outcome = in_child([] {
    if (ex_messlog("x", 0, 1) != 0) _exit(1);
  });
  expect_on_both(outcome, "x\n");
}

TEST(ExMesslog, EndsTheProcessWithAnyOtherExitCode) {
  const Outcome outcome = in_child([] {
    ex_messlog("x", 42, 0);
    _exit(1);
  });
  EXPECT_EQ(outcome.exit_code(), 42);
  EXPECT_EQ(outcome.err, "x\n");
  EXPECT_EQ(outcome.out, "x\n");
}

TEST(ExMesslog, AddsNoSystemError) {
  const Outcome outcome = in_child([] {
    errno = ENOENT;
    ex_messlog("x", 0, 1);
  });
  expect_on_both(outcome, "x\n");
}

TEST(ExMesslog, WritesTheTextAsItIs) {
  const Outcome outcome = in_child([] {
    PROGNAME = "%d";
    ex_messlog("100%n%s%", 0, 1);
  });
  expect_on_both(outcome, "%d: 100%n%s%\n");
}

TEST(ExMesslog, WritesANewlineForAnEmptyText) {
  static const char text[] = "\n";  // what stands before an empty text must not count
  expect_on_both(in_child([] { ex_messlog(&text[1], 0, 1); }), "\n");
}

TEST(ExMesslog, WritesNoPrefixWithoutAProgramName) {
  const Outcome outcome = in_child([] {
    PROGNAME = nullptr;
    ex_messlog("x", 0, 1);
    ex_messlog("y\n", 0, 1);
  });
  expect_on_both(outcome, "x\ny\n");
}

TEST(ExMesslog, PutsTheBaseNameOfTheProgramInFront) {
  struct Row {
    const char* program;
    const char* prefix;
  };
  const Row rows[] = {{"/usr/sbin/tembrix", "tembrix: "},
                      {"tembrix", "tembrix: "},
                      {"./tembrix", "tembrix: "},
                      {"tembrix/", "tembrix: "},
                      {"/usr/sbin//tembrix//", "tembrix: "},
                      {"a b/c d", "c d: "},
                      {"..", "..: "},
                      {"/", "/: "},
                      {"///", "/: "},
                      {"", ".: "}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.program);
    std::string copy = row.program;
    EXPECT_EQ(std::string(__xpg_basename(copy.data())) + ": ", row.prefix) << "what POSIX says";
    const Outcome outcome = in_child([&row] {
      PROGNAME = row.program;
      ex_messlog("x", 0, 1);
      ex_messlog("y", 0, 1);
    });
    expect_on_both(outcome, std::string(row.prefix) + "x\n" + row.prefix + "y\n");
  }
}

TEST(ExMesslog, WritesAndFlushesStandardErrorFirst) {
  const Outcome outcome = in_child([] {
    dup2(STDOUT_FILENO, STDERR_FILENO);
    static char buffer[BUFSIZ];
    setvbuf(stderr, buffer, _IOFBF, sizeof buffer);
    fputs("[err]", stderr);
    fputs("[out]", stdout);
    ex_messlog("x", 0, 1);
    _exit(0);  // nothing else is flushed
  });
  EXPECT_EQ(outcome.out, "[err]x\n[out]x\n");
}

TEST(ExMesslog, WritesStandardErrorAlthoughStandardOutputIsFull) {
  const Outcome outcome = in_child([] {
    redirect(STDOUT_FILENO, "/dev/full");
    ex_messlog("x", 0, 1);
    ex_messlog("y", 5, 1);
  });
  EXPECT_EQ(outcome.err, "x\ny\n");
  EXPECT_EQ(outcome.exit_code(), 5);
}

TEST(ExMesslog, WritesOneStreamAlthoughTheOtherIsClosed) {
  const Outcome without_out = in_child([] {
    close(STDOUT_FILENO);
    ex_messlog("x", 5, 1);
  });
  EXPECT_EQ(without_out.err, "x\n");
  EXPECT_EQ(without_out.exit_code(), 5);
  const Outcome without_err = in_child([] {
    close(STDERR_FILENO);
    ex_messlog("x", 5, 1);
  });
  EXPECT_EQ(without_err.out, "x\n");
  EXPECT_EQ(without_err.exit_code(), 5);
}

}  // namespace
