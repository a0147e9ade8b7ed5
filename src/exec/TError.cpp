#include "exec/TError.h"

#include <string.h>

namespace frask {

TFreeback::~TFreeback() = default;

TError::TError(const std::string& message, const Handle<TFreeback>& freeback)
    : message_(message), freeback_(freeback) {}

TError::~TError() = default;

const char* TError::what() const noexcept {
  return message_.c_str();
}

namespace sys {

TSysErr::~TSysErr() = default;

TSysCallErr::TSysCallErr(int errnum) : TSysErr(strerror(errnum)), errnum_(errnum) {}

TSysCallErr::~TSysCallErr() = default;

}  // namespace sys
}  // namespace frask
