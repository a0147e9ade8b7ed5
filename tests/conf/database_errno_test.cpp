// What the database routines leave in errno, and thus what messlog2() prints behind their texts.
#include <errno.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>

#include <filesystem>
#include <string>
#include <vector>

#include "conf/database.h"
#include "panel_database.h"
#include "support/child.h"
#include "support/mariadb_server.h"

using testsupport::MariaDbServer;
using testsupport::Outcome;
using testsupport::write_file;

namespace {

/// What stands behind a text that a system call is the reason of.
std::string system_error(int number) {
  return "\nSystem error " + std::to_string(number) + ": " + strerror(number) + "\n";
}

void expect_on_both_streams(const Outcome& outcome, const std::string& text) {
  EXPECT_EQ(outcome.err, text);
  EXPECT_EQ(outcome.out, text);
}

/// Fails to connect with an older failure in errno.
void fail_to_connect() {
  errno = EXDEV;
  EXPECT_EQ(db_connect(), nullptr);
}

}  // namespace

TEST(DbConnect, GivesAConnectionAndClearsErrno) {
  const Outcome outcome = in_panel([] {
    const MariaDbServer server;
    write_shadow();
    errno = EXDEV;
    const Handle handle(db_connect());
    EXPECT_EQ(errno, 0) << "neither that of the missing files nor that of the waiting";
    ASSERT_TRUE(handle);
    ASSERT_EQ(mysql_query(handle.get(), "select @@character_set_client = 'utf8mb3'"), 0);
    MYSQL_RES* result = mysql_store_result(handle.get());
    EXPECT_STREQ(mysql_fetch_row(result)[0], "1");
    mysql_free_result(result);
  });
  expect_on_both_streams(outcome, "");
}

TEST(DbConnect, PrintsTheFailureAndGoesOn) {
  expect_on_both_streams(
      in_panel(fail_to_connect),
      "Unable to open admin password file: No such file or directory" + system_error(ENOENT));
}

