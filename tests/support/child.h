// Runs code or programs in a child process and captures what they write.
#ifndef TESTS_SUPPORT_CHILD_H
#define TESTS_SUPPORT_CHILD_H

#include <functional>
#include <map>
#include <ostream>
#include <string>
#include <vector>

namespace testsupport {

/// How a child ended, and every byte that it and its own children wrote.
struct Outcome {
  std::string out;
  std::string err;
  int status = -1;  ///< as waitpid() gives it

  /// The exit status, or minus the number of the signal that ended it.
  int exit_code() const;
};

bool operator==(const Outcome& a, const Outcome& b);
std::ostream& operator<<(std::ostream& stream, const Outcome& outcome);

struct RunOptions {
  std::string input;                               ///< standard input
  std::map<std::string, std::string> environment;  ///< set on top of the present environment
  std::string directory;                           ///< working directory; empty: the present one
};

/// Runs `body` in a forked child with both streams captured. A return ends the child through
/// exit(0). Under a failed set-up the child ends with status 97.
Outcome in_child(const std::function<void()>& body, const RunOptions& options = {});

/// Runs a program found as execvp() finds it; one that cannot be started gives exit status 98.
Outcome run(const std::vector<std::string>& arguments, const RunOptions& options = {});

/// The numbers of the descriptors that this process has open, in ascending order.
std::vector<int> open_descriptors();

}  // namespace testsupport

#endif
