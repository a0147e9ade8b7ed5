#include <gtest/gtest.h>
#include <stdio.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "conf/database.h"
#include "panel_database.h"
#include "support/allocations.h"
#include "support/child.h"
#include "support/mariadb_server.h"

using testsupport::live_blocks;
using testsupport::MariaDbOptions;
using testsupport::MariaDbServer;
using testsupport::open_descriptors;
using testsupport::Outcome;

namespace {

void set_misc(MariaDbServer& server, const std::string& param, const std::string& value) {
  server.execute("insert into misc values ('" + param + "', " + value + ")");
}

void set_mail(MariaDbServer& server, int node, const std::string& section, const std::string& name,
              const std::string& value) {
  server.execute("insert into ServiceNodeConfiguration values (" + std::to_string(node) + ", '" +
                 section + "', '" + name + "', " + value + ")");
}

constexpr const char* kConnectionsOfAdmin =
    "select count(*) from information_schema.processlist where user = 'admin'";

const std::string kNoServer =
    "Unable to connect to Frask Database: Can't connect to local server through socket "
    "'/var/lib/mysql/mysql.sock' (2)\n"
    "System error 2: No such file or directory\n";

/// As the message log writes a text that ends in a newline while errno is 2.
std::string with_system_error(const std::string& text) {
  return text + "\nSystem error 2: No such file or directory\n";
}

/// A value so long that the server sends the row, which it holds back for others to join it.
constexpr const char* kMoreThanIsHeldBack = "repeat('v', 100000)";

}  // namespace

TEST(GetParam, GivesTheValueOfARow) {
  in_panel([] {
    MariaDbServer server;
    write_shadow();
    set_misc(server, "size_count_type", "'byte'");
    set_misc(server, "other", "'x'");
    set_misc(server, "empty", "''");
    EXPECT_STREQ(get_param("size_count_type", nullptr), "byte");
    EXPECT_STREQ(get_param("other", nullptr), "x");
    EXPECT_STREQ(get_param("empty", nullptr), "");
  });
}

TEST(GetParam, GivesAnEmptyStringWithoutARowAndForNull) {
  in_panel([] {
    MariaDbServer server;
    write_shadow();
    set_misc(server, "nothing", "NULL");
    EXPECT_STREQ(get_param("absent", nullptr), "");
    EXPECT_STREQ(get_param("nothing", nullptr), "");
    EXPECT_STREQ(get_param(std::string(10000, 'n').c_str(), nullptr), "") << "any length of name";
  });
}

TEST(GetParam, ReadsTextInUtf8) {
  in_panel([] {
    MariaDbServer server;
    write_shadow();
    server.execute("set names utf8");
    set_misc(server, "city", "'K\xc3\xb6ln'");
    EXPECT_STREQ(get_param("city", nullptr), "K\xc3\xb6ln");
  });
}

TEST(GetParam, CutsALongValue) {
  in_panel([] {
    MariaDbServer server;
    write_shadow();
    for (const size_t length : {4094U, 4095U, 4096U, 5000U}) {
      set_misc(server, "long" + std::to_string(length),
               "concat(repeat('v', " + std::to_string(length - 1) + "), 'w')");
      const std::string whole = std::string(length - 1, 'v') + "w";
      EXPECT_EQ(get_param(("long" + std::to_string(length)).c_str(), nullptr),
                whole.substr(0, 4095));
    }
  });
}

TEST(GetParam, PutsTheNameIntoTheQueryAsItIs) {
  const Outcome outcome = in_panel([] {
    MariaDbServer server;
    write_shadow();
    set_misc(server, "a", "'x'");
    EXPECT_STREQ(get_param("b' or param='a", nullptr), "x");
    EXPECT_EQ(get_param("a'", nullptr), nullptr);
  });
  EXPECT_EQ(outcome.err.find("Unable to query parameter by query select val from misc where "
                             "param='a'': You have an error in your SQL syntax"),
            0U)
      << outcome;
}

