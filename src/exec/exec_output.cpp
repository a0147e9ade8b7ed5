#include <errno.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

#include "exec/children.private.h"
#include "exec/keep_errno.private.h"
#include "exec/texec.h"

namespace frask::sys {
namespace {

constexpr std::size_t kChunk = 1024;
constexpr int kSignalBits = 0x7f;
constexpr int kExitCodeShift = 8;
constexpr int kMomentMilliseconds = 20;

/// False when an error, not the end of data, has ended the reading.
bool readAll(int fd, std::string* out) {
  char chunk[kChunk];
  ssize_t got = 0;
  while ((got = ::read(fd, chunk, sizeof chunk)) > 0)
    out->append(chunk, static_cast<std::size_t>(got));
  return got == 0;
}

/// False also for what was waited for already, and for what has stopped: a wait returns at once.
bool runs(int pid) noexcept {
  siginfo_t info = {};
  constexpr int kLook = WEXITED | WSTOPPED | WNOHANG | WNOWAIT;
  return ::waitid(P_PID, static_cast<id_t>(pid), &info, kLook) == 0 && info.si_pid == 0;
}

/// As long as the writer runs, up to the end of data or an error that stays; whoever else holds the
/// pipe is not waited for.
void discard(int fd, int writer) noexcept {
  char chunk[kChunk];
  while (runs(writer)) {
    pollfd output = {fd, POLLIN, 0};
    if (::poll(&output, 1, kMomentMilliseconds) <= 0) continue;
    const ssize_t got = ::read(fd, chunk, sizeof chunk);
    if (got == 0 || (got == -1 && errno != EINTR)) return;
  }
}

// Deliberate: an error, an interruption included, ends what the caller gets as the end of data
// does. Pinned by ExecGetOutput.TakesAnInterruptedReadForTheEnd. The last command must not suffer
// from it: with nobody to read the rest, it would block for ever or die by SIGPIPE, and that would
// be the status.
void readOutput(int fd, std::string* out, int writer) {
  const KeepErrno keep;
  if (!readAll(fd, out)) discard(fd, writer);
}

}  // namespace

void execGetOutput(std::string* out, int* status, const TExecsList& line) {
  auto* const capture = new TReadOut;
  const Handle<TExec::TPrepare> owner(capture);
  TExecsList captured(line);
  captured += owner;
  if (captured.empty()) {
    *status = 0;
    return;
  }
  Unwaited processes(captured.size());
  const TSLProcess last = executeInOrder(captured, processes);
  processes.note(captured.back(), last);
  readOutput(capture->read_end(), out, last.pid);
  capture->close_read_end();  // after an error that stays, a writer is not to wait for us
  *status = processes.settle(last);
  processes.settleAll();
}

std::string& operator<<=(std::string& out, const TExecsList& line) {
  int status = 0;
  execGetOutput(&out, &status, line);
  if ((status & kSignalBits) != 0)
    throw std::runtime_error("child failed (status=" + std::to_string(status) + "): " + out);
  if (const int code = status >> kExitCodeShift; code != 0)
    throw std::runtime_error("child failed (exit code=" + std::to_string(code) + "): " + out);
  return out;
}

std::string& operator<<=(std::string& out, const TExec& command) {
  return out <<= TExecsList(command);
}

}  // namespace frask::sys
