// Captures in a form that tests can compare, and children that are held up.
#ifndef TESTS_EXEC_CAPTURES_H
#define TESTS_EXEC_CAPTURES_H

#include <string>

#include "exec/exec_support.h"
#include "support/scratch.h"

namespace exectest {

/// A result and what was captured; "(null)" for no text.
struct Captured {
  int result;
  std::string out;
  std::string err;
};

Captured capture_out(const Argv& argv);
Captured capture_both(const Argv& argv);

/// Writes the three to standard output, parted by "|".
void print(const Captured& captured);

/// A named pipe: what reads it is held up until release().
class Gate {
 public:
  Gate();
  std::string path() const { return scratch_ / "gate"; }
  void release() const;

 private:
  testsupport::ScratchDir scratch_;
};

}  // namespace exectest

#endif
