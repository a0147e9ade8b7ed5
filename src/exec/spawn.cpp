#include <spawn.h>
#include <unistd.h>

#include <typeinfo>

#include "exec/argv.private.h"
#include "exec/keep_errno.private.h"
#include "exec/spawn.private.h"

namespace frask::sys {
namespace {

/// What is done to the child's descriptors, step by step as the preparations do it in a forked
/// child, lest the two differ where an earlier one has given a pipe's number to something else.
class Actions {
 public:
  Actions() : usable_(posix_spawn_file_actions_init(&actions_) == 0) {}
  Actions(const Actions&) = delete;
  Actions& operator=(const Actions&) = delete;
  ~Actions() {
    if (usable_) posix_spawn_file_actions_destroy(&actions_);
  }

  bool usable() const noexcept { return usable_; }
  const posix_spawn_file_actions_t* get() const noexcept { return &actions_; }

  /// False for a source that is not a descriptor or that the child is to find closed.
  bool dup2(int source, int target) noexcept {
    return source != target && posix_spawn_file_actions_adddup2(&actions_, source, target) == 0;
  }

  /// Of a pipe, one end becomes `target` and the other is closed.
  bool keep(int kept, int other, int target) noexcept {
    return close(other) && dup2(kept, target) && close(kept);
  }

 private:
  bool close(int fd) noexcept { return posix_spawn_file_actions_addclose(&actions_, fd) == 0; }

  posix_spawn_file_actions_t actions_;
  bool usable_;
};

bool add(Actions& actions, const TExec::TPrepare* preparation);

bool addBoth(Actions& actions, const TUnionPrep& both) {
  return add(actions, both.first().get()) && add(actions, both.second().get());
}

/// False when the preparation is not one of those that can be told as duplications. A class derived
/// from one of them may do anything: the type must be exact.
bool add(Actions& actions, const TExec::TPrepare* preparation) {
  if (preparation == nullptr) return true;
  const std::type_info& type = typeid(*preparation);
  if (type == typeid(TUnionPrep))
    return addBoth(actions, static_cast<const TUnionPrep&>(*preparation));
  if (type == typeid(TReadOut)) {
    const auto& output = static_cast<const TReadOut&>(*preparation);
    return actions.keep(output.write_end(), output.read_end(), STDOUT_FILENO);
  }
  if (type == typeid(TWriteToPipeline)) {
    const TPipe& pipe = static_cast<const TWriteToPipeline&>(*preparation).pipe();
    return actions.keep(pipe.write_end(), pipe.read_end(), STDOUT_FILENO);
  }
  if (type == typeid(TReadFromPipeline)) {
    const TPipe& pipe = static_cast<const TReadFromPipeline&>(*preparation).pipe();
    return actions.keep(pipe.read_end(), pipe.write_end(), STDIN_FILENO);
  }
  if (type == typeid(TRedirect)) {
    const auto& redirect = static_cast<const TRedirect&>(*preparation);
    return actions.dup2(redirect.source(), redirect.target());
  }
  return false;
}

}  // namespace

int spawn(const TExec& command, const TExec::TPrepare* preparation) {
  const KeepErrno keep;  // the search for the program sets it, though it succeeds in the end
  Actions actions;
  if (!actions.usable() || !add(actions, preparation)) return -1;
  const Argv argv(command.args());
  const bool search = (command.mode() & path_mode).any();
  const auto start = search ? posix_spawnp : posix_spawn;
  pid_t pid = -1;
  const int error = start(&pid, argv.get()[0], actions.get(), nullptr, argv.get(), environ);
  return error == 0 ? pid : -1;
}

}  // namespace frask::sys
