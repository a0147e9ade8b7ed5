#include "exec/commands.h"

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <stdio.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "support/scratch.h"

using frask::sys::TEArgs;
using frask::sys::TExec;
using frask::sys::TExecsList;

namespace testexec {
namespace {

constexpr uid_t kFirstUnusedUser = 1000000;

void must(bool done, const char* what) {
  if (!done) throw std::runtime_error(std::string("cannot ") + what);
}

/// As far as the hard limit goes.
void allow_processes(rlim_t most) {
  rlimit limit = {};
  must(getrlimit(RLIMIT_NPROC, &limit) == 0, "get the limit of processes");
  limit.rlim_cur = std::min(most, limit.rlim_max);
  must(setrlimit(RLIMIT_NPROC, &limit) == 0, "limit the processes");
}

}  // namespace

TEArgs arguments(std::initializer_list<std::string> words) {
  TEArgs args;
  for (const std::string& word : words) args.push_back(word);
  return args;
}

TExec command(std::initializer_list<std::string> words) {
  return TExec(arguments(words));
}

TExec shell(const std::string& script) {
  return command({"sh", "-c", script});
}

TExec forked(TExec plain) {
  class Ours : public TExec::TPrepare {};
  plain += frask::Handle<TExec::TPrepare>(new Ours);
  return plain;
}

std::vector<TExec> both_starts(const TExec& plain) {
  return {plain, forked(plain)};
}

Captured capture(const TExecsList& line) {
  Captured captured;
  execGetOutput(&captured.out, &captured.status, line);
  return captured;
}

testsupport::Outcome alone(const std::function<void()>& body) {
  return testsupport::in_child([&body] {
    close_range(STDERR_FILENO + 1, ~0U, 0);
    const pid_t caller = getpid();
    std::string text = "not a std::exception";
    try {
      body();
      return;
    } catch (const std::exception& error) {
      text = error.what();
    } catch (...) {
    }
    dprintf(STDERR_FILENO, "%s", text.c_str());
    _exit(getpid() == caller ? kFailedInCaller : kFailedInChild);
  });
}

bool childless() {
  siginfo_t info = {};
  return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == -1 && errno == ECHILD;
}

void await_end_of_a_child() {
  siginfo_t info = {};
  must(waitid(P_ALL, 0, &info, WEXITED | WNOWAIT) == 0, "wait");
}

void limit_processes(unsigned long processes) {
  const rlimit limit{processes, processes};
  // A user of its own: tests that run at the same time are not to count.
  const uid_t user = kFirstUnusedUser + static_cast<uid_t>(getpid());
  must(setgroups(0, nullptr) == 0 && setgid(user) == 0 && setuid(user) == 0, "change the user");
  must(setrlimit(RLIMIT_NPROC, &limit) == 0, "limit the processes");
}

void Unforkable::bef_fork(TExec&) {
  allow_processes(0);
}

bool Unforkable::fork_failed(TExec&) {
  const int error = errno;
  allow_processes(RLIM_INFINITY);
  errno = error;
  return answer_;
}

Recorder::Recorder(std::string path, std::string name)
    : path_(std::move(path)), name_(std::move(name)), parent_(getpid()) {}

void Recorder::note(const char* hook) const {
  const int error = errno;
  const int fd = open(path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
  dprintf(fd, "%s%s%s\n", getpid() == parent_ ? "parent " : "child ", hook, name_.c_str());
  close(fd);
  errno = error;
}

void Recorder::bef_fork(TExec&) {
  note("bef_fork");
}

bool Recorder::fork_failed(TExec&) {
  note("fork_failed");
  return fork_answer;
}

void Recorder::aft_fork4p(TExec&) {
  note("aft_fork4p");
}
void Recorder::aft_fork4d(TExec&) {
  note("aft_fork4d");
}
void Recorder::bef_exec(TExec&) {
  note("bef_exec");
}

bool Recorder::exec_failed(TExec&) {
  note("exec_failed");
  return exec_answer;
}

std::vector<std::string> recorded(const std::string& path, const std::string& who) {
  std::vector<std::string> hooks;
  if (access(path.c_str(), F_OK) != 0) return hooks;
  std::istringstream lines(testsupport::read_file(path));
  for (std::string line; std::getline(lines, line);)
    if (line.rfind(who + " ", 0) == 0) hooks.push_back(line.substr(who.size() + 1));
  return hooks;
}

}  // namespace testexec
