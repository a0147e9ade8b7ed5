#include <unistd.h>

#include <stdexcept>

#include "exec/children.private.h"
#include "exec/texec.h"

namespace frask::sys {
namespace {

constexpr std::size_t kChunk = 1024;
constexpr int kSignalBits = 0x7f;
constexpr int kExitCodeShift = 8;

// Deliberate: an error, an interruption included, ends the reading as the end of data does. Pinned
// by ExecGetOutput.TakesAnInterruptedReadForTheEnd.
void readAll(int fd, std::string* out) {
  char chunk[kChunk];
  for (ssize_t got; (got = ::read(fd, chunk, sizeof chunk)) > 0;)
    out->append(chunk, static_cast<std::size_t>(got));
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
  readAll(capture->read_end(), out);
  capture->close_read_end();  // a writer that is still there is not to wait for us
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
