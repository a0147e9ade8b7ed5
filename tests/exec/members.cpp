#include "exec/members.h"

#include <stdlib.h>

#include <string>

#include "exec/exec_support.h"
#include "exec/forkexec.h"
#include "log/c_string.private.h"
#include "support/exec_raw.h"

namespace exectest {
namespace {

// Not the probe: under a sanitizer that takes ten times as long to start.
constexpr const char* kShell = "/bin/sh";
constexpr const char* kName = "members-shell";

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

std::string script(const char* code) {
  return std::string("exit ") + code;
}

Argv exit_with(const char* code) {
  return shell(script(code));
}

int run_pipes(const char* code) {
  return fork_exec_waitpid(fork_execv_pipes(0, 1, 2, kShell, exit_with(code).get()), "shell",
                           nullptr);
}

int run_pipes_list(const char* code) {
  return fork_exec_getres(
      fork_execl_pipes(-1, -1, -1, kShell, "sh", "-c", script(code).c_str(), nullptr), "shell");
}

int run_getout(const char* code) {
  Texts texts;
  return fork_execv_getout(&texts.out, kShell, exit_with(code).get());
}

int run_getout_list(const char* code) {
  Texts texts;
  return fork_execl_getout(&texts.out, kShell, "sh", "-c", script(code).c_str(), nullptr);
}

int run_getouterr(const char* code) {
  Texts texts;
  return fork_execv_getouterr(&texts.out, &texts.err, kShell, exit_with(code).get());
}

int run_getouterr_list(const char* code) {
  Texts texts;
  return fork_execl_getouterr(&texts.out, &texts.err, kShell, "sh", "-c", script(code).c_str(),
                              nullptr);
}

int run_do_exec(const char* code) {
  const int status = do_exec(kShell, exit_with(code).get());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int run_popen_getoutput(const char* code) {
  Texts texts;
  return popen_exec_getoutput(&texts.out, script(code).c_str());
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
       [](const char* code) { return fork_execv_log(kShell, exit_with(code).get(), 1); }},
      {"fork_execl_log", Start::kSpawn,
       [](const char* code) {
         return fork_execl_log(kShell, "sh", "-c", script(code).c_str(), nullptr);
       }},
      {"path_exec", Start::kSpawn,
       [](const char* code) { return path_exec(kShell, "-c", script(code).c_str(), nullptr); }},
      {"path_exec_raw", Start::kSpawn,
       [](const char* code) {
         return testsupport::exec_raw(kShell, "-c", script(code).c_str(), nullptr);
       }},
      {"util_exec", Start::kSpawn,
       [](const char* code) { return util_exec(kName, "-c", script(code).c_str(), nullptr); }},
      {"util_exec_args", Start::kSpawn,
       [](const char* code) { return util_exec_args(kName, exit_with(code).get()); }},
      {"util_libexec", Start::kSpawn,
       [](const char* code) { return util_libexec(kName, "-c", script(code).c_str(), nullptr); }},
      {"fork_execv_fd", Start::kFork,
       [](const char* code) { return fork_execv_fd(-1, -1, kShell, exit_with(code).get()); }},
      {"do_exec", Start::kFork, run_do_exec},
      {"popen_exec_with_input", Start::kFork,
       [](const char* code) { return popen_exec_with_input(script(code).c_str(), ""); }},
      {"popen_exec_getoutput", Start::kFork, run_popen_getoutput},
      {"popen_exec", Start::kFork,
       [](const char* code) { return popen_exec(script(code).c_str()); }},
      {"fork_execv", Start::kFork,
       [](const char* code) { return fork_execv(kShell, "-c", script(code).c_str(), nullptr); }},
  };
  return members;
}

void install_for_members() {
  install_libexec(kName, kShell);
  install_utility(kName, kShell);
}

}  // namespace exectest
