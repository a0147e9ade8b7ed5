#include <errno.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <initializer_list>
#include <string>
#include <vector>

#include "log/call_logv.h"
#include "log/utility_log.h"
#include "support/child.h"
#include "support/scratch.h"
#include "support/syslog_socket.h"

namespace {

using testsupport::in_child_with_syslog;
using testsupport::open_descriptors;
using testsupport::RunOptions;
using testsupport::SyslogLine;
using testsupport::SyslogOutcome;

const RunOptions kWithTraceId{{}, {{"FRASK_LOG_TRACE_ID", "T4711"}}, {}};

std::vector<std::string> texts(const SyslogOutcome& outcome) {
  std::vector<std::string> result;
  for (const SyslogLine& line : outcome.lines) result.push_back(line.text);
  return result;
}

std::string words(std::initializer_list<std::string> list) {
  std::string text;
  for (const std::string& word : list) text += (text.empty() ? "" : " ") + word;
  return text;
}

using Texts = std::vector<std::string>;

TEST(FraskLogInit, ChoosesSyslogWithoutALocation) {
  const SyslogOutcome outcome = in_child_with_syslog([] {
    LogLocation = "console";
    LogFacility = LOG_LOCAL1;
    frask_log_init(nullptr, 5, LOG_MAIL, 0, "tembrix");
    frask_log(LOG_ERR, "%s %d", "one", 1);
    call_logv(LOG_NOTICE, "%s %d", "two", 2);
    printf("%d %d %s %d", getpid(), LogLevel, LogLocation == nullptr ? "null" : "set", LogFacility);
  });
  ASSERT_EQ(outcome.lines.size(), 2U) << outcome.child;
  const long pid = strtol(outcome.child.out.c_str(), nullptr, 10);
  EXPECT_EQ(outcome.lines[0], (SyslogLine{LOG_MAIL | LOG_ERR, "tembrix", pid, "one 1"}));
  EXPECT_EQ(outcome.lines[1], (SyslogLine{LOG_MAIL | LOG_NOTICE, "tembrix", pid, "two 2"}));
  EXPECT_EQ(outcome.child.out, std::to_string(pid) + " 5 null 16");
  EXPECT_EQ(outcome.child.err, "") << "nothing goes to the terminal";
}

TEST(FraskLogInit, FilesLinesUnderTheFacility) {
  for (const int facility : {LOG_MAIL, LOG_USER, LOG_DAEMON, LOG_LOCAL7}) {
    SCOPED_TRACE(facility);
    const SyslogOutcome outcome = in_child_with_syslog([facility] {
      frask_log_init(nullptr, 7, facility, 0, "tembrix");
      frask_log(LOG_DEBUG, "x");
    });
    ASSERT_EQ(outcome.lines.size(), 1U) << outcome.child;
    EXPECT_EQ(outcome.lines[0].priority, facility | LOG_DEBUG);
  }
}

TEST(FraskLogInit, DropsPrioritiesAboveTheLevel) {
  const SyslogOutcome outcome = in_child_with_syslog([] {
    frask_log_init(nullptr, 3, LOG_MAIL, 0, "tembrix");
    for (int priority = 0; priority < 8; ++priority) frask_log(priority, "%d", priority);
    frask_log_set_level(4);
    for (int priority = 3; priority < 8; ++priority) frask_log(priority, "again %d", priority);
  });
  EXPECT_EQ(texts(outcome), (Texts{"0", "1", "2", "3", "again 3", "again 4"})) << outcome.child;
}

TEST(FraskLogInit, TakesTheLevelFromTheEnvironmentToo) {
  const SyslogOutcome outcome = in_child_with_syslog(
      [] {
        frask_log_init(nullptr, 8 | 3, LOG_MAIL, 0, "tembrix");
        for (int priority = 3; priority < 8; ++priority) frask_log(priority, "%d", priority);
      },
      {{}, {{"FRASK_LOG_LEVEL", "5"}}, {}});
  EXPECT_EQ(texts(outcome), (Texts{"3", "4", "5"})) << outcome.child;
}

TEST(FraskLogInit, KeepsSixtyThreeCharactersOfTheIdentity) {
  const std::string ident = std::string(62, 'i') + "jkl";
  for (const size_t length : {1U, 62U, 63U, 64U, 65U}) {
    SCOPED_TRACE(length);
    const SyslogOutcome outcome = in_child_with_syslog([&] {
      frask_log_init(nullptr, 6, LOG_MAIL, 0, ident.substr(0, length).c_str());
      frask_log(3, "x");
      fputs(LogIdent, stdout);
    });
    ASSERT_EQ(outcome.lines.size(), 1U) << outcome.child;
    EXPECT_EQ(outcome.lines[0].ident, ident.substr(0, std::min<size_t>(length, 63)));
    EXPECT_EQ(outcome.child.out, outcome.lines[0].ident);
  }
}

TEST(FraskLogInit, TakesTheProgramsNameForTheIdentity) {
  const SyslogOutcome outcome = in_child_with_syslog([] {
    frask_log_init(nullptr, 6, LOG_MAIL, 0, nullptr);
    frask_log(3, "x");
  });
  ASSERT_EQ(outcome.lines.size(), 1U) << outcome.child;
  EXPECT_EQ(outcome.lines[0].ident, "log_tests");
}

TEST(FraskLogInit, KeepsTheOptionsWithLogPidAdded) {
  for (const unsigned options : {0x00U, 0x01U, 0x02U, 0x40U, 0x63U, 0xf0U}) {
    SCOPED_TRACE(options);
    const SyslogOutcome outcome = in_child_with_syslog([options] {
      frask_log_init(nullptr, 6, LOG_MAIL, options, "tembrix");
      frask_log(3, "x");
      printf("%d %u %u", getpid(), LogOpts, frask_log_get_opts());
    });
    const long pid = strtol(outcome.child.out.c_str(), nullptr, 10);
    const std::string kept = std::to_string(options | 1U);
    EXPECT_EQ(outcome.child.out, words({std::to_string(pid), kept, kept}));
    ASSERT_EQ(outcome.lines.size(), 1U) << outcome.child;
    EXPECT_EQ(outcome.lines[0].pid, pid) << "the process id stands in every line";
  }
}

TEST(FraskLogInit, PassesLogPerrorOn) {
  const auto log_one = [](unsigned options) {
    return in_child_with_syslog([options] {
      frask_log_init(nullptr, 6, LOG_MAIL, options, "tembrix");
      frask_log(3, "x");
      printf("tembrix[%d]: x\n", getpid());
    });
  };
  const SyslogOutcome with = log_one(LOG_PERROR);
  EXPECT_EQ(with.child.err, with.child.out);
  EXPECT_EQ(with.lines.size(), 1U);
  EXPECT_EQ(log_one(~static_cast<unsigned>(LOG_PERROR)).child.err, "");
}

TEST(FraskLogInit, PassesLogConsOn) {
  const auto log_without_a_listener = [](unsigned options) {
    return in_child_with_syslog([options] {
      if (unlink("/dev/log") != 0) _exit(97);
      frask_log_init(nullptr, 6, LOG_MAIL, options, "tembrix");
      frask_log(3, "for the console");
      fputs(testsupport::read_file("/dev/console").c_str(), stdout);
    });
  };
  const SyslogOutcome with = log_without_a_listener(LOG_CONS);
  EXPECT_NE(with.child.out.find("]: for the console"), std::string::npos) << with.child;
  const SyslogOutcome without = log_without_a_listener(~static_cast<unsigned>(LOG_CONS));
  EXPECT_EQ(without.child.out, "") << without.child;
  EXPECT_EQ(without.child.exit_code(), 0);
}

TEST(FraskLogInit, KeepsAllOtherOptionsPrivate) {
  const SyslogOutcome outcome = in_child_with_syslog([] {
    const std::vector<int> before = open_descriptors();
    frask_log_init(nullptr, 6, LOG_MAIL, ~0U, "tembrix");
    // LOG_NDELAY among them would have opened the connection by now.
    if (open_descriptors() != before) _exit(1);
    frask_log(3, "x");
    if (open_descriptors() == before) _exit(2);
  });
  EXPECT_EQ(outcome.child.exit_code(), 0);
  EXPECT_EQ(outcome.lines.size(), 1U);
}

TEST(FraskLogInit, ReopensSyslogWhenItIsCalledAgain) {
  const SyslogOutcome outcome = in_child_with_syslog([] {
    const std::vector<int> before = open_descriptors();
    frask_log_init(nullptr, 6, LOG_MAIL, 0, "first");
    frask_log(3, "one");
    frask_log_init(nullptr, 6, LOG_USER, 0, "second");
    if (open_descriptors() != before) _exit(1);
    frask_log(3, "two");
  });
  EXPECT_EQ(outcome.child.exit_code(), 0) << "the first connection is closed";
  ASSERT_EQ(outcome.lines.size(), 2U) << outcome.child;
  EXPECT_EQ(outcome.lines[0].ident, "first");
  EXPECT_EQ(outcome.lines[1].ident, "second");
  EXPECT_EQ(outcome.lines[1].priority, LOG_USER | 3);
}

TEST(FraskLogInit, MayBeGivenTheIdentityInForceAgain) {
  const SyslogOutcome outcome = in_child_with_syslog([] {
    frask_log_init(nullptr, 6, LOG_MAIL, 0, "tembrix");
    frask_log_init(nullptr, 6, LOG_MAIL, 0, LogIdent);
    frask_log(3, "one");
  });
  ASSERT_EQ(outcome.lines.size(), 1U) << outcome.child;
  EXPECT_EQ(outcome.lines[0].ident, "tembrix");
}

TEST(FraskLogInit, ReturnsFromSyslogToTheTerminal) {
  const SyslogOutcome outcome = in_child_with_syslog([] {
    frask_log_init(nullptr, 6, LOG_MAIL, 0, "tembrix");
    frask_log_init("stderr", 6, LOG_MAIL, 0, "tembrix");
    frask_log(3, "one");
    call_logv(3, "two");
  });
  EXPECT_EQ(outcome.child.err, "one\ntwo\n");
  EXPECT_TRUE(outcome.lines.empty());
}

TEST(FraskLogInit, TakesTheTraceIdentifierFromTheEnvironment) {
  const std::string long_id = std::string(62, 't') + "uvw";
  for (const size_t length : {1U, 62U, 63U, 64U, 65U}) {
    SCOPED_TRACE(length);
    const std::string id = long_id.substr(0, length);
    const SyslogOutcome outcome = in_child_with_syslog(
        [] {
          frask_log_init(nullptr, 6, LOG_MAIL, FRASK_LOG_TRACE, "tembrix");
          frask_log(3, "x");
          printf("%s %s", LogTraceId, getenv("FRASK_LOG_TRACE_ID"));
        },
        {{}, {{"FRASK_LOG_TRACE_ID", id}}, {}});
    EXPECT_EQ(outcome.child.out, words({id.substr(0, 63), id}));
    EXPECT_EQ(texts(outcome), Texts{id.substr(0, 63) + ": x"});
  }
}

/// Sets up a trace in a program of the given name and writes its identifier, the environment's and
/// the one that it should be.
SyslogOutcome make_trace_id(const char* program, const char* environment) {
  return in_child_with_syslog([program, environment] {
    if (environment == nullptr)
      unsetenv("FRASK_LOG_TRACE_ID");
    else
      setenv("FRASK_LOG_TRACE_ID", environment, 1);
    std::string name = program;
    program_invocation_short_name = name.data();
    frask_log_init(nullptr, 6, LOG_MAIL, FRASK_LOG_TRACE, "ident");
    frask_log(3, "x");
    printf("%s %s %d", LogTraceId, getenv("FRASK_LOG_TRACE_ID"), getpid());
  });
}

TEST(FraskLogInit, MakesATraceIdentifierOfTheProgramsInitialAndTheProcessId) {
  struct Row {
    const char* program;
    const char* environment;
    const char* initial;
  };
  const Row rows[] = {{"tembrix", nullptr, "T"}, {"tembrix", "", "T"}, {"Tool", nullptr, "T"},
                      {"zip", nullptr, "Z"},     {"9p", nullptr, "9"}, {"_x", nullptr, "_"}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.program);
    const SyslogOutcome outcome = make_trace_id(row.program, row.environment);
    const std::string pid = outcome.child.out.substr(outcome.child.out.rfind(' ') + 1);
    const std::string id = row.initial + pid;
    EXPECT_EQ(outcome.child.out, words({id, id, pid})) << "kept, and exported";
    EXPECT_EQ(texts(outcome), Texts{id + ": x"});
  }
}

