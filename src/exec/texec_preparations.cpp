#include <errno.h>
#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <utility>

#include "exec/forkexec.h"
#include "exec/keep_errno.private.h"
#include "exec/pipe.private.h"
#include "exec/texec.h"

namespace frask::sys {
namespace {

constexpr int kFirstPipeEnd = 10;
constexpr mode_t kNewFileMode = 0664;

void closeEnd(int& end) noexcept {
  UniqueFd(std::exchange(end, -1)).reset();
}

// Deliberate, here and in all that follows: in the child no result is tested. A source that is not
// there leaves the target closed, and the program finds that out. Pinned by
// TFromFile.LeavesStandardInputClosedWhereTheFileCannotBeOpened and its like.
void moveOnto(int source, int target) noexcept {
  if (source == target) return;  // the target was closed, and the source has got its number
  ::close(target);
  ::dup2(source, target);
  ::close(source);
}

void keepEnd(int kept, int other, int target) noexcept {
  ::close(other);
  moveOnto(kept, target);
}

/// Up to the end, or a failure that stays: mostly a reader that is gone and has had enough.
void writeAll(int fd, const std::string& text) noexcept {
  for (std::size_t done = 0; done < text.size();) {
    const ssize_t written = ::write(fd, text.data() + done, text.size() - done);
    if (written > 0)
      done += static_cast<std::size_t>(written);
    else if (errno != EINTR)
      return;
  }
}

/// Writes the text and ends the process, with status 0 whatever became of the text, unless SIGPIPE
/// does that first.
// Deliberate: write(2), and _exit() behind it. A stream needs memory, without which the text would
// be lost, and the caller's own streams and exit handlers would add to it what the caller has not
// yet written. Pinned by TReadFromStr.FeedsOnlyTheText and
// ReadFromStrWithoutMemory.FeedsTheTextAllTheSame.
[[noreturn]] void feed(const std::string& text, int read_end, int write_end) noexcept {
  keepEnd(write_end, read_end, STDOUT_FILENO);
  // It executes nothing, so nothing else closes the pipes of its line: a reader that ends early
  // could not be noticed by the program that this process feeds.
  closefrom(STDERR_FILENO + 1);
  writeAll(STDOUT_FILENO, text);
  _exit(0);
}

void writeToFile(int descriptor, const std::string& path, bool append) noexcept {
  const int flags = O_WRONLY | O_CREAT | (append ? O_APPEND : O_TRUNC);
  moveOnto(::open(path.c_str(), flags, kNewFileMode), descriptor);
}

}  // namespace

TPipe::~TPipe() {
  close_read_end();
  close_write_end();
}

void TPipe::create() {
  close_read_end();
  close_write_end();
  Pipe pipe;
  if (!pipe.open()) throw TSysCallErr(errno);
  const KeepErrno keep;
  // As shells do, so that a redirection of descriptor 3 in the child does not run over an end. A
  // tight descriptor limit is no reason to fail.
  Pipe::lift(pipe.read_end, kFirstPipeEnd);
  Pipe::lift(pipe.write_end, kFirstPipeEnd);
  read_end_ = pipe.read_end.release();
  write_end_ = pipe.write_end.release();
}

void TPipe::close_read_end() noexcept {
  closeEnd(read_end_);
}

void TPipe::close_write_end() noexcept {
  closeEnd(write_end_);
}

void TPipe::to_stdin() noexcept {
  keepEnd(std::exchange(read_end_, -1), std::exchange(write_end_, -1), STDIN_FILENO);
}

void TPipe::to_stdout() noexcept {
  keepEnd(std::exchange(write_end_, -1), std::exchange(read_end_, -1), STDOUT_FILENO);
}

// Deliberate: the target is closed first, so a descriptor redirected to itself ends up closed.
// Pinned by TRedirect.ClosesADescriptorThatIsRedirectedToItself.
void TRedirect::aft_fork4d(TExec&) {
  ::close(target_);
  ::dup2(source_, target_);
}

TRedirectToFile::TRedirectToFile(int descriptor, const std::string& path, bool append)
    : descriptor_(descriptor), path_(path), append_(append) {}

void TRedirectToFile::aft_fork4d(TExec&) {
  writeToFile(descriptor_, path_, append_);
}

TToFile::TToFile(const std::string& path, bool append) : path_(path), append_(append) {}

void TToFile::aft_fork4d(TExec&) {
  writeToFile(STDOUT_FILENO, path_, append_);
}

TFromFile::TFromFile(const std::string& path) : path_(path) {}

void TFromFile::aft_fork4d(TExec&) {
  moveOnto(::open(path_.c_str(), O_RDONLY), STDIN_FILENO);
}

void TReadOut::bef_fork(TExec&) {
  pipe_.create();
}

void TReadOut::aft_fork4p(TExec&) {
  pipe_.close_write_end();
}

void TReadOut::aft_fork4d(TExec&) {
  pipe_.to_stdout();
}

void TWriteToPipeline::bef_fork(TExec&) {
  pipe_->create();
}

void TWriteToPipeline::aft_fork4d(TExec&) {
  pipe_->to_stdout();
}

void TReadFromPipeline::close_pipe() noexcept {
  pipe_->close_read_end();
  pipe_->close_write_end();
}

void TReadFromPipeline::aft_fork4p(TExec&) {
  close_pipe();
}

void TReadFromPipeline::aft_fork4d(TExec&) {
  pipe_->to_stdin();
}

TReadFromStr::TReadFromStr(const std::string& text) : text_(text) {}

void TReadFromStr::aft_fork4d(TExec&) {
  Pipe pipe;
  if (!pipe.open()) throw TSysCallErr(errno);
  const pid_t pid = ::fork();
  if (pid == -1) throw TSysCallErr(errno);
  const int read_end = pipe.read_end.release();
  const int write_end = pipe.write_end.release();
  if (pid == 0) feed(text_, read_end, write_end);
  action_of_p(read_end, write_end);
}

void TReadFromStr::action_of_p(int read_end, int write_end) const {
  keepEnd(read_end, write_end, STDIN_FILENO);
}

void TReadFromStr::action_of_d(int read_end, int write_end) const {
  feed(text_, read_end, write_end);
}

void TUnionPrep::bef_fork(TExec& command) {
  if (first_) first_->bef_fork(command);
  if (second_) second_->bef_fork(command);
}

// Deliberate: the second one's answer alone counts, here and in exec_failed(). Pinned by
// TUnionPrep.AnswersAsTheSecondDoes.
bool TUnionPrep::fork_failed(TExec& command) {
  if (first_) first_->fork_failed(command);
  return second_ ? second_->fork_failed(command) : true;
}

void TUnionPrep::aft_fork4p(TExec& command) {
  if (first_) first_->aft_fork4p(command);
  if (second_) second_->aft_fork4p(command);
}

void TUnionPrep::aft_fork4d(TExec& command) {
  if (first_) first_->aft_fork4d(command);
  if (second_) second_->aft_fork4d(command);
}

void TUnionPrep::bef_exec(TExec& command) {
  if (first_) first_->bef_exec(command);
  if (second_) second_->bef_exec(command);
}

bool TUnionPrep::exec_failed(TExec& command) {
  if (first_) first_->exec_failed(command);
  return second_ ? second_->exec_failed(command) : true;
}

}  // namespace frask::sys
