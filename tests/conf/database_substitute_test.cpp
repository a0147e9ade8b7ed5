// Rules of the database routines that the client library gives no occasion for: some of its
// routines and one of ours are replaced at link time, and leave behind what the real ones rarely or
// never do.
#include <errno.h>
#include <gtest/gtest.h>
#include <stdio.h>

#include "conf/database.h"
#include "panel_database.h"
#include "support/child.h"
#include "support/mariadb_server.h"

using testsupport::MariaDbServer;
using testsupport::open_descriptors;
using testsupport::Outcome;

namespace {
bool error_left_in_handle = false;
int errno_left_by_connect = 0;
bool no_memory_to_format = false;
}  // namespace

extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c): the linker's names
MYSQL* __real_mysql_real_connect(MYSQL* handle, const char* host, const char* user,
                                 const char* password, const char* database, unsigned int port,
                                 const char* socket, unsigned long flags);
MYSQL* __wrap_mysql_real_connect(MYSQL* handle, const char* host, const char* user,
                                 const char* password, const char* database, unsigned int port,
                                 const char* socket, unsigned long flags) {
  MYSQL* connected =
      __real_mysql_real_connect(handle, host, user, password, database, port, socket, flags);
  if (error_left_in_handle && connected != nullptr) mysql_query(connected, "no such statement");
  if (errno_left_by_connect != 0) errno = errno_left_by_connect;
  return connected;
}

char* __real_asprintf_safe(const char* format, ...);
char* __wrap_asprintf_safe(const char* format, ...) {
  return no_memory_to_format ? nullptr : __real_asprintf_safe("%s", format);
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c)
}

TEST(FraskDbConnectRaw, ClosesAHandleWithAnErrorInIt) {
  const Outcome outcome = in_panel([] {
    const MariaDbServer server;
    write_shadow();
    error_left_in_handle = true;
    char error[256] = "";
    const Handle kept(frask_db_connect_raw_ex(error, sizeof error));
    ASSERT_TRUE(kept);
    EXPECT_EQ(mysql_errno(kept.get()), 1064U);
    const auto descriptors = open_descriptors();
    EXPECT_EQ(frask_db_connect_raw(error, sizeof error), nullptr);
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_STREQ(error, "");
  });
  EXPECT_EQ(outcome.out + outcome.err, "");
}

TEST(FraskDbConnectRawEx, ClearsWhateverErrnoASuccessLeaves) {
  in_panel([] {
    const MariaDbServer server;
    write_shadow();
    errno_left_by_connect = EXDEV;
    char error[256] = "";
    const Handle handle(frask_db_connect_raw_ex(error, sizeof error));
    EXPECT_EQ(errno, 0);
    EXPECT_TRUE(handle);
  });
}

TEST(FraskDbConnectRawEx, ClearsWhateverErrnoARefusalLeaves) {
  in_panel([] {
    const MariaDbServer server;
    write_shadow("wrong\n");
    errno_left_by_connect = EXDEV;
    char error[256] = "";
    EXPECT_EQ(frask_db_connect_raw_ex(error, sizeof error), nullptr);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(error, kDenied);
  });
}

TEST(FraskDbConnectRawEx, KeepsTheErrnoOfALibraryThatFails) {
  in_panel([] {
    write_shadow();
    errno_left_by_connect = EXDEV;
    char error[256] = "";
    EXPECT_EQ(frask_db_connect_raw_ex(error, sizeof error), nullptr);
    EXPECT_EQ(errno, EXDEV);
  });
}

TEST(GetParam, GivesNullWithoutAQueryToSend) {
  const Outcome outcome = in_panel([] {
    no_memory_to_format = true;
    EXPECT_EQ(get_param("a", nullptr), nullptr);
  });
  EXPECT_EQ(outcome.out + outcome.err, "") << "the formatting reports its own failure";
}