TEST(GetParam, ReportsThatTheTableIsMissing) {
  const Outcome outcome = in_panel([] {
    MariaDbOptions options;
    options.with_misc = false;
    const MariaDbServer server(options);
    write_shadow();
    const Handle connection(db_connect());
    EXPECT_EQ(get_param("a", connection.get()), nullptr);
  });
  EXPECT_EQ(outcome.err,
            "Unable to query parameter by query select val from misc where param='a': Table "
            "'oxa.misc' doesn't exist\n");
  EXPECT_EQ(outcome.out, outcome.err);
}

TEST(GetParam, ReportsThatThereIsNoConnection) {
  const Outcome outcome = in_panel([] {
    write_shadow();
    EXPECT_EQ(get_param("a", nullptr), nullptr);
  });
  EXPECT_EQ(outcome.err,
            kNoServer + with_system_error("Unable to connect to the mysql database\n"));
  EXPECT_EQ(outcome.out, outcome.err);
}

TEST(GetParam, ReportsThatTheServerWentAway) {
  const Outcome outcome = in_panel([] {
    MariaDbServer server;
    write_shadow();
    const Handle connection(db_connect());
    server.stop();
    EXPECT_EQ(get_param("a", connection.get()), nullptr);
  });
  EXPECT_EQ(outcome.err.find("Unable to query parameter by query select val from misc where "
                             "param='a': "),
            0U)
      << outcome;
}

TEST(GetParam, ClosesItsOwnConnection) {
  const Outcome outcome = in_panel([] {
    MariaDbServer server;
    write_shadow();
    set_misc(server, "a", "'x'");
    ASSERT_STREQ(get_param("a", nullptr), "x");
    const std::vector<int> descriptors = open_descriptors();
    const long before = live_blocks();
    const bool found = get_param("a", nullptr) != nullptr;
    const bool failed = get_param("'", nullptr) == nullptr;
    const bool mail = get_mail_server_param("a", nullptr) != nullptr;
    const bool mail_failed = get_mail_server_param("'", nullptr) == nullptr;
    const long after = live_blocks();
    EXPECT_TRUE(found && failed && mail && mail_failed);
    EXPECT_EQ(after, before);
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_TRUE(server.comes_down_to(0));
  });
}

TEST(GetParam, LeavesACallersConnectionOpen) {
  in_panel([] {
    MariaDbServer server;
    write_shadow();
    set_misc(server, "a", "'x'");
    const Handle connection(db_connect());
    EXPECT_STREQ(get_param("a", connection.get()), "x");
    EXPECT_EQ(get_param("'", connection.get()), nullptr);
    EXPECT_STREQ(get_mail_server_param("a", connection.get()), "");
    EXPECT_EQ(get_mail_server_param("'", connection.get()), nullptr);
    EXPECT_EQ(server.ask(kConnectionsOfAdmin), "1") << "one, and no other was opened";
    EXPECT_STREQ(get_param_query("select connection_id() = min(id) from "
                                 "information_schema.processlist where user = 'admin'",
                                 connection.get()),
                 "1");
  });
}

TEST(GetParamQuery, GivesTheFirstColumnOfTheFirstRow) {
  in_panel([] {
    const MariaDbServer server;
    write_shadow();
    EXPECT_STREQ(get_param_query("select 1, 2 union select 3, 4", nullptr), "1");
    EXPECT_STREQ(get_param_query("select NULL, 2", nullptr), "");
  });
}

TEST(GetParamFromBigquery, GivesAnyColumnOfTheFirstRow) {
  in_panel([] {
    const MariaDbServer server;
    write_shadow();
    const Handle connection(db_connect());
    const char* query = "select 'a', NULL, 'c' union select 'd', 'e', 'f'";
    EXPECT_STREQ(get_param_from_bigquery(query, connection.get(), 0), "a");
    EXPECT_STREQ(get_param_from_bigquery(query, connection.get(), 1), "");
    EXPECT_STREQ(get_param_from_bigquery(query, connection.get(), 2), "c");
    EXPECT_STREQ(get_param_from_bigquery("select 'a' from misc", connection.get(), 0), "");
  });
}

TEST(GetParamFromBigquery, TakesAColumnThatIsNotThereForNull) {
  in_panel([] {
    const MariaDbServer server;
    write_shadow();
    EXPECT_STREQ(get_param_from_bigquery("select 'a', 'b'", nullptr, 2), "");
    EXPECT_STREQ(get_param_from_bigquery("select 'a', 'b'", nullptr, -1), "");
  });
}

