#include "exec/members.h"

#include <stdarg.h>
#include <stdlib.h>

#include <string>

#include "exec/exec_support.h"
#include "exec/forkexec.h"
#include "log/c_string.private.h"

namespace exectest {
namespace {

constexpr const char* kName = "members-probe";

int raw(const char* path, ...) {
  va_list args;
  va_start(args, path);
  const int result = path_exec_raw(path, args);
  va_end(args);
  return result;
}

/// A routine's captured texts, which are not looked at.
class Texts {
 public:
  ~Texts() {
    free(out);
    free(err);
  }
  char* out = nullptr;
  char* err = nullptr;
};

Argv exit_with(const char* code) {
  return Argv({kProbe, "exit", code});
}

std::string command(const char* code) {
  return std::string("exec '") + kProbe + "' exit " + code;
}

int run_pipes(const char* code) {
  return fork_exec_waitpid(fork_execv_pipes(0, 1, 2, kProbe, exit_with(code).get()), "probe",
                           nullptr);
}

int run_pipes_list(const char* code) {
  return fork_exec_getres(fork_execl_pipes(-1, -1, -1, kProbe, "probe", "exit", code, nullptr),
                          "probe");
}

int run_getout(const char* code) {
  Texts texts;
  return fork_execv_getout(&texts.out, kProbe, exit_with(code).get());
}

int run_getout_list(const char* code) {
  Texts texts;
  return fork_execl_getout(&texts.out, kProbe, "probe", "exit", code, nullptr);
}

int run_getouterr(const char* code) {
  Texts texts;
  return fork_execv_getouterr(&texts.out, &texts.err, kProbe, exit_with(code).get());
}

int run_getouterr_list(const char* code) {
  Texts texts;
  return fork_execl_getouterr(&texts.out, &texts.err, kProbe, "probe", "exit", code, nullptr);
}

int run_do_exec(const char* code) {
  const int status = do_exec(kProbe, exit_with(code).get());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int run_popen_getoutput(const char* code) {
  Texts texts;
  return popen_exec_getoutput(&texts.out, command(code).c_str());
}

}  // namespace

const std::vector<Member>& waiting_members() {
  static const std::vector<Member> members = {
      {"fork_execv_pipes, fork_exec_waitpid", Start::kSpawn, run_pipes},
      {"fork_execl_pipes, fork_exec_getres", Start::kSpawn, run_pipes_list},
      {"fork_execv_getout", Start::kSpawn, run_getout},
      {"fork_execl_getout", Start::kSpawn, run_getout_list},
      {"fork_execv_getouterr", Start::kSpawn, run_getouterr},
      {"fork_execl_getouterr", Start::kSpawn, run_getouterr_list},
      {"fork_execv_log", Start::kSpawn,
       [](const char* code) { return fork_execv_log(kProbe, exit_with(code).get(), 1); }},
      {"fork_execl_log", Start::kSpawn,
       [](const char* code) { return fork_execl_log(kProbe, "probe", "exit", code, nullptr); }},
      {"path_exec", Start::kSpawn,
       [](const char* code) { return path_exec(kProbe, "exit", code, nullptr); }},
      {"path_exec_raw", Start::kSpawn,
       [](const char* code) { return raw(kProbe, "exit", code, nullptr); }},
      {"util_exec", Start::kSpawn,
       [](const char* code) { return util_exec(kName, "exit", code, nullptr); }},
      {"util_exec_args", Start::kSpawn,
       [](const char* code) { return util_exec_args(kName, exit_with(code).get()); }},
      {"util_libexec", Start::kSpawn,
       [](const char* code) { return util_libexec(kName, "exit", code, nullptr); }},
      {"fork_execv_fd", Start::kFork,
       [](const char* code) { return fork_execv_fd(-1, -1, kProbe, exit_with(code).get()); }},
      {"do_exec", Start::kFork, run_do_exec},
      {"popen_exec_with_input", Start::kFork,
       [](const char* code) { return popen_exec_with_input(command(code).c_str(), ""); }},
      {"popen_exec_getoutput", Start::kFork, run_popen_getoutput},
      {"popen_exec", Start::kFork,
       [](const char* code) { return popen_exec(command(code).c_str()); }},
      {"fork_execv", Start::kFork,
       [](const char* code) { return fork_execv(kProbe, "exit", code, nullptr); }},
  };
  return members;
}

void install_for_members() {
  install_libexec(kName);
  install_utility(kName);
}

}  // namespace exectest
