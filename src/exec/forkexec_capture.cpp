#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "exec/forkexec.h"
#include "exec/pipe.private.h"
#include "log/c_string.private.h"
#include "log/messlog.h"

namespace {

constexpr int kGrowth = 4096;
constexpr int kRoomWanted = 2048;
constexpr int kPatienceMilliseconds = 1000;
constexpr int kLarge = 1048576;

int grown_size(int size) {
  if (size <= kGrowth) return size + kGrowth;
  return size > INT_MAX / 2 ? INT_MAX : size * 2;
}

/// False with errno set when the buffer cannot grow.
bool grow(char** buf, int* size) {
  if (*size == INT_MAX) {
    errno = ENOMEM;
    return false;
  }
  const int wanted = grown_size(*size);
  char* grown = static_cast<char*>(realloc(*buf, static_cast<size_t>(wanted)));
  if (grown == nullptr) return false;
  *buf = grown;
  *size = wanted;
  return true;
}

bool has_room(int size, int len) {
  if (size == INT_MAX) return size - len > 1;  // the largest one is used to its end
  return size - len > kRoomWanted;
}

uintptr_t page_size() {
  return static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
}

/// One output of a child on its way into the caller's text.
class Capture {
 public:
  explicit Capture(char** text) noexcept : text_(text) { *text_ = nullptr; }

  bool open_pipe() noexcept { return pipe_.open(); }
  bool set_nonblocking() noexcept { return fcntl(pipe_.read_end.get(), F_SETFL, O_NONBLOCK) == 0; }
  int write_end() const noexcept { return pipe_.write_end.get(); }
  void close_write_end() noexcept { pipe_.write_end.reset(); }

  bool at_end() const noexcept { return !pipe_.read_end; }
  pollfd interest() const noexcept { return {pipe_.read_end.get(), POLLIN, 0}; }

  void read_once() noexcept {
    if (length_ >= kLarge) make_way();
    int fd = pipe_.read_end.release();
    read_to_buf(&fd, text_, &size_, &length_);
    pipe_.read_end.reset(fd);
  }

  /// Takes what lies in the pipe now, however much others go on writing.
  void read_rest() noexcept {
    int waiting = 0;
    ioctl(pipe_.read_end.get(), FIONREAD, &waiting);
    const int before = length_;
    do {
      read_once();
    } while (!at_end() && length_ - before < waiting);
  }

  void finish() noexcept {
    pipe_.read_end.reset();
    if (*text_ != nullptr) (*text_)[length_] = '\0';
  }

 private:
  /// For an output that has proved large, of which more is to be expected. The usual pipe of 64 KiB
  /// makes the two sides wait for each other for every 64 KiB; and to fault fresh pages in one by
  /// one, in the middle of read(), costs as much as the copying. Both together take more than a
  /// third off the time for 1 GiB. Without them, where the kernel refuses, it only lasts longer.
  void make_way() noexcept {
    if (present_ == 0) fcntl(pipe_.read_end.get(), F_SETPIPE_SZ, kLarge);
    if (present_ < length_) present_ = length_;
    // A pipe's worth ahead and no more: the room that doubling made may never be needed.
    if (present_ - length_ >= kLarge || size_ - present_ < kLarge) return;
    char* from = *text_ + present_;
    from -= reinterpret_cast<uintptr_t>(from) % page_size();
    madvise(from, kLarge, MADV_POPULATE_WRITE);
    present_ += kLarge;
  }

  char** text_;
  int size_ = 0;
  int length_ = 0;
  int present_ = 0;  ///< up to where the pages behind the text have been asked for; 0: not yet
  frask::Pipe pipe_;
};

/// What is captured of one child: its output, or its output and its errors.
class Outputs {
 public:
  Outputs(Capture* first, nfds_t count) noexcept : first_(first), count_(count) {}

  Capture* begin() const noexcept { return first_; }
  Capture* end() const noexcept { return first_ + count_; }

  bool at_end() const noexcept {
    for (const Capture& output : *this)
      if (!output.at_end()) return false;
    return true;
  }

