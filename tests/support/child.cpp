#include "support/child.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <stdexcept>

namespace testsupport {
namespace {

/// A file in memory: unlike a pipe it takes any amount without a reader.
class MemoryFile {
 public:
  MemoryFile() : fd_(memfd_create("captured", MFD_CLOEXEC)) {
    if (fd_ < 0) throw std::runtime_error("memfd_create failed");
  }
  ~MemoryFile() { close(fd_); }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  int fd() const { return fd_; }

  void fill(const std::string& text) const {
    size_t done = 0;
    while (done < text.size()) {
      const ssize_t n = write(fd_, text.data() + done, text.size() - done);
      if (n <= 0) throw std::runtime_error("cannot fill a file in memory");
      done += static_cast<size_t>(n);
    }
    lseek(fd_, 0, SEEK_SET);
  }

  std::string content() const {
    struct stat st = {};
    if (fstat(fd_, &st) != 0) throw std::runtime_error("fstat failed");
    std::string text(static_cast<size_t>(st.st_size), '\0');
    size_t done = 0;
    while (done < text.size()) {
      const ssize_t n = pread(fd_, &text[done], text.size() - done, static_cast<off_t>(done));
      if (n <= 0) throw std::runtime_error("cannot read a file in memory");
      done += static_cast<size_t>(n);
    }
    return text;
  }

 private:
  int fd_;
};

/// How many descriptors this process could have had when it was started.
const rlim_t kMostDescriptors = [] {
  rlimit limit = {RLIM_INFINITY, RLIM_INFINITY};
  getrlimit(RLIMIT_NOFILE, &limit);
  return limit.rlim_max;
}();

/// The tests give the modes of what they make, less what is usual to take from them.
[[maybe_unused]] const mode_t kMaskFound = umask(022);

void set_up_child(const RunOptions& options, int in, int out, int err) {
  if (dup2(in, 0) < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0) _exit(97);
  for (const auto& [name, value] : options.environment) setenv(name.c_str(), value.c_str(), 1);
  if (!options.directory.empty() && chdir(options.directory.c_str()) != 0) _exit(97);
}

}  // namespace

int Outcome::exit_code() const {
  return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

bool operator==(const Outcome& a, const Outcome& b) {
  return a.out == b.out && a.err == b.err && a.status == b.status;
}

std::ostream& operator<<(std::ostream& stream, const Outcome& outcome) {
  return stream << "exit code " << outcome.exit_code() << "\n--- standard output\n"
                << outcome.out << "\n--- standard error\n"
                << outcome.err << "\n---";
}

Outcome in_child(const std::function<void()>& body, const RunOptions& options) {
  const MemoryFile in;
  const MemoryFile out;
  const MemoryFile err;
  in.fill(options.input);
  fflush(nullptr);
  std::cout.flush();
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    set_up_child(options, in.fd(), out.fd(), err.fd());
    body();
    exit(0);
  }
  Outcome outcome;
  while (waitpid(pid, &outcome.status, 0) < 0 && errno == EINTR) {
  }
  outcome.out = out.content();
  outcome.err = err.content();
  return outcome;
}

Outcome run(const std::vector<std::string>& arguments, const RunOptions& options) {
  std::vector<char*> argv;
  argv.reserve(arguments.size() + 1);
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  return in_child(
      [&argv] {
        execvp(argv[0], argv.data());
        _exit(98);
      },
      options);
}

std::vector<int> open_descriptors() {
  std::vector<int> numbers;
  DIR* stream = opendir("/proc/self/fd");
  if (stream == nullptr) throw std::runtime_error("cannot list the open descriptors");
  while (const dirent* entry = readdir(stream)) {
    if (entry->d_name[0] == '.') continue;
    const auto number = static_cast<int>(strtol(entry->d_name, nullptr, 10));
    // valgrind keeps its own beyond those that it lets the program have.
    if (number == dirfd(stream) || static_cast<rlim_t>(number) >= kMostDescriptors) continue;
    numbers.push_back(number);
  }
  closedir(stream);
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

}  // namespace testsupport
