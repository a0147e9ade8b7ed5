#include "conf/oxaconf.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stdint.h>
#include <string.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "conf_table.h"
#include "log/messlog.h"
#include "log_recorder.h"
#include "panel.h"
#include "support/allocations.h"
#include "support/child.h"
#include "support/scratch.h"

using testsupport::FailingAllocation;
using testsupport::in_child;
using testsupport::live_blocks;
using testsupport::Outcome;
using testsupport::write_file;

namespace {

struct Variable {
  int index;
  const char* name;
  const char* fallback;
};

const std::vector<Variable> kVariables = {
    {OXA_CONF_MIN, "_MIN_POSSIBLE_OXA_CONF_VAR_NAME", "_MIN_POSSIBLE_OXA_CONF_VAR_VALUE"},
    {OXA_CONF_FRASK_MAILNAMES_D, "FRASK_MAILNAMES_D", "/var/qmail/mailnames"},
    {OXA_CONF_RBLSMTPD, "RBLSMTPD", "/usr/sbin/rblsmtpd"},
    {OXA_CONF_CLIENT_PHP_BIN, "CLIENT_PHP_BIN", "/usr/local/oxa/bin/php-cli"},
    {OXA_CONF_LIB_CRYPTO_PATH, "LIB_CRYPTO_PATH", "/lib/libcrypto.so"},
    {OXA_CONF_LIB_SSL_PATH, "LIB_SSL_PATH", "/lib/libssl.so"},
    {OXA_CONF_AWSTATS_DOC_D, "AWSTATS_DOC_D", "/usr/share/awstats/wwwroot"},
    {OXA_CONF_AWSTATS_TOOLS_D, "AWSTATS_TOOLS_D", "/usr/share/awstats/tools"},
    {OXA_CONF_AWSTATS_BIN_D, "AWSTATS_BIN_D", "/usr/share/awstats/wwwroot/cgi-bin"},
    {OXA_CONF_AWSTATS_ETC_D, "AWSTATS_ETC_D", "/etc/awstats"},
    {OXA_CONF_MAILMAN_VAR_D, "MAILMAN_VAR_D", "/var/lib/mailman"},
    {OXA_CONF_MAILMAN_ROOT_D, "MAILMAN_ROOT_D", "/usr/lib/mailman"},
    {OXA_CONF_PGSQL_DATA_D, "PGSQL_DATA_D", "/var/lib/pgsql/data"},
    {OXA_CONF_PGSQL_BIN_D, "PGSQL_BIN_D", "/usr/bin"},
    {OXA_CONF_MYSQL_BIN_D, "MYSQL_BIN_D", "/usr/bin"},
    {OXA_CONF_MYSQL_VAR_D, "MYSQL_VAR_D", "/var/lib/mysql"},
    {OXA_CONF_WEB_STAT, "WEB_STAT", "/usr/bin/webalizer"},
    {OXA_CONF_DUMP_D, "DUMP_D", "/var/lib/oxa/dumps"},
    {OXA_CONF_DUMP_TMP_D, "DUMP_TMP_D", "/tmp"},
    {OXA_CONF_NAMED_RUN_ROOT_D, "NAMED_RUN_ROOT_D", "/var/named/chroot"},
    {OXA_CONF_HTTPD_BIN, "HTTPD_BIN", "/usr/sbin/httpd"},
    {OXA_CONF_HTTPD_SERVICE, "HTTPD_SERVICE", "httpd"},
    {OXA_CONF_HTTPD_LOG_D, "HTTPD_LOG_D", "/var/log/httpd"},
    {OXA_CONF_HTTPD_INCLUDE_D, "HTTPD_INCLUDE_D", "/etc/httpd/conf.d"},
    {OXA_CONF_HTTPD_CONF_D, "HTTPD_CONF_D", "/etc/httpd/conf"},
    {OXA_CONF_HTTPD_VHOSTS_D, "HTTPD_VHOSTS_D", "/var/www/vhosts"},
    {OXA_CONF_MYSQL_SOCKET, "MYSQL_SOCKET", "/var/lib/mysql/mysql.sock"},
    {OXA_CONF_SA_MAX_MAIL_SIZE, "SA_MAX_MAIL_SIZE", "256000"},
    {OXA_CONF_SNI_SUPPORT, "SNI_SUPPORT", "true"},
    {OXA_CONF_PRODUCT_ROOT_D, "PRODUCT_ROOT_D", "/usr/local/oxa"},
    {OXA_CONF_MAX, "_MAX_POSSIBLE_OXA_CONF_VAR_NAME", "_MAX_POSSIBLE_OXA_CONF_VAR_VALUE"},
};

LogLine found_neither(const std::string& name) {
  return {3, "variable '" + name +
                 "' was found neither in /etc/oxa/oxa.conf, nor in compile-time defaults"};
}

}  // namespace

