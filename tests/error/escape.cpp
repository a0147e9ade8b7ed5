// Ends in the way that its argument names, with a static object and an atexit() handler that tell
// when they run.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <exception>
#include <stdexcept>
#include <string>

#include "error/SystemError.h"
#include "error/terminate.h"

namespace {

struct Told {
  ~Told() { puts("static destructor"); }
} told;

[[noreturn]] void throw_boom() {
  throw std::runtime_error("boom");
}

struct ThrowingWhat : std::exception {
  const char* what() const noexcept override { throw_boom(); }
};

struct OtherClass {};

void end_as(const std::string& way) {
  if (way == "runtime_error") throw_boom();
  if (way == "empty") throw std::runtime_error("");
  if (way == "percent") throw std::runtime_error("100%n%s");
  if (way == "system_error") frask::throwSystemError("waitpid() failed", ECHILD);
  if (way == "int") throw 7;
  if (way == "class") throw OtherClass();
  if (way == "c_string") throw "text";
  if (way == "none") std::terminate();
  if (way == "throwing_what") throw ThrowingWhat();
  if (way == "at_exit") {
    static_cast<void>(atexit(throw_boom));
    throw_boom();
  }
  if (way == "noexcept") []() noexcept { throw_boom(); }();
}

}  // namespace

int main(int argc, char** argv) {
  static_cast<void>(atexit([] { puts("atexit handler"); }));
  oxa_set_terminate();
  fputs("buffered\n", stdout);
  end_as(argc > 1 ? argv[1] : "");
  return 0;
}
