#include "calls.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>

#include "fs/unique_fd.h"
#include "program.h"

namespace bench {
namespace {

constexpr const char* kLog = "/mnt/strace-log";

/// A process that waits for one byte, does the run and ends without another call than _exit().
pid_t fork_waiting(const Contender& contender, int gate) {
  const pid_t pid = fork();
  require(pid >= 0, "fork");
  if (pid > 0) return pid;
  char byte = 0;
  if (read(gate, &byte, 1) == 1) contender.run();
  _exit(0);
}

pid_t spawn_strace(pid_t traced) {
  std::string pid = std::to_string(traced);
  const char* argv[] = {"strace", "-f", "-qq", "-s", "0", "-o", kLog, "-p", pid.c_str(), nullptr};
  pid_t strace = -1;
  const int error =
      posix_spawnp(&strace, "strace", nullptr, nullptr, const_cast<char**>(argv), environ);
  require(error == 0, "strace");
  return strace;
}

bool is_traced(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);)
    if (line.rfind("TracerPid:", 0) == 0) return line.find_first_of("123456789") != line.npos;
  return false;
}

void await_tracer(pid_t pid, pid_t strace) {
  while (!is_traced(pid)) {
    require(waitpid(strace, nullptr, WNOHANG) == 0, "strace could not attach");
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

/// A call takes one line, or two if it was interrupted by another process's. strace's own sums (-c)
/// leave out the calls whose names it does not know, such as those that are younger than it.
bool begins_call(const std::string& line) {
  return line.find('(') != line.npos && line.find(" resumed>") == line.npos &&
         line.find(" --- SIG") == line.npos && line.find(" +++ ") == line.npos;
}

long calls_in_log() {
  std::ifstream log(kLog);
  require(log.is_open(), kLog);
  long calls = 0;
  for (std::string line; std::getline(log, line);) calls += begins_call(line) ? 1 : 0;
  require(unlink(kLog) == 0, kLog);
  return calls;
}

}  // namespace

long count_calls(const Contender& contender) {
  if (contender.prepare) contender.prepare();
  int ends[2];
  require(pipe2(ends, O_CLOEXEC) == 0, "pipe");
  const frask::UniqueFd gate(ends[0]);
  const frask::UniqueFd key(ends[1]);
  const pid_t traced = fork_waiting(contender, gate.get());
  const pid_t strace = spawn_strace(traced);
  await_tracer(traced, strace);
  require(write(key.get(), "", 1) == 1, "write");
  int status = 0;
  require(waitpid(traced, &status, 0) == traced && status == 0, "the traced run failed");
  require(waitpid(strace, nullptr, 0) == strace, "strace");
  return calls_in_log() - 2;  // the read() of the gate and _exit()
}

}  // namespace bench
