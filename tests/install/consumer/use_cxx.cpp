// A program outside the tree, in C++: it includes every header, uses objects of the library, and
// catches by type what the library throws.
#include <iostream>
#include <stdexcept>
#include <string>

#include "all_headers.h"

namespace {

int failures = 0;

void check(bool holds, const char* what) {
  if (holds) return;
  std::cerr << "use_cxx: " << what << "\n";
  ++failures;
}

template <class Error, class Body>
bool throws(Body body) {
  try {
    body();
  } catch (const Error&) {
    return true;
  } catch (...) {
  }
  return false;
}

void use_patterns() {
  const frask::Regexp word("([a-z]+)$", REG_EXTENDED);
  const auto found = word.match("one two", 2, 0);
  check(found && found->getString(1) == "two", "Regexp");
  check(throws<std::runtime_error>([] { frask::Regexp("(", REG_EXTENDED); }), "a bad pattern");
}

void use_errors() {
  check(throws<frask::ExSystemError<2>>([] { frask::throwSystemError("open", 2); }), "ENOENT");
  check(throws<frask::SystemError>([] { frask::throwSystemError("open", 13); }), "EACCES");
  check(throws<frask::sys::TEArgs::TOutOfRange>([] { frask::sys::el[0].size(); }), "TOutOfRange");
}

void use_processes() {
  frask::sys::TEArgs echo;
  echo.push_back("echo");
  echo.push_back("heard");
  frask::sys::TEArgs cat;
  cat.push_back("cat");
  std::string output;
  output <<= (frask::sys::TExec(echo) | frask::sys::TExec(cat));
  check(output == "heard\n", "a pipeline");
}

}  // namespace

int main() {
  use_patterns();
  use_errors();
  use_processes();
  return failures == 0 ? 0 : 1;
}