TEST(FraskLogInit, MakesNoTraceIdentifierWithoutTheOption) {
  const SyslogOutcome outcome = in_child_with_syslog(
      [] {
        frask_log_init(nullptr, 6, LOG_MAIL, ~static_cast<unsigned>(FRASK_LOG_TRACE), "tembrix");
        frask_log(3, "x");
        fputs(LogTraceId, stdout);
        unsetenv("FRASK_LOG_TRACE_ID");
        frask_log_init(nullptr, 6, LOG_MAIL, 0, "tembrix");
        fputs(getenv("FRASK_LOG_TRACE_ID") == nullptr ? "not exported" : "exported", stdout);
      },
      kWithTraceId);
  EXPECT_EQ(outcome.child.out, "not exported");
  EXPECT_EQ(texts(outcome), Texts{"x"});
}

TEST(FraskLogInit, HandsTheTraceIdentifierToChildProcesses) {
  const SyslogOutcome outcome = in_child_with_syslog([] {
    unsetenv("FRASK_LOG_TRACE_ID");
    frask_log_init(nullptr, 6, LOG_MAIL, FRASK_LOG_TRACE, "parent");
    frask_log(LOG_INFO, "from the parent");
    fputs(LogTraceId, stdout);
    fflush(stdout);
    if (fork() == 0) {
      execl(TRACE_CHILD, TRACE_CHILD, nullptr);
      _exit(98);
    }
    int status = 0;
    if (wait(&status) < 0 || status != 0) _exit(1);
  });
  ASSERT_EQ(outcome.child.exit_code(), 0);
  ASSERT_EQ(outcome.lines.size(), 2U);
  const std::string id = "L" + std::to_string(outcome.lines[0].pid);
  EXPECT_EQ(outcome.child.out, id);
  EXPECT_EQ(outcome.lines[0].text, id + ": from the parent");
  EXPECT_EQ(outcome.lines[1].text, id + ": from the child");
  EXPECT_EQ(outcome.lines[1].ident, "child");
  EXPECT_NE(outcome.lines[1].pid, outcome.lines[0].pid);
}

