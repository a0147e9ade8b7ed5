// What the tests of the process objects run, and how they watch it.
#ifndef TESTS_EXEC_COMMANDS_H
#define TESTS_EXEC_COMMANDS_H

#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include "exec/texec.h"
#include "support/child.h"

namespace testexec {

frask::sys::TEArgs arguments(std::initializer_list<std::string> words);

/// A command in the default mode.
frask::sys::TExec command(std::initializer_list<std::string> words);

/// "sh -c script" in the default mode.
frask::sys::TExec shell(const std::string& script);

/// The same command, or the last one of the same line, but with code of ours among its hooks, so
/// that it is started by a fork.
frask::sys::TExec forked(frask::sys::TExec plain);

/// The command as a line of one, and the same started by a fork: whatever a preparation does must
/// not depend on how the program is started.
std::vector<frask::sys::TExec> both_starts(const frask::sys::TExec& plain);

/// What execGetOutput() gives, and the status.
struct Captured {
  std::string out;
  int status = -1;
};
Captured capture(const frask::sys::TExecsList& line);

inline constexpr int kFailedInCaller = 101;
inline constexpr int kFailedInChild = 102;

/// Runs `body` in a process of its own that has no descriptors but the standard ones. An exception
/// ends the process that it reaches the end of the body in, with its text on standard error and one
/// of the two statuses above.
testsupport::Outcome alone(const std::function<void()>& body);

/// True when this process has no child, ended or not.
bool childless();

/// Blocks until a child has ended, without collecting it.
void await_end_of_a_child();

/// Makes this process an unprivileged user's, who may have no more than `processes` of them.
void limit_processes(unsigned long processes);

/// Makes the fork of its command fail, and no other; for a process that limit_processes() has
/// changed.
class Unforkable : public frask::sys::TExec::TPrepare {
 public:
  explicit Unforkable(bool answer) : answer_(answer) {}
  void bef_fork(frask::sys::TExec&) override;
  bool fork_failed(frask::sys::TExec&) override;

 private:
  bool answer_;
};

/// Notes each call as one line of a file, "parent NAME" or "child NAME"; the process that made it
/// is the parent.
class Recorder : public frask::sys::TExec::TPrepare {
 public:
  explicit Recorder(std::string path, std::string name = "");
  void bef_fork(frask::sys::TExec&) override;
  bool fork_failed(frask::sys::TExec&) override;
  void aft_fork4p(frask::sys::TExec&) override;
  void aft_fork4d(frask::sys::TExec&) override;
  void bef_exec(frask::sys::TExec&) override;
  bool exec_failed(frask::sys::TExec&) override;

  bool fork_answer = true;
  bool exec_answer = true;

 private:
  void note(const char* hook) const;

  std::string path_;
  std::string name_;
  int parent_;
};

/// Those lines of a record that begin with `who`, without it, in order.
std::vector<std::string> recorded(const std::string& path, const std::string& who);

}  // namespace testexec

#endif
