// Whatever the password file, the server is asked with its first line, or the file is said to be
// unreadable. The routine that would ask the server is replaced at link time.
#include <mysql.h>
#include <stdint.h>

#include <fstream>
#include <optional>
#include <string>

#include "check.h"
#include "conf/database.h"
#include "support/private_mounts.h"

namespace {

std::optional<std::string> password_sent;

/// Up to the newline, or to a NUL, where a string ends; an empty file has none.
std::optional<std::string> first_line(const std::string& content) {
  if (content.empty()) return std::nullopt;
  return c_string(content.substr(0, content.find('\n')));
}

}  // namespace

extern "C" {
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c): the linker's name
MYSQL* __wrap_mysql_real_connect(MYSQL*, const char*, const char*, const char* password,
                                 const char*, unsigned int, const char*, unsigned long) {
  password_sent = password;
  return nullptr;
}

// NOLINTNEXTLINE(readability-identifier-naming): the fuzzer's name
int LLVMFuzzerInitialize(int*, char***) {
  testsupport::enter_private_mounts();
  return 0;
}
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string content(data, data + size);
  std::ofstream("/etc/oxa/.oxa.shadow", std::ios::binary) << content;
  password_sent.reset();
  char error[256] = "";
  check(frask_db_connect_raw_ex(error, sizeof error) == nullptr);
  check(password_sent == first_line(content));
  const std::string expected = password_sent ? "Unable to connect to Frask Database: "
                                             : "Unable to read admin password file: Success";
  check(error == expected);
  return 0;
}