TEST(GetParamFromBigquery, TakesAStatementWithoutAResultForNoRow) {
  in_panel([] {
    MariaDbServer server;
    write_shadow();
    EXPECT_STREQ(get_param_query("insert into misc values ('a', 'x')", nullptr), "");
    EXPECT_EQ(server.ask("select val from misc"), "x");
  });
}

TEST(GetParamFromBigquery, ReportsAQueryThatFails) {
  const Outcome outcome = in_panel([] {
    const MariaDbServer server;
    write_shadow();
    const Handle connection(db_connect());
    EXPECT_EQ(get_param_from_bigquery("select x", connection.get(), 0), nullptr);
  });
  EXPECT_EQ(outcome.err.find("Unable to query parameter by query select x: Unknown column 'x' in "),
            0U)
      << outcome;
  EXPECT_EQ(outcome.out, outcome.err);
}

TEST(GetParamFromBigquery, ReportsAQueryThatFailsWhileItsRowsArrive) {
  const std::string query =
      "select val, (select m.param from misc m where m.param <= misc.param) from misc";
  const Outcome outcome = in_panel([&query] {
    MariaDbServer server;
    write_shadow();
    set_misc(server, "a", kMoreThanIsHeldBack);
    set_misc(server, "b", "'x'");
    const Handle connection(db_connect());
    ASSERT_EQ(mysql_query(connection.get(), query.c_str()), 0) << "it must not fail at once";
    ASSERT_EQ(mysql_store_result(connection.get()), nullptr);
    EXPECT_EQ(get_param_from_bigquery(query.c_str(), connection.get(), 0), nullptr);
    EXPECT_STREQ(get_param_query("select 'next'", connection.get()), "next");
  });
  EXPECT_EQ(outcome.err,
            "Unable to query parameter by query " + query + ": Subquery returns more than 1 row\n");
  EXPECT_EQ(outcome.out, outcome.err);
}

TEST(GetParamFromBigquery, ReportsAQueryThatIsKilledWhileItsRowsArrive) {
  const std::string query = "select val, sleep(if(param = 'b', 100, 0)) from misc";
  const Outcome outcome = in_panel([&query] {
    MariaDbServer server;
    write_shadow();
    set_misc(server, "a", kMoreThanIsHeldBack);
    set_misc(server, "b", "'x'");
    const Handle connection(db_connect());
    ASSERT_EQ(mysql_query(connection.get(), "set max_statement_time = 0.2"), 0);
    EXPECT_EQ(get_param_query(query.c_str(), connection.get()), nullptr);
    EXPECT_EQ(mysql_errno(connection.get()), 1969U);
  });
  EXPECT_EQ(outcome.err.find("Unable to query parameter by query " + query + ": Query "), 0U)
      << outcome;
  EXPECT_EQ(outcome.out, outcome.err);
}

TEST(GetParamFromBigquery, RunsOneStatementOnly) {
  const Outcome outcome = in_panel([] {
    MariaDbServer server;
    write_shadow();
    EXPECT_EQ(get_param_query("select 1; select 2", nullptr), nullptr);
    EXPECT_EQ(get_param("a'; insert into misc values ('b', 'x", nullptr), nullptr);
    EXPECT_EQ(server.ask("select count(*) from misc"), "0");
  });
  EXPECT_EQ(outcome.err.find("Unable to query parameter by query select 1; select 2: You have an "
                             "error in your SQL syntax"),
            0U)
      << outcome;
}