  /// Waits until there is something to read, and calls `read` of each output that has it. False at
  /// the time-out and for an interrupted wait.
  bool read_ready(int milliseconds, void (Capture::*read)() noexcept) const noexcept {
    pollfd ends[2];
    for (nfds_t i = 0; i < count_; ++i) ends[i] = first_[i].interest();
    // poll(): a set for select() ends at descriptor 1023.
    if (poll(ends, count_, milliseconds) <= 0) return false;
    for (nfds_t i = 0; i < count_; ++i)
      if (ends[i].revents != 0) (first_[i].*read)();
    return true;
  }

 private:
  Capture* first_;
  nfds_t count_;
};

// The texts name one routine for all of the family: callers' logs are searched for them.
void open_pipes(const Outputs& outputs) {
  for (Capture& output : outputs)
    if (!output.open_pipe()) messlog2(1, 1, "fork_execv_getouterr: pipe() failed");
  for (Capture& output : outputs)
    if (!output.set_nonblocking()) messlog2(1, 1, "fork_execv_getouterr: fcntl(O_NONBLOCK) failed");
}

/// True when the child is gone, with its result. errno is set when that could not be learnt.
bool reap(int pid, int* result) {
  int status = 0;
  errno = 0;
  if (waitpid(pid, &status, WNOHANG) == 0) return false;
  *result = errno != 0 || WIFSIGNALED(status) ? -1 : WEXITSTATUS(status);
  return true;
}

/// What the child wrote between the time-out and its end is its output, too.
void take_rest(const Outputs& outputs) {
  const int error = errno;
  outputs.read_ready(0, &Capture::read_rest);
  errno = error;
}

/// Reads until all outputs are closed or, in a pause of theirs, the child is found to have ended.
/// True when it was reaped, with its result.
bool read_all(const Outputs& outputs, int pid, int* result) {
  while (!outputs.at_end()) {
    errno = 0;
    if (outputs.read_ready(kPatienceMilliseconds, &Capture::read_once)) continue;
    if (reap(pid, result)) {
      take_rest(outputs);
      return true;
    }
  }
  return false;
}

int finish_capture(const Outputs& outputs, int pid, const char* path) {
  for (Capture& output : outputs) output.close_write_end();
  int result = -1;
  if (!read_all(outputs, pid, &result)) result = fork_exec_waitpid(pid, path, nullptr);
  for (Capture& output : outputs) output.finish();
  return result;
}

}  // namespace

int fork_execv_getout(char** out, const char* path, char* const argv[]) {
  Capture capture(out);
  const Outputs outputs(&capture, 1);
  open_pipes(outputs);
  const int pid = fork_execv_pipes(STDIN_FILENO, capture.write_end(), STDERR_FILENO, path, argv);
  return finish_capture(outputs, pid, path);
}

int fork_execv_getouterr(char** out, char** err, const char* path, char* const argv[]) {
  Capture captures[] = {Capture(out), Capture(err)};
  const Outputs outputs(captures, 2);
  open_pipes(outputs);
  const int pid =
      fork_execv_pipes(STDIN_FILENO, captures[0].write_end(), captures[1].write_end(), path, argv);
  return finish_capture(outputs, pid, path);
}

int fork_execv_log(const char* path, char* const argv[], int quiet) {
  char* out = nullptr;
  char* err = nullptr;
  const int rc = fork_execv_getouterr(&out, &err, path, argv);
  const frask::CString out_owner(out);
  const frask::CString err_owner(err);
  if (rc != 0 && quiet == 0) {
    if (out != nullptr) fputs(out, stderr);
    if (err != nullptr)
      messlog2(0, 1, "%s execution failed:\n%s", path, err);
    else
      messlog2(0, 1, "%s execution failed (no output)", path);
  }
  return rc;
}

void read_to_buf(int* fd, char** buf, int* size, int* len) {
  if (!has_room(*size, *len) && !grow(buf, size)) messlog2(1, 1, "Cannot allocate memory");
  const ssize_t got = read(*fd, *buf + *len, static_cast<size_t>(*size - *len - 1));
  if (got > 0) {
    *len += static_cast<int>(got);
    return;
  }
  if (got < 0 && errno == EAGAIN) return;
  const int error = errno;
  close(*fd);
  *fd = -1;
  if (got == 0) return;
  fprintf(stderr, "fork_exec*: read(pipe) failed: %s\n", strerror(error));
  errno = 0;
}
