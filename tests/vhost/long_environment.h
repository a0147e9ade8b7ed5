// A file that tells no size and does not fit into one piece.
#ifndef TESTS_VHOST_LONG_ENVIRONMENT_H
#define TESTS_VHOST_LONG_ENVIRONMENT_H

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace vhosttest {

/// The environment of a program that does nothing, as it lies below /proc: more than 360,000 bytes.
class LongEnvironment {
 public:
  /// @param last  what its last variable holds
  explicit LongEnvironment(const std::string& last) {
    std::vector<std::string> variables(3, "A=" + std::string(120000, 'a'));
    variables.push_back("B=" + last);
    std::vector<char*> environment;
    for (std::string& variable : variables) environment.push_back(variable.data());
    environment.push_back(nullptr);
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    pid_ = fork();
    if (pid_ == 0) {
      execle("/bin/sleep", "sleep", "600", nullptr, environment.data());
      _exit(1);
    }
    close(ends[1]);
    char byte = 0;
    const bool started = pid_ > 0 && read(ends[0], &byte, 1) == 0;  // closed by the execution
    close(ends[0]);
    if (!started) throw std::runtime_error("nothing to look at");
  }
  ~LongEnvironment() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  LongEnvironment(const LongEnvironment&) = delete;
  LongEnvironment& operator=(const LongEnvironment&) = delete;

  std::string path() const { return "/proc/" + std::to_string(pid_) + "/environ"; }

 private:
  pid_t pid_;
};

}  // namespace vhosttest

#endif
