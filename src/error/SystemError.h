/**
 * @file
 * The exceptions that stand for failed system calls.
 */
#ifndef FRASK_ERROR_SYSTEMERROR_H
#define FRASK_ERROR_SYSTEMERROR_H

#include <stdexcept>
#include <string>

#include "log/api.h"

namespace frask {

/**
 * A failed system call. what() is the message, ": " and the system's text for the code; with an
 * empty message the system's text alone. An error object is used by one thread at a time.
 */
class FRASK_API SystemError : public std::runtime_error {
 public:
  /** @param code  the errno value */
  SystemError(const std::string& message, int code);
  SystemError(const SystemError&) = default;
  SystemError& operator=(const SystemError&) = default;
  ~SystemError() override;

  /**
   * The full text, built on the first call and kept: it lives as long as the object. Where memory
   * for it is exhausted, the bare message.
   */
  const char* what() const noexcept override;

  /** The errno value that the error stands for. */
  int code() const noexcept { return code_; }

 private:
  int code_;
  mutable std::string text_;
};

/**
 * A failed system call whose code is N, so that a caller can catch, for instance, a missing file by
 * type. It exists for EPERM (1), ENOENT (2), EINTR (4), ECHILD (10) and EAGAIN (11).
 */
template <int N>
class FRASK_API ExSystemError : public SystemError {
  static_assert(N == 1 || N == 2 || N == 4 || N == 10 || N == 11,
                "only these five codes have a class of their own");

 public:
  /** The error with code N. */
  explicit ExSystemError(const std::string& message) : SystemError(message, N) {}
};

extern template class ExSystemError<1>;
extern template class ExSystemError<2>;
extern template class ExSystemError<4>;
extern template class ExSystemError<10>;
extern template class ExSystemError<11>;

/**
 * Throws the error for a failed system call; never returns.
 *
 * A code of 1, 2, 4, 10 or 11 throws its ExSystemError, any other a plain SystemError. Code 0
 * stands for the current errno and always throws a plain SystemError.
 */
[[noreturn]] FRASK_API void throwSystemError(const std::string& message, int code);

}  // namespace frask

#endif
