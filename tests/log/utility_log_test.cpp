#include "log/utility_log.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

#include <string>

#include "log/call_logv.h"
#include "support/child.h"

namespace {

using testsupport::in_child;
using testsupport::Outcome;

/// The process's log mask; setlogmask(0) only asks.
int log_mask() {
  return setlogmask(0);
}

/// What both entry points write for `text` at `priority`; they must not differ.
Outcome logged(const char* location, int level, int priority, const char* text) {
  const auto with = [&](void (*write)(int, const char*, const char*)) {
    return in_child([&] {
      LogLocation = location;
      LogLevel = level;
      write(priority, "%s", text);
    });
  };
  Outcome plain = with([](int p, const char* format, const char* t) { frask_log(p, format, t); });
  const Outcome listed =
      with([](int p, const char* format, const char* t) { call_logv(p, format, t); });
  EXPECT_EQ(plain, listed);
  return plain;
}

TEST(UtilityLog, StartsAsATerminalLog) {
  EXPECT_EQ(frask_log, &_frask_utility_log);
  EXPECT_EQ(frask_logv, &_frask_utility_logv);
  EXPECT_EQ(LogLocation, nullptr);
  EXPECT_EQ(LogLevel, 6);
  EXPECT_EQ(LogOpts, 1U);
  EXPECT_EQ(LogFacility, 0x10);
  EXPECT_EQ(sizeof LogIdent, 64U);
  EXPECT_STREQ(LogIdent, "");
  EXPECT_EQ(sizeof LogTraceId, 64U);
  EXPECT_STREQ(LogTraceId, "");
  EXPECT_EQ(frask_log_get_opts(), 1U);
}

TEST(UtilityLog, WorksWithoutInitialisation) {
  const Outcome outcome = in_child([] { frask_log(LOG_INFO, "%s %d", "text", 7); });
  EXPECT_EQ(outcome.err, "text 7\n");
  EXPECT_EQ(outcome.out, "text 7\n");
}

TEST(UtilityLog, WritesPrioritiesUpToTheLevel) {
  for (const int level : {0, 3, 6, 7}) {
    for (const int priority : {-2147483647, -1, 0, 1, 2, 3, 4, 5, 6, 7, 8}) {
      SCOPED_TRACE("level " + std::to_string(level) + ", priority " + std::to_string(priority));
      const Outcome outcome = logged(nullptr, level, priority, "x");
      const char* line = priority <= level ? "x\n" : "";
      EXPECT_EQ(outcome.err, line);
      EXPECT_EQ(outcome.out, line);
    }
  }
}

TEST(UtilityLog, NeverWritesAPriorityWithAFacilityToTheTerminal) {
  for (const int priority : {LOG_USER | LOG_WARNING, LOG_USER | LOG_EMERG, LOG_MAIL | LOG_EMERG}) {
    SCOPED_TRACE(priority);
    const Outcome outcome = logged(nullptr, LOG_DEBUG, priority, "x");
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.out, "");
  }
  EXPECT_EQ(LOG_USER | LOG_WARNING, 12) << "the value that the configuration's reader passes";
}

TEST(UtilityLog, WritesWhereTheLocationSays) {
  struct Row {
    const char* location;
    const char* err;
    const char* out;
  };
  const Row rows[] = {
      {nullptr, "x\n", "x\n"},   {"console", "x\n", "x\n"}, {"CONSOLE", "x\n", "x\n"},
      {"cOnSoLe", "x\n", "x\n"}, {"stderr", "x\n", ""},     {"STDERR", "x\n", ""},
      {"StdErr", "x\n", ""},     {"file", "", ""},          {"", "", ""},
      {"consol", "", ""},        {"console2", "", ""},      {"stdout", "", ""},
      {" stderr", "", ""},       {"syslog", "", ""}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.location == nullptr ? "(null)" : row.location);
    const Outcome outcome = logged(row.location, 6, 3, "x");
    EXPECT_EQ(outcome.err, row.err);
    EXPECT_EQ(outcome.out, row.out);
  }
}

TEST(UtilityLog, WritesTheTextAndANewlineAndNothingElse) {
  EXPECT_EQ(logged(nullptr, 6, 3, "x\n").err, "x\n\n");
  EXPECT_EQ(logged(nullptr, 6, 3, "").out, "\n");
  const std::string text(100000, 'l');
  const Outcome outcome = in_child([&text] {
    errno = ENOENT;
    frask_log(3, "%s", text.c_str());
  });
  EXPECT_TRUE(outcome.err == text + "\n");
  EXPECT_TRUE(outcome.out == text + "\n");
}

TEST(UtilityLog, WritesAndFlushesStandardErrorFirst) {
  const Outcome outcome = in_child([] {
    dup2(STDOUT_FILENO, STDERR_FILENO);
    static char buffer[BUFSIZ];
    setvbuf(stderr, buffer, _IOFBF, sizeof buffer);
    fputs("[err]", stderr);
    fputs("[out]", stdout);
    frask_log(3, "x");
    _exit(0);  // nothing else is flushed
  });
  EXPECT_EQ(outcome.out, "[err]x\n[out]x\n");
}

