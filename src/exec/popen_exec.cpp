#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>

#include "exec/forkexec.h"
#include "log/c_string.private.h"
#include "log/messlog.h"

namespace {

constexpr size_t kTextGrowth = 4096;

// Deliberate: only the exit byte counts, so a command killed by a signal reads as 0, and callers
// rely on it. Pinned by PopenExec.ReadsDeathBySignalAsSuccess.
int popen_result(int status) {
  return status == -1 ? -1 : WEXITSTATUS(status);
}

/// Leaves errno to the caller's report.
void complain(const char* line) {
  const int error = errno;
  fputs(line, stderr);
  errno = error;
}

/// Reads to the end of the stream into `text`, which has room for kTextGrowth bytes and a
/// terminator.
void read_stream(FILE* stream, frask::CString& text) {
  size_t capacity = kTextGrowth;
  size_t used = 0;
  for (;;) {
    used += fread(text.get() + used, 1, capacity - used, stream);
    if (used < capacity) break;
    if (frask::resize(text, capacity + kTextGrowth + 1)) {
      capacity += kTextGrowth;
      continue;
    }
    complain("popen_exec: warning: failed to allocate memory for command output buffer\n");
    // Deliberate: part of an output is worse than none. Pinned by
    // PopenExecGetoutput.DropsTheWholeTextWhenMemoryRunsOut.
    used = 0;
    break;
  }
  text.get()[used] = '\0';
}

}  // namespace

int popen_exec_with_input(const char* command, const char* input) {
  // NOLINTNEXTLINE(cert-env33-c,bugprone-command-processor): a line for a shell is asked for
  FILE* stream = popen(command, "w");
  if (stream == nullptr) {
    messlog2(0, 0,
             "Failed to execute command with input: either pipe, fork or memory allocation "
             "failed.");
    return -1;
  }
  const size_t total = strlen(input);
  const size_t written = fwrite(input, 1, total, stream);
  const int status = pclose(stream);
  if (written < total) {
    messlog2(0, 0, "Failed to execute command with input: only %lu of %lu bytes were written.",
             written, total);
    return -1;
  }
  return popen_result(status);
}

int popen_exec_getoutput(char** out, const char* command) {
  // NOLINTNEXTLINE(cert-env33-c,bugprone-command-processor): a line for a shell is asked for
  FILE* stream = popen(command, "r");
  if (stream == nullptr) {
    complain(
        "popen_exec: failed to execute command: fork or pipe calls failed, or cannot allocate "
        "memory\n");
    return -1;
  }
  frask::CString text(static_cast<char*>(malloc(kTextGrowth + 1)));
  if (text == nullptr) {
    complain("popen_exec: failed to allocate memory\n");
    pclose(stream);
    return -1;
  }
  read_stream(stream, text);
  const int status = pclose(stream);
  *out = text.release();
  return popen_result(status);
}

int popen_exec(const char* command) {
  char* output = nullptr;
  const int rc = popen_exec_getoutput(&output, command);
  const frask::CString owner(output);
  if (rc == -1)
    messlog2(0, 1, "popen_exec: failed to execute command: %s\n", strerror(errno));
  else if (rc != 0)
    messlog2(0, 1, "popen_exec: command failed code: %d , %s\n", rc,
             output != nullptr && *output != '\0' ? output : "error: none");
  return rc;
}