TEST(GetParamFromBigquery, SharesOneBufferWithItsTwoRelatives) {
  in_panel([] {
    MariaDbServer server;
    write_shadow();
    set_misc(server, "a", "'first'");
    set_mail(server, 1, "mailServer", "m", "'mail'");
    set_mail(server, 1, "mailServer", "n", "'next'");
    const char* first = get_param("a", nullptr);
    ASSERT_STREQ(first, "first");
    const char* mail = get_mail_server_param("m", nullptr);
    EXPECT_NE(mail, first);
    EXPECT_STREQ(first, "first") << "the mail server's settings have a buffer of their own";
    EXPECT_EQ(get_param_query("select 'second'", nullptr), first);
    EXPECT_STREQ(first, "second");
    EXPECT_EQ(get_param_from_bigquery("select 1, 'third'", nullptr, 1), first);
    EXPECT_STREQ(first, "third");
    EXPECT_STREQ(mail, "mail");
    EXPECT_EQ(get_mail_server_param("n", nullptr), mail);
    EXPECT_STREQ(mail, "next");
    EXPECT_STREQ(first, "third");
  });
}

TEST(GetMailServerParam, GivesTheSettingOfTheFirstNodesMailServer) {
  in_panel([] {
    MariaDbServer server;
    write_shadow();
    set_mail(server, 1, "mailServer", "limit", "'10'");
    set_mail(server, 2, "mailServer", "limit", "'20'");
    set_mail(server, 1, "webServer", "limit", "'30'");
    set_mail(server, 2, "mailServer", "second", "'x'");
    set_mail(server, 1, "webServer", "web", "'x'");
    set_mail(server, 1, "mailServer", "nothing", "NULL");
    EXPECT_STREQ(get_mail_server_param("limit", nullptr), "10");
    EXPECT_STREQ(get_mail_server_param("second", nullptr), "");
    EXPECT_STREQ(get_mail_server_param("web", nullptr), "");
    EXPECT_STREQ(get_mail_server_param("nothing", nullptr), "");
    EXPECT_STREQ(get_mail_server_param("absent", nullptr), "");
  });
}

TEST(GetMailServerParam, CutsALongValue) {
  in_panel([] {
    MariaDbServer server;
    write_shadow();
    set_mail(server, 1, "mailServer", "long", "repeat('v', 5000)");
    EXPECT_EQ(get_mail_server_param("long", nullptr), std::string(4095, 'v'));
  });
}

TEST(GetMailServerParam, CutsALongQuery) {
  const Outcome outcome = in_panel([] {
    const MariaDbServer server;
    write_shadow();
    const Handle connection(db_connect());
    EXPECT_EQ(get_mail_server_param(std::string(5000, 'n').c_str(), connection.get()), nullptr);
  });
  EXPECT_NE(outcome.err.find(": You have an error in your SQL syntax"), std::string::npos)
      << "the name's closing quote is cut off";
}

TEST(GetMailServerParam, ReportsAQueryThatFailsWhileItsRowsArrive) {
  const std::string name =
      "z' or (select m.name from ServiceNodeConfiguration m where m.name <= "
      "ServiceNodeConfiguration.name) = 'a' or name = 'z";
  const Outcome outcome = in_panel([&name] {
    MariaDbServer server;
    write_shadow();
    set_mail(server, 1, "mailServer", "a", kMoreThanIsHeldBack);
    set_mail(server, 1, "mailServer", "b", "'x'");
    const Handle connection(db_connect());
    EXPECT_EQ(get_mail_server_param(name.c_str(), connection.get()), nullptr);
  });
  EXPECT_EQ(outcome.err,
            "Unable to query domain parameter " + name + ": Subquery returns more than 1 row\n");
  EXPECT_EQ(outcome.out, outcome.err);
}

TEST(GetMailServerParam, HasMessagesOfItsOwn) {
  const Outcome down = in_panel([] {
    write_shadow();
    EXPECT_EQ(get_mail_server_param("limit", nullptr), nullptr);
  });
  EXPECT_EQ(down.err, kNoServer + with_system_error("Unable to connect to mysql database\n"));
  EXPECT_EQ(down.out, down.err);
  const Outcome failed = in_panel([] {
    MariaDbServer server;
    server.execute("drop table ServiceNodeConfiguration");
    write_shadow();
    const Handle connection(db_connect());
    EXPECT_EQ(get_mail_server_param("limit", connection.get()), nullptr);
  });
  EXPECT_EQ(failed.err,
            "Unable to query domain parameter limit: Table 'oxa.ServiceNodeConfiguration' doesn't "
            "exist\n");
  EXPECT_EQ(failed.out, failed.err);
}
