/**
 * @file
 * The exceptions of the process objects.
 */
#ifndef FRASK_EXEC_TERROR_H
#define FRASK_EXEC_TERROR_H

#include <exception>
#include <string>

#include "exec/Handle.h"
#include "log/api.h"

namespace frask {

/**
 * What an error owns besides its text: destroyed with the last copy of the error. A class derived
 * from it learns that way that the error has been dealt with.
 */
class FRASK_API TFreeback {
 public:
  TFreeback() = default;
  TFreeback(const TFreeback&) = default;
  TFreeback& operator=(const TFreeback&) = default;
  virtual ~TFreeback();
};

/** The root of these exceptions, which are no relatives of frask::SystemError. */
class FRASK_API TError : public std::exception {
 public:
  /** @param freeback  what the error is to own */
  explicit TError(const std::string& message,
                  const Handle<TFreeback>& freeback = Handle<TFreeback>(new TFreeback));
  TError(const TError&) = default;
  TError& operator=(const TError&) = default;
  ~TError() override;

  /** The message; it lives as long as the error. */
  const char* what() const noexcept override;

 private:
  std::string message_;
  Handle<TFreeback> freeback_;
};

namespace sys {

/** Whatever goes wrong with an argument vector, a process or a preparation. */
class FRASK_API TSysErr : public TError {
 public:
  using TError::TError;
  TSysErr(const TSysErr&) = default;
  TSysErr& operator=(const TSysErr&) = default;
  ~TSysErr() override;
};

/** A failed system call; the message is the system's text for its error number and no more. */
class FRASK_API TSysCallErr : public TSysErr {
 public:
  /** @param errnum  an errno value */
  explicit TSysCallErr(int errnum);
  TSysCallErr(const TSysCallErr&) = default;
  TSysCallErr& operator=(const TSysCallErr&) = default;
  ~TSysCallErr() override;

  /** The errno value that the error stands for. */
  int error_number() const noexcept { return errnum_; }

 private:
  int errnum_;
};

}  // namespace sys
}  // namespace frask

#endif
