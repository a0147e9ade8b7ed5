#include "conf/database.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "answering_proxy.h"
#include "panel_database.h"
#include "support/allocations.h"
#include "support/child.h"
#include "support/hidden_text.h"
#include "support/mariadb_server.h"
#include "support/scratch.h"

using testsupport::allocations_so_far;
using testsupport::FailingAllocation;
using testsupport::HiddenText;
using testsupport::live_blocks;
using testsupport::MariaDbOptions;
using testsupport::MariaDbServer;
using testsupport::open_descriptors;
using testsupport::Outcome;
using testsupport::write_file;

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the sanitizer's own names
extern "C" {
__attribute__((weak)) void __lsan_disable();
__attribute__((weak)) void __lsan_enable();
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

namespace {

using Connect = MYSQL* (*)(char* error, size_t size);

/// The four connection routines and the name that the panel's tools call.
const std::vector<std::pair<const char*, Connect>> kConnects = {
    {"frask_db_connect_raw_ex", frask_db_connect_raw_ex},
    {"frask_db_connect_raw", frask_db_connect_raw},
    {"frask_db_connect_ex", frask_db_connect_ex},
    {"frask_db_connect", frask_db_connect},
    {"db_connect_nothrow", db_connect_nothrow},
};

/// What one attempt to connect gave.
struct Attempt {
  Handle handle;
  std::string error;
  int error_number;
  unsigned long allocations;  ///< how many were made on the way
};

Attempt attempt(Connect connect, unsigned long failing_allocation = 0) {
  char error[4096] = "";
  Handle handle;
  const unsigned long before = allocations_so_far();
  errno = 0;
  {
    const FailingAllocation failure(failing_allocation);
    handle.reset(connect(error, sizeof error));
  }
  const int number = errno;
  const unsigned long allocations = allocations_so_far() - before;
  return {std::move(handle), error, number, allocations};
}

std::string error_of(Connect connect = frask_db_connect_raw_ex) {
  const Attempt made = attempt(connect);
  return made.handle ? "connected" : made.error;
}

std::string ask(const Handle& handle, const char* sql) {
  if (!handle || mysql_query(handle.get(), sql) != 0) return "the query failed";
  MYSQL_RES* result = mysql_store_result(handle.get());
  MYSQL_ROW row = mysql_fetch_row(result);
  std::string field = row[0] != nullptr ? row[0] : "NULL";
  mysql_free_result(result);
  return field;
}

long kilobytes_held_at_most() {
  rusage usage = {};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

void make_socket_of_the_shadow_file() {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  snprintf(address.sun_path, sizeof address.sun_path, "%s", kShadowFile);
  const int result = bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  close(fd);
  ASSERT_EQ(result, 0);
}

/// Who is connected to what, or why nobody is.
std::string connected_as() {
  const Attempt made = attempt(frask_db_connect);
  if (!made.handle) return made.error;
  return ask(made.handle, "select concat(user(), ' ', database())");
}

/// Connects without a server while the numbered allocation fails; gives the error and errno.
std::string error_without_allocation(unsigned long number) {
  const Outcome outcome = in_panel([number] {
    write_shadow();
    error_of();  // the client library's set-up, once a process, is not proof against this
    const std::vector<int> descriptors = open_descriptors();
    const Attempt made = attempt(frask_db_connect_raw_ex, number);
    EXPECT_FALSE(made.handle);
    EXPECT_TRUE(FailingAllocation::happened());
    EXPECT_EQ(open_descriptors(), descriptors);
    printf("%s, errno %d", made.error.c_str(), made.error_number);
  });
  return outcome.out;
}

/// What the server lets no client do after it has logged in; only for users without all rights.
MariaDbOptions refusing_first_query() {
  MariaDbOptions options;
  options.server_options = {"--init-connect=no such statement"};
  return options;
}

/// The protocol's description of a column: six strings, each behind its length, and the rest.
std::string column(const std::string& name) {
  std::string packet;
  for (const std::string& text : std::vector<std::string>{"def", "", "", "", name, ""})
    packet += static_cast<char>(text.size()) + text;
  return packet + std::string("\x0c\x21\0\x0a\0\0\0\xfd\0\0\0\0\0", 13);
}

/// Connects through a proxy that answers "SET NAMES" as if rows were to come.
Attempt attempt_with_rows_to_come(Connect connect, const std::string& server_socket,
                                  unsigned long failing_allocation = 0) {
  std::filesystem::remove("/var/lib/mysql/mysql.sock");
  const AnsweringProxy proxy("/var/lib/mysql/mysql.sock", server_socket, "SET NAMES utf8",
                             {"\1", column("a"), std::string("\xfe\0\0\2\0", 5)});
  return attempt(connect, failing_allocation);
}

/// The client library does not free what it has read of an answer when memory fails it: while an
/// object lives, the leak sanitizer, where there is one, takes no note.
class LibraryLeaks {
 public:
  LibraryLeaks() {
    if (__lsan_disable != nullptr) __lsan_disable();
  }
  ~LibraryLeaks() {
    if (__lsan_enable != nullptr) __lsan_enable();
  }
  LibraryLeaks(const LibraryLeaks&) = delete;
  LibraryLeaks& operator=(const LibraryLeaks&) = delete;
};

/// The client library sets no error number when it has no memory for the description of columns:
/// one of its last allocations, which are therefore made to fail, the last one first.
Attempt attempt_without_number(Connect connect, const std::string& server_socket) {
  const LibraryLeaks library_leaks;
  attempt_with_rows_to_come(connect, server_socket);
  for (unsigned long number = attempt_with_rows_to_come(connect, server_socket).allocations;
       number > 0; --number) {
    Attempt made = attempt_with_rows_to_come(connect, server_socket, number);
    if (made.handle && !made.error.empty() && mysql_errno(made.handle.get()) == 0) return made;
  }
  throw std::runtime_error("the client library never failed without an error number");
}

}  // namespace

TEST(FraskDbConnect, NeedsNoSettingsFile) {
  in_panel([] {
    write_shadow();
    const MariaDbServer server;
    EXPECT_EQ(connected_as(), "admin@localhost oxa");
  });
}

TEST(FraskDbConnect, ConnectsOverTheConfiguredSocket) {
  in_panel([] {
    write_file(kConfigurationFile, "MYSQL_SOCKET /var/lib/mysql/other.sock\n");
    write_shadow();
    MariaDbOptions options;
    options.socket = "/var/lib/mysql/other.sock";
    const MariaDbServer server(options);
    EXPECT_EQ(connected_as(), "admin@localhost oxa");
  });
}

TEST(FraskDbConnect, TakesEverySettingOfTheFile) {
  in_panel([] {
    enter_private_network();
    MariaDbOptions options;
    options.server_options = {"--skip-networking=0", "--bind-address=127.0.0.1", "--port=3399"};
    MariaDbServer server(options);
    server.execute("create database panel2");
    server.execute("create user 'other'@'127.0.0.1' identified by 'word'");
    server.execute("grant all on panel2.* to 'other'@'127.0.0.1'");
    write_settings(
        "host = 127.0.0.1\nport = 3399\nusername = other\npassword = word\ndbname = panel2\n");
    EXPECT_EQ(connected_as(), "other@127.0.0.1 panel2");
  });
}

TEST(FraskDbConnect, HasAFallbackForEachSettingAlone) {
  in_panel([] {
    MariaDbServer server;
    server.execute("create database panel2");
    server.execute("grant all on panel2.* to 'admin'@'localhost'");
    server.execute("create user 'other'@'localhost' identified by 'sesame'");
    server.execute("grant all on oxa.* to 'other'@'localhost'");
    write_shadow();
    struct Row {
      const char* settings;
      const char* expected;
    };
    const std::vector<Row> rows = {
        {"", "admin@localhost oxa"},
        {"host = localhost\n", "admin@localhost oxa"},
        {"port = 1\n", "admin@localhost oxa"},
        {"username = other\n", "other@localhost oxa"},
        {"dbname = panel2\n", "admin@localhost panel2"},
        {"password = sesame\n", "admin@localhost oxa"},
        {"[other]\nusername = nobody\n", "admin@localhost oxa"},
    };
    for (const Row& row : rows) {
      SCOPED_TRACE(row.settings);
      write_settings(row.settings);
      EXPECT_EQ(connected_as(), row.expected);
    }
  });
}

TEST(FraskDbConnect, ReadsThePortAsADecimalNumber) {
  in_panel([] {
    enter_private_network();
    MariaDbOptions options;
    options.server_options = {"--skip-networking=0", "--bind-address=127.0.0.1", "--port=3306"};
    const MariaDbServer server(options);
    write_shadow();
    struct Row {
      const char* port;
      bool connects;
    };
    const std::vector<Row> rows = {
        {"", true},  // the client library's own default
        {"port = 3306\n", true},
        {"port = 03306 and more\n", true},
        {"port = word\n", true},
        {"port = 3307\n", false},
        {"port = 0xcea\n", true},
        {"port = 06352\n", false},
    };
    for (const Row& row : rows) {
      SCOPED_TRACE(row.port);
      write_settings(std::string("host = 127.0.0.1\n") + row.port);
      EXPECT_EQ(connected_as() == "admin@127.0.0.1 oxa", row.connects);
    }
  });
}

TEST(FraskDbConnect, TakesTheSettingsPasswordAndNeverOpensTheShadowFile) {
  in_panel([] {
    const MariaDbServer server;
    write_settings("password = sesame\n");
    EXPECT_EQ(connected_as(), "admin@localhost oxa") << "there is no shadow file";
    std::filesystem::create_directories(kShadowFile);
    EXPECT_EQ(connected_as(), "admin@localhost oxa") << "the shadow file cannot be read";
  });
}

TEST(FraskDbConnect, TakesAnEmptyPasswordOfTheSettingsForOne) {
  in_panel([] {
    MariaDbOptions options;
    options.password = "";
    const MariaDbServer server(options);
    write_settings("password =\n");
    EXPECT_EQ(connected_as(), "admin@localhost oxa");
  });
}

TEST(FraskDbConnect, ReadsTheFirstLineOfTheShadowFile) {
  struct Row {
    const char* shadow;
    const char* password;
  };
  const std::vector<Row> rows = {
      {"sesame\n", "sesame"},
      {"sesame", "sesame"},
      {"sesame\nsecond\n", "sesame"},
      {"sesame\r\n", "sesame\r"},
      {" with ' and \\ \n", " with ' and \\ "},
      {"\nsesame\n", ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.shadow);
    in_panel([&row] {
      MariaDbOptions options;
      options.password = row.password;
      const MariaDbServer server(options);
      write_shadow(row.shadow);
      EXPECT_EQ(connected_as(), "admin@localhost oxa");
    });
  }
}

TEST(FraskDbConnect, KeepsTheCarriageReturnOfTheShadowFile) {
  in_panel([] {
    const MariaDbServer server;
    write_shadow("sesame\r\n");
    EXPECT_EQ(error_of(), kDenied);
  });
}

TEST(FraskDbConnect, SaysWhichPasswordIsWrong) {
  in_panel([] {
    const MariaDbServer server;
    write_shadow("wrong\n");
    for (const auto& [name, connect] : kConnects) {
      SCOPED_TRACE(name);
      EXPECT_EQ(error_of(connect), kDenied);
    }
  });
}

TEST(FraskDbConnect, SaysThatTheServerIsDown) {
  in_panel([] {
    MariaDbServer server;
    write_shadow();
    ASSERT_EQ(connected_as(), "admin@localhost oxa");
    server.stop();
    for (const auto& [name, connect] : kConnects) {
      SCOPED_TRACE(name);
      EXPECT_EQ(error_of(connect),
                "Unable to connect to Frask Database: Can't connect to local server through socket "
                "'/var/lib/mysql/mysql.sock' (2)");
    }
  });
}

TEST(FraskDbConnect, LeavesNoDescriptorAndNoMemoryWhenItFails) {
  in_panel([] {
    MariaDbServer server;
    server.stop();
    write_shadow();
    write_settings("host = localhost\nusername = other\ndbname = panel2\n");
    ASSERT_NE(error_of(), "connected") << "the client library's own set-up is done by now";
    const std::vector<int> descriptors = open_descriptors();
    for (const auto& [name, connect] : kConnects) {
      SCOPED_TRACE(name);
      char error[256] = "";
      const long before = live_blocks();
      const bool connected = connect(error, sizeof error) != nullptr;
      const long after = live_blocks();
      EXPECT_FALSE(connected);
      EXPECT_EQ(after, before);
    }
    EXPECT_EQ(open_descriptors(), descriptors);
  });
}

TEST(FraskDbConnectRawEx, SaysThatTheShadowFileCannotBeOpened) {
  in_panel([] {
    const Attempt made = attempt(frask_db_connect_raw_ex);
    EXPECT_EQ(made.error, "Unable to open admin password file: No such file or directory");
    EXPECT_EQ(made.error_number, ENOENT);
    EXPECT_FALSE(made.handle);
  });
}

TEST(FraskDbConnectRawEx, SaysThatTheShadowFileMayNotBeOpened) {
  const Outcome outcome = in_panel([] {
    write_shadow();
    if (setuid(65534) != 0) _exit(97);
    const Attempt made = attempt(frask_db_connect_raw_ex);
    EXPECT_EQ(made.error, "Unable to open admin password file: Permission denied");
    EXPECT_EQ(made.error_number, EACCES);
  });
  EXPECT_EQ(outcome.err, "");
}

TEST(FraskDbConnectRawEx, LeavesTheSettingsFilesOwnMessageToTheIniReader) {
  const Outcome outcome = in_panel([] {
    write_settings("password = sesame\n");
    std::filesystem::permissions(kSettingsFile, std::filesystem::perms::none);
    if (setuid(65534) != 0) _exit(97);
    EXPECT_EQ(error_of(), "Unable to open admin password file: No such file or directory");
  });
  const std::string once = "Failed to open /etc/oxa/private/dsn.ini: Permission denied";
  EXPECT_EQ(outcome.err, once + once + once + once + once) << "one for each of the five settings";
  EXPECT_EQ(outcome.out, "");
}

TEST(FraskDbConnectRawEx, SaysThatTheShadowFileCannotBeExamined) {
  in_panel([] {
    write_shadow();
    const Outcome traced =
        run_injected(kShadowFile, "fstat,newfstatat:error=EIO", {TEMBRIX_CONNECT_HELPER});
    EXPECT_EQ(traced.out, "Unable to get admin password file stat: Input/output error, errno 5")
        << traced;
  });
}

TEST(FraskDbConnectRawEx, SaysThatThePasswordDoesNotFitIntoMemory) {
  in_panel([] {
    write_shadow();
    ASSERT_EQ(truncate(kShadowFile, off_t{1} << 61U), 0);
    EXPECT_EQ(error_of(), "Unable to allocate memory for password");
  });
}

TEST(FraskDbConnectRawEx, ReadsThePasswordOfALargeShadowFileForThePriceOfALine) {
  for (const char* line : {"sesame\n", "sesame"}) {
    SCOPED_TRACE(line);
    in_panel([line] {
      const MariaDbServer server;
      write_shadow(line);
      ASSERT_EQ(truncate(kShadowFile, off_t{3} << 30U), 0) << "more than an int can tell";
      const long before = kilobytes_held_at_most();
      EXPECT_EQ(error_of(), "connected");
      EXPECT_LT(kilobytes_held_at_most() - before, 1L << 20U);
    });
  }
}

TEST(FraskDbConnectRawEx, WaitsForNobodyWhenTheShadowFileIsNoFile) {
  struct Row {
    const char* what;
    std::function<void()> make;
    const char* error;
  };
  const std::vector<Row> rows = {
      {"a named pipe", [] { ASSERT_EQ(mkfifo(kShadowFile, 0600), 0); },
       "Unable to read admin password file: Success"},
      {"an endless device", [] { ASSERT_EQ(symlink("/dev/zero", kShadowFile), 0); },
       "Unable to read admin password file: Success"},
      {"an empty device", [] { ASSERT_EQ(symlink("/dev/null", kShadowFile), 0); },
       "Unable to read admin password file: Success"},
      {"a socket", make_socket_of_the_shadow_file,
       "Unable to open admin password file: No such device or address"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    in_panel([&row] {
      alarm(20);
      row.make();
      EXPECT_EQ(error_of(), row.error);
    });
  }
}

TEST(FraskDbConnectRawEx, SaysThatTheShadowFileCannotBeRead) {
  in_panel([] {
    std::filesystem::create_directories(std::string(kShadowFile) + "/entry");
    const Attempt made = attempt(frask_db_connect_raw_ex);
    EXPECT_EQ(made.error, "Unable to read admin password file: Is a directory");
    EXPECT_EQ(made.error_number, EISDIR);
  });
}

TEST(FraskDbConnectRawEx, TakesNoPasswordWhoseReadingStopsPartWay) {
  in_panel([] {
    write_shadow(std::string(100000, 'p') + "\n");
    const Outcome traced =
        run_injected(kShadowFile, "read:error=EIO:when=2", {TEMBRIX_CONNECT_HELPER});
    EXPECT_EQ(traced.out, "Unable to read admin password file: Input/output error, errno 5")
        << traced;
  });
}

TEST(FraskDbConnectRawEx, SaysThatAnEmptyShadowFileCannotBeRead) {
  in_panel([] {
    write_shadow("");
    EXPECT_EQ(error_of(), "Unable to read admin password file: Success")
        << "no older failure, here that of the missing settings, is named as the reason";
  });
}

TEST(FraskDbConnectRawEx, SaysWhatThereIsNoMemoryFor) {
  EXPECT_EQ(error_without_allocation(1),
            "Unable to open admin password file: Cannot allocate memory, errno 12");
  EXPECT_EQ(error_without_allocation(2), "Unable to allocate memory for password, errno 12");
  EXPECT_EQ(error_without_allocation(3),
            "Unable to initialize MySQL connection structure: Cannot allocate memory, errno 12");
}

TEST(FraskDbConnectRawEx, CutsTheErrorToTheBuffer) {
  in_panel([] {
    char error[12] = "###########";
    EXPECT_EQ(frask_db_connect_raw_ex(error, 10), nullptr);
    EXPECT_STREQ(error, "Unable to");
    EXPECT_EQ(error[10], '#');
  });
}

TEST(FraskDbConnectRawEx, DoesWithoutABufferForTheError) {
  in_panel([] {
    char error[] = "untouched";
    for (const auto& [name, connect] : kConnects) {
      SCOPED_TRACE(name);
      EXPECT_EQ(connect(error, 0), nullptr);
      EXPECT_EQ(connect(nullptr, 0), nullptr);
      EXPECT_EQ(connect(nullptr, 100), nullptr);
    }
    EXPECT_STREQ(error, "untouched");
  });
}

TEST(FraskDbConnectRawEx, LeavesNoPasswordInMemory) {
  if (getenv("LD_BIND_NOW") == nullptr) {
    // A dynamic linker that binds at the first call saves registers, and what was copied last is
    // in them; so once more in a process in which all calls are bound from the start.
    testsupport::RunOptions bound;
    bound.environment["LD_BIND_NOW"] = "1";
    const Outcome outcome = testsupport::run(
        {"/proc/self/exe", "--gtest_filter=FraskDbConnectRawEx.LeavesNoPasswordInMemory"}, bound);
    EXPECT_EQ(outcome.exit_code(), 0) << outcome;
    return;
  }
  for (const bool in_settings : {true, false}) {
    SCOPED_TRACE(in_settings ? "from the settings" : "from the shadow file");
    in_panel([in_settings] {
      const HiddenText password(60);
      if (in_settings) {
        write_settings("password = ");
        password.append_to(kSettingsFile);
      } else {
        password.append_to(kShadowFile);
        std::ofstream(kShadowFile, std::ios::app) << "\nsecond\n";
      }
      EXPECT_NE(error_of(), "connected");
      EXPECT_EQ(password.copies_of_the_word(), 0U);
    });
  }
}

TEST(FraskDbConnectEx, SetsTheNamesToUtf8) {
  in_panel([] {
    const MariaDbServer server;
    write_shadow();
    for (const auto& [name, connect] : kConnects) {
      SCOPED_TRACE(name);
      const bool raw = strstr(name, "raw") != nullptr;
      const Attempt made = attempt(connect);
      for (const char* variable : {"client", "connection", "results"}) {
        const std::string sql = std::string("select @@character_set_") + variable;
        EXPECT_EQ(ask(made.handle, sql.c_str()) == "utf8mb3", !raw) << variable;
      }
    }
  });
}

TEST(FraskDbConnectEx, GivesTheHandleEvenWhenTheQueryFails) {
  in_panel([] {
    const MariaDbServer server(refusing_first_query());
    write_shadow();
    const Attempt made = attempt(frask_db_connect_ex);
    ASSERT_TRUE(made.handle);
    EXPECT_EQ(mysql_errno(made.handle.get()), 1184U);
    EXPECT_EQ(made.error,
              "DB error (set names query) 1184: " + std::string(mysql_error(made.handle.get())));
    EXPECT_NE(made.error.find("Aborted connection"), std::string::npos) << made.error;
  });
}

TEST(FraskDbConnectEx, HasATextForAFailureWithoutANumber) {
  in_panel([] {
    MariaDbOptions options;
    options.socket = "/var/lib/mysql/behind.sock";
    const MariaDbServer server(options);
    write_settings("password = sesame\n");
    const Attempt made = attempt_without_number(frask_db_connect_ex, server.socket());
    EXPECT_EQ(made.error, "DB error (set names query): unknown error");
  });
}

TEST(FraskDbConnect, ClosesAHandleWhoseQueryFailed) {
  in_panel([] {
    const MariaDbServer server(refusing_first_query());
    write_shadow();
    const std::vector<int> descriptors = open_descriptors();
    for (const Connect connect : {frask_db_connect, db_connect_nothrow}) {
      const Attempt made = attempt(connect);
      EXPECT_FALSE(made.handle);
      EXPECT_EQ(made.error.find("DB error (set names query) 1184: "), 0U) << made.error;
    }
    EXPECT_EQ(open_descriptors(), descriptors);
  });
}

TEST(FraskDbConnect, KeepsAHandleWhoseFailureHasNoNumber) {
  in_panel([] {
    MariaDbOptions options;
    options.socket = "/var/lib/mysql/behind.sock";
    const MariaDbServer server(options);
    write_settings("password = sesame\n");
    const Attempt made = attempt_without_number(frask_db_connect, server.socket());
    EXPECT_EQ(made.error, "DB error (set names query): unknown error");
    EXPECT_TRUE(made.handle);
  });
}