TEST(DbConnect, PrintsNoSystemErrorBehindWhatTheServerSays) {
  struct Row {
    const char* what;
    const char* configuration;  ///< null where there is no such file
    const char* settings;
  };
  const std::vector<Row> rows = {
      {"neither file exists", nullptr, nullptr},
      {"only the settings exist", nullptr, "username = admin\n"},
      {"only the configuration exists", "WEB_STAT x\n", nullptr},
      {"both exist", "WEB_STAT x\n",
       "host = localhost\nport = 1\nusername = admin\ndbname = oxa\n"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    const Outcome outcome = in_panel([&row] {
      const MariaDbServer server;
      write_shadow("wrong\n");
      if (row.configuration != nullptr) write_file(kConfigurationFile, row.configuration);
      if (row.settings != nullptr) write_settings(row.settings);
      fail_to_connect();
    });
    expect_on_both_streams(outcome, kDenied + "\n");
  }
}

TEST(DbConnect, PrintsTheSystemErrorOfAServerThatIsDown) {
  const Outcome outcome = in_panel([] {
    write_file(kConfigurationFile, "MYSQL_SOCKET /var/lib/mysql/nobody.sock\n");
    write_shadow();
    write_file("/var/lib/mysql/nobody.sock", "no socket");
    fail_to_connect();
  });
  expect_on_both_streams(outcome,
                         "Unable to connect to Frask Database: Can't connect to local server "
                         "through socket '/var/lib/mysql/nobody.sock' (111)" +
                             system_error(ECONNREFUSED));
}

TEST(DbConnect, PrintsNoSystemErrorOfTheWaitingForAPort) {
  const Outcome outcome = in_panel([] {
    enter_private_network();
    write_shadow();
    write_settings("host = 127.0.0.1\nport = 1\n");
    fail_to_connect();
  });
  // The library's number is not always the same: it may be that of the waiting, too.
  const std::string text =
      "Unable to connect to Frask Database: Can't connect to server on '127.0.0.1' (";
  EXPECT_EQ(outcome.err.substr(0, text.size()), text);
  EXPECT_EQ(outcome.err.substr(outcome.err.size() - 2), ")\n");
  EXPECT_EQ(outcome.err.find("System error"), std::string::npos) << outcome;
  EXPECT_EQ(outcome.out, outcome.err);
}

TEST(DbConnect, PrintsNoSystemErrorOfTheSearchForAHost) {
  const std::string host = std::string(64, 'h') + ".invalid";  // no name server is asked for that
  const Outcome outcome = in_panel([&host] {
    write_shadow();
    write_settings("host = " + host + "\n");
    fail_to_connect();
  });
  expect_on_both_streams(
      outcome, "Unable to connect to Frask Database: Unknown server host '" + host + "' (-2)\n");
}

TEST(GetParam, ClearsErrnoWhenItGivesAValue) {
  in_panel([] {
    MariaDbServer server;
    write_shadow();
    server.execute("insert into misc values ('a', 'x')");
    const Handle connection(db_connect());
    struct Row {
      const char* name;
      MYSQL* connection;
      const char* value;
    };
    for (const Row& row : std::vector<Row>{{"a", connection.get(), "x"},
                                           {"b", connection.get(), ""},
                                           {"a", nullptr, "x"},
                                           {"b", nullptr, ""}}) {
      errno = EXDEV;
      const char* value = get_param(row.name, row.connection);
      const int error = errno;
      EXPECT_STREQ(value, row.value);
      EXPECT_EQ(error, 0);
      errno = EXDEV;
      const char* setting = get_mail_server_param("a", row.connection);
      const int mail_error = errno;
      EXPECT_STREQ(setting, "");
      EXPECT_EQ(mail_error, 0);
    }
  });
}

TEST(GetParam, PrintsNoSystemErrorBehindAQueryThatTheServerRefuses) {
  for (const bool own_connection : {true, false}) {
    SCOPED_TRACE(own_connection ? "own connection" : "the caller's connection");
    const Outcome outcome = in_panel([own_connection] {
      MariaDbServer server;
      server.execute("drop table misc, ServiceNodeConfiguration");
      write_shadow();
      const Handle connection(db_connect());
      errno = EXDEV;
      EXPECT_EQ(get_param("a", own_connection ? nullptr : connection.get()), nullptr);
      errno = EXDEV;
      EXPECT_EQ(get_mail_server_param("a", own_connection ? nullptr : connection.get()), nullptr);
    });
    expect_on_both_streams(
        outcome,
        "Unable to query parameter by query select val from misc where param='a': Table "
        "'oxa.misc' doesn't exist\n"
        "Unable to query domain parameter a: Table 'oxa.ServiceNodeConfiguration' doesn't exist\n");
  }
}

TEST(GetParam, PrintsTheFailureOfAConnectionThatIsGone) {
  const Outcome outcome = in_panel([] {
    MariaDbServer server;
    write_shadow();
    const Handle connection(db_connect());
    const Handle other(db_connect());
    server.stop();
    EXPECT_EQ(get_param("a", connection.get()), nullptr);
    EXPECT_EQ(get_mail_server_param("a", other.get()), nullptr);
  });
  expect_on_both_streams(outcome,
                         "Unable to query parameter by query select val from misc where param='a': "
                         "Server has gone away\n" +
                             system_error(EPIPE) +
                             "Unable to query domain parameter a: Server has gone away\n" +
                             system_error(EPIPE));
}

TEST(GetParam, PrintsNoOlderSystemErrorBehindAConnectionInUse) {
  const Outcome outcome = in_panel([] {
    const MariaDbServer server;
    write_shadow();
    const Handle connection(db_connect());
    ASSERT_EQ(mysql_query(connection.get(), "select 1"), 0) << "and nobody fetches its result";
    errno = EXDEV;
    EXPECT_EQ(get_param("a", connection.get()), nullptr);
    errno = EXDEV;
    EXPECT_EQ(get_mail_server_param("a", connection.get()), nullptr);
  });
  const std::string reason = "Commands out of sync; you can't run this command now\n";
  expect_on_both_streams(
      outcome, "Unable to query parameter by query select val from misc where param='a': " +
                   reason + "Unable to query domain parameter a: " + reason);
}
