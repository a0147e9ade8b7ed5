#include "conf/database.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include "conf/connection.private.h"
#include "conf/inifile.h"
#include "conf/owners.private.h"
#include "conf/oxaconf.h"
#include "log/c_string.private.h"
#include "log/messlog.h"

using frask::CString;
using frask::conf::Connection;
using frask::conf::Secret;
using frask::conf::SecretFile;
using frask::conf::succeeds;
using frask::conf::Wipe;

namespace {

constexpr const char* kSettingsFile = "/etc/oxa/private/dsn.ini";
constexpr const char* kSettingsSection = "frask";
constexpr const char* kShadowFile = "/etc/oxa/.oxa.shadow";
constexpr size_t kErrorSize = 4097;
constexpr unsigned int kConnectSeconds = 10;

/// The caller's buffer for the text of a failure.
class ErrorText {
 public:
  ErrorText(char* text, size_t size) : text_(text), size_(text != nullptr ? size : 0) {}

  /// Writes what fits and leaves errno as it was.
  void write(const char* format, ...) const FRASK_PRINTF(2, 3) {
    const int error = errno;
    va_list args;
    va_start(args, format);
    vsnprintf(text_, size_, format, args);
    va_end(args);
    errno = error;
  }

 private:
  char* text_;
  size_t size_;
};

char* setting(const char* key) {
  return get_ini_conf_var(kSettingsFile, kSettingsSection, key);
}

/// The settings as the file gives them; what it does not give is null.
struct Settings {
  CString host{setting("host")};
  CString port{setting("port")};
  CString user{setting("username")};
  Secret password = secret_setting("password");
  CString database{setting("dbname")};

 private:
  static Secret secret_setting(const char* key) {
    char* text = setting(key);
    return Secret(text, Wipe(text != nullptr ? strlen(text) + 1 : 0));
  }
};

const char* text_or(const CString& text, const char* fallback) {
  return text ? text.get() : fallback;
}

unsigned int port_number(const CString& text) {
  return text ? static_cast<unsigned int>(strtol(text.get(), nullptr, 10)) : 0;
}

/// Reads the first line of a file, without its newline and up to a NUL, where a string ends, into
/// zeroed memory for `size` bytes and one more. False where there is none, an empty file included;
/// errno is set, or 0 where the file simply ends. Only what was read is wiped later: a large file's
/// memory is hardly touched.
bool read_first_line(FILE* file, size_t size, Secret& line) {
  errno = 0;  // an older failure must not be named as the reason
  size_t length = 0;
  int c = EOF;
  while (length < size && (c = getc(file)) != EOF && c != '\n' && c != '\0')
    line.get()[length++] = static_cast<char>(c);
  line.get_deleter() = Wipe(length);
  const bool is_empty = length == 0 && c == EOF;
  return !is_empty && ferror(file) == 0;
}

/// The administrator's password; null with the reason written.
Secret read_shadow(const ErrorText& failure) {
  const SecretFile file(kShadowFile);
  if (!file) {
    failure.write("Unable to open admin password file: %s", strerror(errno));
    return nullptr;
  }
  struct stat st = {};
  if (fstat(fileno(file.stream()), &st) != 0) {
    failure.write("Unable to get admin password file stat: %s", strerror(errno));
    return nullptr;
  }
  const auto size = static_cast<size_t>(st.st_size);
  Secret password(static_cast<char*>(calloc(size + 1, 1)));
  if (!password) {
    failure.write("Unable to allocate memory for password");
    return nullptr;
  }
  if (!read_first_line(file.stream(), size, password)) {
    failure.write("Unable to read admin password file: %s", strerror(errno));
    return nullptr;
  }
  return password;
}

/// The handle, or null with the handle closed when an error stands in it.
MYSQL* without_error(MYSQL* handle) {
  Connection connection(handle);
  return connection && mysql_errno(handle) == 0 ? connection.release() : nullptr;
}

void write_query_error(const ErrorText& failure, const char* query_name, MYSQL* handle) {
  if (mysql_errno(handle) != 0)
    failure.write("DB error (%s) %u: %s", query_name, mysql_errno(handle), mysql_error(handle));
  else
    failure.write("DB error (%s): unknown error", query_name);
}

}  // namespace

MYSQL* frask_db_connect_raw_ex(char* error, size_t size) {
  const ErrorText failure(error, size);
  Settings settings;
  if (!settings.password) settings.password = read_shadow(failure);
  if (!settings.password) return nullptr;
  Connection connection(mysql_init(nullptr));
  if (!connection) {
    failure.write("Unable to initialize MySQL connection structure: %s", strerror(ENOMEM));
    errno = ENOMEM;
    return nullptr;
  }
  // Holds for the greeting as well: a server that is stopped still takes connections.
  mysql_options(connection.get(), MYSQL_OPT_CONNECT_TIMEOUT, &kConnectSeconds);
  const char* socket = oxaConfGetDefaultByIndex(OXA_CONF_MYSQL_SOCKET);
  const bool connected = succeeds(connection.get(), [&] {
    return mysql_real_connect(connection.get(), text_or(settings.host, "localhost"),
                              text_or(settings.user, "admin"), settings.password.get(),
                              text_or(settings.database, "oxa"), port_number(settings.port), socket,
                              0) != nullptr;
  });
  if (!connected) {
    failure.write("Unable to connect to Frask Database: %s", mysql_error(connection.get()));
    return nullptr;
  }
  return connection.release();
}

MYSQL* frask_db_connect_raw(char* error, size_t size) {
  return without_error(frask_db_connect_raw_ex(error, size));
}

MYSQL* frask_db_connect_ex(char* error, size_t size) {
  MYSQL* handle = frask_db_connect_raw(error, size);
  if (handle == nullptr) return nullptr;
  if (!succeeds(handle, [handle] { return mysql_query(handle, "SET NAMES utf8") == 0; }))
    write_query_error(ErrorText(error, size), "set names query", handle);
  return handle;
}

MYSQL* frask_db_connect(char* error, size_t size) {
  return without_error(frask_db_connect_ex(error, size));
}

MYSQL* db_connect_nothrow(char* error, size_t size) {
  return frask_db_connect(error, size);
}

MYSQL* db_connect() {
  char text[kErrorSize] = "";
  MYSQL* handle = db_connect_nothrow(text, sizeof text);
  if (handle == nullptr) messlog2(0, 0, "%s", text);
  return handle;
}