TEST(UtilitySyslog, FilesAPriorityWithAFacilityUnderThatFacility) {
  const SyslogOutcome outcome = in_child_with_syslog([] {
    frask_log_init(nullptr, LOG_WARNING, LOG_MAIL, 0, "tembrix");
    frask_log(12, "x");
    frask_log_set_level(LOG_ERR);
    frask_log(12, "above the level");
  });
  ASSERT_EQ(outcome.lines.size(), 1U) << outcome.child;
  EXPECT_EQ(outcome.lines[0].priority, LOG_USER | LOG_WARNING);
  EXPECT_EQ(outcome.lines[0].text, "x");
}

TEST(UtilitySyslog, DoesNotLookAtTheTerminalsLevelAndLocation) {
  const SyslogOutcome outcome = in_child_with_syslog([] {
    LogLocation = "file";
    LogLevel = 0;
    _frask_utility_syslog(LOG_DEBUG, "%s", "x");
  });
  EXPECT_EQ(texts(outcome), Texts{"x"});
}

TEST(UtilitySyslog, WritesNoTraceWithoutTheOptionOrTheIdentifier) {
  const SyslogOutcome outcome = in_child_with_syslog(
      [] {
        frask_log_init(nullptr, 6, LOG_MAIL, FRASK_LOG_TRACE, "tembrix");
        frask_log(3, "a %s", "b");
        LogOpts = LOG_PID;
        frask_log(3, "c %s", "d");
        LogOpts = FRASK_LOG_TRACE;
        LogTraceId[0] = '\0';
        frask_log(3, "e %s", "f");
      },
      kWithTraceId);
  EXPECT_EQ(texts(outcome), (Texts{"T4711: a b", "c d", "e f"}));
}

