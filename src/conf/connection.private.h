// Not installed: the owner of a database connection.
#ifndef FRASK_CONF_CONNECTION_PRIVATE_H
#define FRASK_CONF_CONNECTION_PRIVATE_H

#include <errno.h>
#include <mysql.h>

#include <memory>

namespace frask::conf {

/// Closes silently and leaves errno as it was, for the report that follows.
struct CloseConnection {
  void operator()(MYSQL* handle) const noexcept {
    const int error = errno;
    mysql_close(handle);
    errno = error;
  }
};
using Connection = std::unique_ptr<MYSQL, CloseConnection>;

}  // namespace frask::conf

#endif
