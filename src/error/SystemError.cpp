#include "error/SystemError.h"

#include <errno.h>
#include <string.h>

namespace frask {

SystemError::SystemError(const std::string& message, int code)
    : std::runtime_error(message), code_(code) {}

SystemError::~SystemError() = default;

const char* SystemError::what() const noexcept {
  const char* message = std::runtime_error::what();
  if (!text_.empty()) return text_.c_str();
  try {
    std::string text(message);
    if (!text.empty()) text += ": ";
    text += strerror(code_);
    text_ = std::move(text);
    return text_.c_str();
  } catch (...) {
    return message;
  }
}

template class ExSystemError<1>;
template class ExSystemError<2>;
template class ExSystemError<4>;
template class ExSystemError<10>;
template class ExSystemError<11>;

void throwSystemError(const std::string& message, int code) {
  const int error = errno;  // allocating an exception may change it even where it succeeds
  switch (code) {
    case EPERM:
      throw ExSystemError<EPERM>(message);
    case ENOENT:
      throw ExSystemError<ENOENT>(message);
    case EINTR:
      throw ExSystemError<EINTR>(message);
    case ECHILD:
      throw ExSystemError<ECHILD>(message);
    case EAGAIN:
      throw ExSystemError<EAGAIN>(message);
    // Deliberate: only a code that is given selects a class, never the errno that 0 stands for.
    // Pinned by ThrowSystemError.TakesErrnoForZeroAndThrowsThePlainClass.
    case 0:
      throw SystemError(message, error);
    default:
      throw SystemError(message, code);
  }
}

}  // namespace frask