TEST(UtilitySyslog, CutsATracedLineAt8191Bytes) {
  const std::string prefix = "T4711: ";
  const size_t room = 8191 - prefix.size();
  for (const size_t length : {room - 1, room, room + 1, size_t{20000}}) {
    SCOPED_TRACE(length);
    const std::string text(length, 'l');
    const SyslogOutcome outcome = in_child_with_syslog(
        [&text] {
          frask_log_init(nullptr, 6, LOG_MAIL, FRASK_LOG_TRACE, "tembrix");
          frask_log(3, "%s", text.c_str());
        },
        kWithTraceId);
    EXPECT_TRUE(texts(outcome) == Texts{prefix + text.substr(0, room)}) << outcome.child;
  }
}

TEST(UtilitySyslog, LeavesALineWithoutATraceWhole) {
  const std::string text(20000, 'l');
  const SyslogOutcome outcome = in_child_with_syslog([&text] {
    frask_log_init(nullptr, 6, LOG_MAIL, 0, "tembrix");
    frask_log(3, "%s", text.c_str());
  });
  EXPECT_TRUE(texts(outcome) == Texts{text}) << outcome.child;
}

TEST(UtilitySyslog, FormatsATracedLineOnce) {
  const char* format = "%s: %m";
  const SyslogOutcome outcome = in_child_with_syslog(
      [format] {
        frask_log_init(nullptr, 6, LOG_MAIL, FRASK_LOG_TRACE, "tembrix");
        errno = ENOENT;
        frask_log(3, format, "100%n%s");
        call_logv(3, "%s", "%d");
      },
      {{}, {{"FRASK_LOG_TRACE_ID", "%s"}}, {}});
  EXPECT_EQ(texts(outcome), (Texts{std::string("%s: 100%n%s: ") + strerror(ENOENT), "%s: %d"}));
}

}  // namespace