TEST(TheOxaConfTables, NameEveryVariableAndItsDefaultByIndex) {
  ASSERT_EQ(kVariables.size(), 31U);
  for (size_t i = 0; i < kVariables.size(); ++i) {
    SCOPED_TRACE(kVariables[i].name);
    EXPECT_EQ(kVariables[i].index, static_cast<int>(i));
    EXPECT_STREQ(theOxaConfNames[i], kVariables[i].name);
    EXPECT_STREQ(theOxaConfDefauls[i], kVariables[i].fallback);
  }
}

TEST(TheOxaConfTables, EndInNull) {
  EXPECT_EQ(theOxaConfNames[31], nullptr);
  EXPECT_EQ(theOxaConfDefauls[31], nullptr);
  EXPECT_EQ(sizeof theOxaConfNames / sizeof theOxaConfNames[0], 32U);
  EXPECT_EQ(sizeof theOxaConfDefauls / sizeof theOxaConfDefauls[0], 32U);
}

TEST(TheOxaConfTables, AreDocumented) {
  const std::string page = testsupport::read_file(TEMBRIX_DOCS "/configuration.md");
  for (const Variable& variable : kVariables) {
    if (variable.index == OXA_CONF_MIN || variable.index == OXA_CONF_MAX) continue;
    const std::string row = "| " + std::to_string(variable.index) + " | `" + variable.name +
                            "` | `" + variable.fallback + "` |\n";
    EXPECT_NE(page.find(row), std::string::npos) << row;
  }
}

TEST(Autoprepend, LoadsTheProductConfiguration) {
  in_panel([] {
    write_file(kConfigurationFile, "HTTPD_VHOSTS_D /srv/www\nOWN_NAME x\n");
    EXPECT_EQ(theOxaConfHash, nullptr);
    EXPECT_EQ(autoprepend(), 0);
    ASSERT_NE(theOxaConfHash, nullptr);
    EXPECT_STREQ(conf_get_r("HTTPD_VHOSTS_D", theOxaConfHash), "/srv/www");
    EXPECT_STREQ(oxaConfGet("OWN_NAME"), "x");
  });
}

TEST(Autoprepend, LoadsOnce) {
  in_panel([] {
    write_file(kConfigurationFile, "SNI_SUPPORT false\n");
    ASSERT_EQ(autoprepend(), 0);
    const ConfR* loaded = theOxaConfHash;
    write_file(kConfigurationFile, "SNI_SUPPORT changed\n");
    EXPECT_EQ(autoprepend(), 0);
    EXPECT_EQ(theOxaConfHash, loaded);
    EXPECT_STREQ(oxaConfGet("SNI_SUPPORT"), "false");
    std::filesystem::remove(kConfigurationFile);
    EXPECT_EQ(autoprepend(), 0);
  });
}

TEST(Autoprepend, LeavesNothingBehindButErrnoWhenTheFileCannotBeRead) {
  struct Row {
    const char* what;
    std::function<void()> make;
    int error;
  };
  const std::vector<Row> rows = {
      {"no file", [] {}, ENOENT},
      {"a directory", [] { std::filesystem::create_directories(kConfigurationFile); }, EISDIR},
      {"a link to itself", [] { ASSERT_EQ(symlink(kConfigurationFile, kConfigurationFile), 0); },
       ELOOP},
      {"no rights",
       [] {
         write_file(kConfigurationFile, "SNI_SUPPORT false\n", 0);
         ASSERT_EQ(setuid(65534), 0);
       },
       EACCES},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    in_panel([&row] {
      row.make();
      const LogRecorder log;
      errno = EXDEV;
      EXPECT_EQ(autoprepend(), -1);
      EXPECT_EQ(errno, row.error);
      EXPECT_EQ(theOxaConfHash, nullptr);
      EXPECT_EQ(log.lines().size(), 1U);
      errno = EXDEV;
      EXPECT_EQ(oxaConfGet("SNI_SUPPORT"), nullptr);
      EXPECT_EQ(errno, row.error);
      errno = EXDEV;
      EXPECT_STREQ(oxaConfGetDefaultByIndex(OXA_CONF_SNI_SUPPORT), "true");
      EXPECT_EQ(errno, row.error);
    });
  }
}

TEST(Autoprepend, GivesEnomemWhicheverAllocationFails) {
  in_panel([] {
    write_file(kConfigurationFile, "SNI_SUPPORT false\n");
    int failures = 0;
    for (unsigned long number = 1;; ++number) {
      const LogRecorder log;
      const FailingAllocation failure(number);
      errno = EXDEV;
      const int result = autoprepend();
      const int error = errno;
      if (!FailingAllocation::happened()) break;
      if (result == 0) {  // the stream does without a buffer of its own where it gets none
        conf_free_r(std::exchange(theOxaConfHash, nullptr));
        continue;
      }
      ++failures;
      ASSERT_EQ(error, ENOMEM) << "allocation " << number;
      ASSERT_EQ(theOxaConfHash, nullptr);
    }
    EXPECT_EQ(failures, 6) << "the table, its slots, the stream, the line, and two strings";
  });
}

