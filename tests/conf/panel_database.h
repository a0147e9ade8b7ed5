// What the tests of the database routines have in common.
#ifndef TESTS_CONF_PANEL_DATABASE_H
#define TESTS_CONF_PANEL_DATABASE_H

#include <mysql.h>

#include <memory>
#include <string>

#include "panel.h"
#include "support/scratch.h"

struct CloseHandle {
  void operator()(MYSQL* handle) const { mysql_close(handle); }
};
using Handle = std::unique_ptr<MYSQL, CloseHandle>;

inline void write_settings(const std::string& lines) {
  testsupport::write_file(kSettingsFile, "[frask]\n" + lines, 0600);
}

/// The password of the tests' servers, unless another content is given.
inline void write_shadow(const std::string& content = "sesame\n") {
  testsupport::write_file(kShadowFile, content, 0600);
}

const std::string kDenied =
    "Unable to connect to Frask Database: Access denied for user 'admin'@'localhost' (using "
    "password: YES)";

#endif
