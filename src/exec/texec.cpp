#include "exec/texec.h"

#include <errno.h>
#include <sys/wait.h>
#include <unistd.h>

#include "exec/argv.private.h"
#include "exec/children.private.h"
#include "exec/spawn.private.h"

namespace frask::sys {
namespace {

bool has(const TExec& command, std::bitset<3> bit) {
  return (command.mode() & bit).any();
}

/// What execute() gives when a hook has kept the failure from being thrown.
constexpr TSLProcess kNothingStarted{-1, -1};

TSLProcess waitFor(int pid) {
  int status = 0;
  if (::waitpid(pid, &status, 0) == -1) throw TSysCallErr(errno);
  return {pid, WIFSIGNALED(status) ? -1 : WEXITSTATUS(status)};
}

TSLProcess goOnAsParent(TExec& command, TExec::TPrepare& hooks, int pid) {
  try {
    hooks.aft_fork4p(command);
    if (has(command, wait_mode)) return waitFor(pid);
  } catch (...) {
    abandon(pid);
    throw;
  }
  return {pid, 0};
}

}  // namespace

[[gnu::init_priority(101)]] const std::string TExec::bad_args_m = "Bad execute arguments";
[[gnu::init_priority(101)]] const TEArgs el;

TExec::TPrepare::~TPrepare() = default;
void TExec::TPrepare::bef_fork(TExec&) {}
bool TExec::TPrepare::fork_failed(TExec&) {
  return true;
}
void TExec::TPrepare::aft_fork4p(TExec&) {}
void TExec::TPrepare::aft_fork4d(TExec&) {}
void TExec::TPrepare::bef_exec(TExec&) {}
bool TExec::TPrepare::exec_failed(TExec&) {
  return true;
}

TExec::TExec(const TEArgs& args, std::bitset<3> mode) : args_(args), mode_(mode) {}

TSLProcess TExec::execute() {
  if (args_.empty()) throw TSysErr(bad_args_m);
  const Handle<TPrepare> held(preparation_);  // a hook may replace the object's own
  TPrepare none;
  TPrepare& hooks = held ? *held : none;
  if (has(*this, fork_mode)) {
    hooks.bef_fork(*this);
    collectAbandoned();
    int pid = spawn(*this, held.get());
    if (pid == -1) pid = ::fork();
    if (pid == -1) {
      const int error = errno;
      if (!hooks.fork_failed(*this)) return kNothingStarted;
      throw TSysCallErr(error);
    }
    if (pid != 0) return goOnAsParent(*this, hooks, pid);
    hooks.aft_fork4d(*this);
  }
  hooks.bef_exec(*this);
  exec_v(args_, has(*this, path_mode));
  const int error = errno;
  if (!hooks.exec_failed(*this)) return kNothingStarted;
  throw TSysCallErr(error);
}

TExecsList::TExecsList(const TExec& command) : commands_(1, command) {}

TSLProcess TExecsList::execute() {
  Unwaited others(size());
  return executeInOrder(*this, others);
}

int exec_v(const TEArgs& args, bool search_path) {
  const std::string& program = args[0];
  const Argv argv(args);
  return search_path ? ::execvp(program.c_str(), argv.get()) : ::execv(program.c_str(), argv.get());
}

}  // namespace frask::sys
