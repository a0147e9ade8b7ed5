#include "soak/runs.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <sstream>
#include <system_error>
#include <utility>

namespace soak {
namespace {

using frask::UniqueFd;

void require(bool done, const char* what) {
  if (!done) throw std::system_error(errno, std::generic_category(), what);
}

UniqueFd memory_file() {
  UniqueFd file(memfd_create("written", MFD_CLOEXEC));
  require(static_cast<bool>(file), "memfd_create");
  return file;
}

/// What lies in the file, which is empty afterwards.
std::string take(const UniqueFd& file) {
  struct stat st = {};
  require(fstat(file.get(), &st) == 0, "fstat");
  std::string text(static_cast<size_t>(st.st_size), '\0');
  require(pread(file.get(), text.data(), text.size(), 0) == st.st_size, "pread");
  require(ftruncate(file.get(), 0) == 0 && lseek(file.get(), 0, SEEK_SET) == 0, "ftruncate");
  return text;
}

std::string last_line(std::string text) {
  if (!text.empty() && text.back() == '\n') text.pop_back();
  return text.substr(text.rfind('\n') + 1);
}

std::string command_of(const Operation& operation) {
  std::string command;
  for (const std::string& word : operation.words) command += " " + word;
  return command;
}

constexpr int kReport = 3;  // as the launcher has it

/// With no signal blocked: the caller blocks SIGCHLD.
pid_t spawn(const std::string& launcher, const std::string& program,
            const std::vector<std::string>& words, const std::array<int, 3>& files) {
  std::vector<char*> argv{const_cast<char*>(launcher.c_str()), const_cast<char*>(program.c_str())};
  for (const std::string& word : words) argv.push_back(const_cast<char*>(word.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  for (int fd = STDOUT_FILENO; fd <= kReport; ++fd)
    posix_spawn_file_actions_adddup2(&actions, files[static_cast<size_t>(fd - 1)], fd);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
  pid_t pid = -1;
  errno = posix_spawn(&pid, launcher.c_str(), &actions, &attributes, argv.data(), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  require(errno == 0, "posix_spawn");
  return pid;
}

std::string judge(const Operation& operation, int status, const std::string& out,
                  const std::string& err) {
  const bool as_expected = WIFEXITED(status) && WEXITSTATUS(status) == operation.exit_status &&
                           last_line(out) == operation.last_line &&
                           err.empty() != operation.reports;
  if (as_expected) return "";
  return "tembrix" + command_of(operation) + "\n    gave the wait status " +
         std::to_string(status) + ", expected exit status " +
         std::to_string(operation.exit_status) + " and \"" + operation.last_line + "\" after " +
         (operation.reports ? "a report" : "no report") + "\n    standard output: " + out +
         "\n    standard error: " + err + "\n";
}

}  // namespace

Runs::Runs(std::string launcher, std::string program, size_t at_once)
    : launcher_(std::move(launcher)), program_(std::move(program)) {
  for (size_t i = 0; i < at_once; ++i)
    places_.push_back({memory_file(), memory_file(), memory_file(), -1, {}});
}

bool Runs::has_place() const {
  return std::any_of(places_.begin(), places_.end(), [](const Place& p) { return p.pid < 0; });
}

bool Runs::is_empty() const {
  return std::all_of(places_.begin(), places_.end(), [](const Place& p) { return p.pid < 0; });
}

void Runs::start(Operation operation) {
  const auto place =
      std::find_if(places_.begin(), places_.end(), [](const Place& p) { return p.pid < 0; });
  place->operation = std::move(operation);
  place->pid = spawn(launcher_, program_, place->operation.words,
                     {place->out.get(), place->err.get(), place->report.get()});
}

void Runs::wait_a_little() {
  sigset_t of_children;
  sigemptyset(&of_children);
  sigaddset(&of_children, SIGCHLD);
  const timespec millisecond = {0, 1000000};
  sigtimedwait(&of_children, nullptr, &millisecond);
}

std::optional<Ended> Runs::reap() {
  int launcher_status = 0;
  const pid_t pid = waitpid(-1, &launcher_status, WNOHANG);
  const auto place = std::find_if(places_.begin(), places_.end(),
                                  [pid](const Place& p) { return pid > 0 && p.pid == pid; });
  if (place == places_.end()) return std::nullopt;
  place->pid = -1;
  errno = 0;
  require(launcher_status == 0, "the launcher");
  std::istringstream report(take(place->report));
  int status = 0;
  Ended ended;
  require(static_cast<bool>(report >> status >> ended.peak_memory), "the launcher's report");
  const std::string out = take(place->out);
  ended.wrong = judge(place->operation, status, out, take(place->err));
  ended.operation = std::move(place->operation);
  return ended;
}

}  // namespace soak
