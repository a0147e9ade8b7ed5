// Not installed: the owner of a database connection, and what its calls leave in errno.
#ifndef FRASK_CONF_CONNECTION_PRIVATE_H
#define FRASK_CONF_CONNECTION_PRIVATE_H

#include <errmsg.h>
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

/// Whether a failure that mysql_errno() numbers so has no system call as its reason: what the
/// server sent, and a host name that is unknown, for the search of which errno tells nothing.
inline bool has_no_system_error(unsigned int number) noexcept {
  const bool is_library = (number >= CR_MIN_ERROR && number <= CR_MAX_ERROR) ||
                          (number >= CER_MIN_ERROR && number <= CER_MAX_ERROR);
  return number == CR_UNKNOWN_HOST || (number != 0 && !is_library);
}

/// Whether an errno is one that the library's waiting, or an option that a socket does not have,
/// leaves behind. It is never the reason: where a port refuses, the library finds that by other
/// means, and errno still tells of the waiting.
inline bool is_of_waiting(int error) noexcept {
  return error == EAGAIN || error == EINPROGRESS || error == EOPNOTSUPP;
}

/// Makes one call of the client library, which tells whether it succeeded. errno is 0 afterwards
/// unless it tells why the library failed: behind "Access denied" a "System error" of what was
/// looked up before, or of the waiting for the answer, would lead astray.
template <class Call>
bool succeeds(MYSQL* handle, Call call) {
  errno = 0;
  const bool done = call();
  if (done || has_no_system_error(mysql_errno(handle)) || is_of_waiting(errno)) errno = 0;
  return done;
}

}  // namespace frask::conf

#endif