TEST(Autoprepend, FreesTheTableOfAFailedLoad) {
  in_panel([] {
    const long before = live_blocks();
    const int result = autoprepend();
    const long after = live_blocks();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(after, before);
  });
}

TEST(Autoprepend, ReportsThatThereIsNoMemoryForTheTable) {
  in_panel([] {
    write_file(kConfigurationFile, "SNI_SUPPORT false\n");
    const LogRecorder log;
    {
      const FailingAllocation failure(1);
      errno = EXDEV;
      EXPECT_EQ(autoprepend(), -1);
      EXPECT_EQ(errno, ENOMEM) << "the log's own errno is not the loader's";
    }
    EXPECT_EQ(theOxaConfHash, nullptr);
    EXPECT_EQ(log.lines(),
              (std::vector<LogLine>{
                  {3, "Not enough memory to allocate Frask runtime configuration structure"}}));
    EXPECT_EQ(autoprepend(), 0) << "there is memory now";
  });
}

TEST(OxaConfGet, LoadsTheFileOnDemand) {
  in_panel([] {
    write_file(kConfigurationFile, "HTTPD_VHOSTS_D /srv/www\n");
    EXPECT_STREQ(oxaConfGet("HTTPD_VHOSTS_D"), "/srv/www");
    EXPECT_NE(theOxaConfHash, nullptr);
    EXPECT_EQ(oxaConfGet("MYSQL_SOCKET"), nullptr) << "a default is not the file's";
  });
}

TEST(OxaConfGet, TriesAgainAfterAFailedLoad) {
  in_panel([] {
    EXPECT_EQ(oxaConfGet("HTTPD_VHOSTS_D"), nullptr);
    write_file(kConfigurationFile, "HTTPD_VHOSTS_D /srv/www\n");
    EXPECT_STREQ(oxaConfGet("HTTPD_VHOSTS_D"), "/srv/www");
  });
}

TEST(OxaConfGetByIndex, GivesEveryVariableOfTheFile) {
  in_panel([] {
    std::string content;
    for (const Variable& variable : kVariables)
      content += std::string(variable.name) + " own-" + variable.name + "\n";
    write_file(kConfigurationFile, content);
    for (const Variable& variable : kVariables) {
      SCOPED_TRACE(variable.name);
      EXPECT_EQ(oxaConfGetByIndex(variable.index), std::string("own-") + variable.name);
      EXPECT_EQ(oxaConfGetDefaultByIndex(variable.index), std::string("own-") + variable.name);
    }
  });
}

TEST(OxaConfGetByIndex, KeepsWhatItFound) {
  in_panel([] {
    write_file(kConfigurationFile, "SNI_SUPPORT false\n");
    const char* found = oxaConfGetByIndex(OXA_CONF_SNI_SUPPORT);
    ASSERT_STREQ(found, "false");
    ConfR* loaded = theOxaConfHash;
    const ConfTable other = new_table();
    ASSERT_EQ(conf_set_r("SNI_SUPPORT", "other", other.get()), 0);
    theOxaConfHash = other.get();
    EXPECT_STREQ(oxaConfGet("SNI_SUPPORT"), "other");
    EXPECT_EQ(oxaConfGetByIndex(OXA_CONF_SNI_SUPPORT), found);
    EXPECT_EQ(oxaConfGetDefaultByIndex(OXA_CONF_SNI_SUPPORT), found);
    theOxaConfHash = loaded;
  });
}

TEST(OxaConfGetByIndex, DoesNotKeepThatItFoundNothing) {
  in_panel([] {
    EXPECT_EQ(oxaConfGetByIndex(OXA_CONF_SNI_SUPPORT), nullptr) << "no file";
    write_file(kConfigurationFile, "WEB_STAT x\n");
    EXPECT_EQ(oxaConfGetByIndex(OXA_CONF_SNI_SUPPORT), nullptr) << "not in the file";
    ASSERT_EQ(conf_set_r("SNI_SUPPORT", "late", theOxaConfHash), 0);
    EXPECT_STREQ(oxaConfGetByIndex(OXA_CONF_SNI_SUPPORT), "late");
  });
}