TEST(UtilityLog, WritesTheSameMessageToStandardOutputAlthoughStandardErrorIsFull) {
  const char* format = "%s: %m";
  const Outcome outcome = in_child([format] {
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    if (full < 0 || dup2(full, STDERR_FILENO) < 0) _exit(97);
    errno = ENOENT;
    frask_log(3, format, "x");
  });
  EXPECT_EQ(outcome.out, std::string("x: ") + strerror(ENOENT) + "\n");
}

void ignore_log(int /*priority*/, const char* /*format*/, ...) {}
void ignore_logv(int /*priority*/, const char* /*format*/, va_list /*args*/) {}

TEST(FraskLogInit, ChoosesTheTerminalForALocation) {
  const Outcome outcome = in_child([] {
    frask_log = ignore_log;
    frask_logv = ignore_logv;
    frask_log_init("stderr", 4, LOG_LOCAL5, LOG_PERROR | FRASK_LOG_TRACE, "ident");
    frask_log(4, "%s", LogLocation);
    call_logv(4, "level %d, facility %d", LogLevel, LogFacility);
    call_logv(5, "above the level");
    frask_log(0, "opts %u, ident '%s', trace '%s'", frask_log_get_opts(), LogIdent, LogTraceId);
    frask_log(0, "%s", getenv("FRASK_LOG_TRACE_ID") == nullptr ? "not exported" : "exported");
  });
  EXPECT_EQ(outcome.err,
            "stderr\nlevel 4, facility 168\nopts 1, ident '', trace ''\nnot exported\n");
  EXPECT_EQ(outcome.out, "");
}

TEST(FraskLogInit, TakesTheTerminalLevelFromTheEnvironmentToo) {
  const Outcome outcome =
      in_child([] { frask_log_init("stderr", 8 | 3, 0, 0, nullptr), _exit(LogLevel); },
               {{}, {{"FRASK_LOG_LEVEL", "5"}}, {}});
  EXPECT_EQ(outcome.exit_code(), 5);
}

TEST(FraskLogSetLevel, TakesTheLowestThreeBits) {
  struct Row {
    int given;
    int level;
  };
  const Row rows[] = {{0, 0},     {1, 1},    {6, 6},    {7, 7},   {8, 0},
                      {8 | 3, 3}, {0x10, 0}, {0x35, 5}, {-16, 0}, {0x7ffffff6, 6}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.given);
    const Outcome outcome = in_child([&row] {
      unsetenv("FRASK_LOG_LEVEL");
      LogLevel = 2;
      frask_log_set_level(row.given);
      _exit(LogLevel);
    });
    EXPECT_EQ(outcome.exit_code(), row.level);
  }
}

TEST(FraskLogSetLevel, LetsTheEnvironmentRaiseTheLevelButNotLowerIt) {
  struct Row {
    int given;
    int level;
    const char* environment;
  };
  const Row rows[] = {{8 | 3, 6, "6"},   {8 | 3, 3, "2"},  {8 | 3, 3, "3"},  {8 | 3, 4, "4"},
                      {8 | 3, 7, "7"},   {8 | 0, 0, "0"},  {8 | 0, 1, "1"},  {8 | 7, 7, "0"},
                      {8 | 3, 3, "07"},  {8 | 3, 3, "70"}, {8 | 3, 3, "9"},  {8 | 3, 3, "8"},
                      {8 | 3, 3, ":"},   {8 | 3, 3, "/"},  {8 | 3, 3, "-1"}, {8 | 3, 3, ""},
                      {8 | 3, 3, " 6"},  {8 | 3, 3, "6 "}, {8 | 3, 3, "x"},  {3, 3, "6"},
                      {0x10 | 3, 3, "6"}};
  for (const Row& row : rows) {
    SCOPED_TRACE(std::to_string(row.given) + " with '" + row.environment + "'");
    const Outcome outcome = in_child(
        [&row] {
          frask_log_set_level(row.given);
          _exit(LogLevel);
        },
        {{}, {{"FRASK_LOG_LEVEL", row.environment}}, {}});
    EXPECT_EQ(outcome.exit_code(), row.level);
  }
}

TEST(FraskLogSetLevel, SetsTheMaskOfSyslogWithoutALocation) {
  for (int level = 0; level < 8; ++level) {
    SCOPED_TRACE(level);
    const Outcome outcome = in_child([level] {
      frask_log_set_level(level);
      _exit(log_mask());
    });
    EXPECT_EQ(outcome.exit_code(), (2 << level) - 1);
  }
  const Outcome raised = in_child([] { frask_log_set_level(8 | 3), _exit(log_mask()); },
                                  {{}, {{"FRASK_LOG_LEVEL", "5"}}, {}});
  EXPECT_EQ(raised.exit_code(), 0x3f);
}

TEST(FraskLogSetLevel, LeavesTheMaskOfSyslogAloneWithALocation) {
  const Outcome outcome = in_child([] {
    LogLocation = "console";
    frask_log_set_level(3);
    _exit(log_mask());
  });
  EXPECT_EQ(outcome.exit_code(), 0xff);
}

}  // namespace