TEST(OxaConfGetDefaultByIndex, FallsBackToTheCompiledInDefaults) {
  in_panel([] {
    for (const Variable& variable : kVariables) {
      SCOPED_TRACE(variable.name);
      EXPECT_STREQ(oxaConfGetDefaultByIndex(variable.index), variable.fallback);
    }
    EXPECT_EQ(oxaConfGet("HTTPD_VHOSTS_D"), nullptr);
    write_file(kConfigurationFile, "WEB_STAT x\n");
    EXPECT_STREQ(oxaConfGetDefaultByIndex(OXA_CONF_WEB_STAT), "x");
    EXPECT_STREQ(oxaConfGetDefaultByIndex(25), "/var/www/vhosts");
  });
}

TEST(OxaConfGetDefault, GivesTheFilesValueElseTheDefault) {
  in_panel([] {
    write_file(kConfigurationFile, "HTTPD_VHOSTS_D /srv/www\n");
    EXPECT_STREQ(oxaConfGetDefault("HTTPD_VHOSTS_D"), "/srv/www");
    for (const Variable& variable : kVariables) {
      if (variable.index == OXA_CONF_MAX || variable.index == OXA_CONF_HTTPD_VHOSTS_D) continue;
      EXPECT_STREQ(oxaConfGetDefault(variable.name), variable.fallback);
    }
  });
}

TEST(OxaConfGetDefault, FindsOnlyTheLowerSentinel) {
  in_panel([] {
    write_file(kConfigurationFile, "_MAX_POSSIBLE_OXA_CONF_VAR_NAME x\n");
    const LogRecorder log;
    EXPECT_STREQ(oxaConfGetDefault("_MIN_POSSIBLE_OXA_CONF_VAR_NAME"),
                 "_MIN_POSSIBLE_OXA_CONF_VAR_VALUE");
    EXPECT_EQ(log.lines(), std::vector<LogLine>{});
    EXPECT_EQ(oxaConfGetDefault("_MAX_POSSIBLE_OXA_CONF_VAR_NAME"), nullptr);
    EXPECT_EQ(log.lines(), std::vector<LogLine>{found_neither("_MAX_POSSIBLE_OXA_CONF_VAR_NAME")});
  });
}

TEST(OxaConfGetDefault, DoesNotKnowNamesOfTheFileAlone) {
  in_panel([] {
    write_file(kConfigurationFile, "OWN_NAME x\n");
    for (const char* name : {"OWN_NAME", "", "httpd_vhosts_d", "HTTPD_VHOSTS"}) {
      const LogRecorder log;
      EXPECT_EQ(oxaConfGetDefault(name), nullptr);
      EXPECT_EQ(log.lines(), std::vector<LogLine>{found_neither(name)});
    }
  });
}

TEST(OxaConfGetDefault, ReportsAnUnknownNameOnTheTerminal) {
  const Outcome outcome = in_panel([] { oxaConfGetDefault("NOPE"); });
  EXPECT_EQ(outcome.err, found_neither("NOPE").text + "\n");
  EXPECT_EQ(outcome.out, found_neither("NOPE").text + "\n");
}

TEST(ReallocSafe, AllocatesGrowsAndFrees) {
  const long before = live_blocks();
  auto* memory = static_cast<char*>(realloc_safe(nullptr, 4));
  ASSERT_NE(memory, nullptr);
  memcpy(memory, "abc", 4);
  memory = static_cast<char*>(realloc_safe(memory, 100000));
  ASSERT_NE(memory, nullptr);
  EXPECT_STREQ(memory, "abc");
  const Outcome outcome = in_child([memory] { exit(realloc_safe(memory, 0) == nullptr ? 7 : 8); });
  EXPECT_EQ(outcome.exit_code(), 7) << "size 0 is not exhaustion";
  EXPECT_EQ(outcome.err, "");
  free(memory);
  EXPECT_EQ(live_blocks(), before);
}

TEST(ReallocSafe, EndsTheProcessWhenMemoryIsExhausted) {
  const Outcome outcome = in_child([] {
    PROGNAME = "/usr/sbin/tool";
    void* memory = realloc_safe(nullptr, SIZE_MAX / 4);
    exit(memory == nullptr ? 8 : 9);
  });
  EXPECT_EQ(outcome.exit_code(), 1);
  EXPECT_EQ(outcome.out,
            "tool: alloc(4611686018427387903)\nSystem error 12: Cannot allocate memory\n");
}

TEST(ReallocSafe, ReportsTheSizeOnBothStreams) {
  const Outcome outcome = in_child([] {
    PROGNAME = nullptr;
    const FailingAllocation failure(1);
    void* memory = realloc_safe(nullptr, 12345);
    exit(memory == nullptr ? 8 : 9);
  });
  EXPECT_EQ(outcome.exit_code(), 1);
  EXPECT_EQ(outcome.err, "alloc(12345)\nSystem error 12: Cannot allocate memory\n");
  EXPECT_EQ(outcome.out, outcome.err);
}
