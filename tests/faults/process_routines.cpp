#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include "exec/forkexec.h"
#include "exec/texec.h"
#include "faults/routines.h"
#include "support/exec_raw.h"

namespace faults {
namespace {

namespace sys = frask::sys;

constexpr int kFirstSpare = 100;  ///< number of the descriptors that are there to be closed
constexpr int kSpares = 3;

char* const* both_streams() {
  return words({"sh", "-c", "echo a; echo b >&2; exit 3"});
}

std::string captured(int result, char* out) {
  return number(result) + " " + taken(out);
}

/// Of a routine that captures both streams.
template <typename Call>
std::string captured_both(Call call) {
  char* out = nullptr;
  char* err = nullptr;
  const int result = call(&out, &err);
  return captured(result, out) + " " + taken(err);
}

template <typename Call>
std::string captured_one(Call call) {
  char* out = nullptr;
  const int result = call(&out);
  return captured(result, out);
}

/// Of a routine that is given a descriptor.
template <typename Call>
std::string with_null(Call call) {
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  const int result = call(null);
  if (null >= 0) close(null);
  return number(result);
}

/// A child that ends with 3, waited for.
template <typename Wait>
std::string waited(Wait wait) {
  const pid_t pid = fork();
  if (pid == 0) _exit(3);
  return number(wait(pid));
}

bool is_open(int fd) {
  return fcntl(fd, F_GETFD) >= 0;
}

int open_spares() {
  int left = 0;
  for (int i = 0; i < kSpares; ++i)
    if (is_open(kFirstSpare + i)) ++left;
  return left;
}

/// Of a routine that closes what is there from kFirstSpare on; -1 says that it has not.
template <typename Close>
std::string closing(Close close_all) {
  for (int i = 0; i < kSpares; ++i) fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, kFirstSpare);
  const int result = close_all(kFirstSpare);
  const int left = open_spares();
  if (result == 0 && left > 0) throw Broken(number(left) + " are still open");
  for (int i = 0; i < kSpares; ++i) close(kFirstSpare + i);
  return number(result);
}

/// In a child, as its users call it.
std::string prepared() {
  const pid_t pid = fork();
  if (pid == 0) {
    const int null = open("/dev/null", O_RDWR);
    for (int i = 0; i < kSpares; ++i) fcntl(STDIN_FILENO, F_DUPFD, kFirstSpare);
    prepare_fds_to_exec(null, STDERR_FILENO, STDOUT_FILENO);
    _exit(open_spares() == 0 && !is_open(STDERR_FILENO + 1) ? 0 : 9);
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (pid > 0 && status != 0) throw Broken("the child has more than the three");
  return number(status);
}

std::string read_whole() {
  int ends[2] = {-1, -1};
  if (pipe2(ends, O_CLOEXEC) != 0) return "no pipe";
  const bool written = write(ends[1], "text", 4) == 4;
  close(ends[1]);
  char* buffer = nullptr;
  int size = 0;
  int length = 0;
  while (ends[0] >= 0) read_to_buf(&ends[0], &buffer, &size, &length);
  if (buffer != nullptr) buffer[length] = '\0';
  return number(written ? 0 : -1) + taken(buffer);
}

sys::TExec command(std::initializer_list<const char*> given) {
  sys::TEArgs args;
  for (const char* word : given) args.push_back(word);
  return sys::TExec(args);
}

std::string process(const sys::TSLProcess& started) {
  return number(started.result);
}

std::string captured_line(const sys::TExecsList& line) {
  std::string out;
  int status = 0;
  sys::execGetOutput(&out, &status, line);
  return number(status) + " " + out;
}

const std::vector<std::string> kOfExecute{"frask::sys::TSysCallErr: ", "std::bad_alloc"};
const std::vector<std::string> kOfCapture{
    "frask::sys::TSysCallErr: ", "frask::SystemError: waitpid() failed", "std::bad_alloc"};
const std::vector<std::string> kOfThrowing{
    "frask::sys::TSysCallErr: ", "frask::SystemError: waitpid() failed", "std::bad_alloc",
    "std::runtime_error: child failed ("};

}  // namespace

Routines process_routines() {
  const auto none = Scene::kNothing;
  const auto sister = Share::kSister;
  return {
      {"fork_execl_pipes",
       [] {
         return with_null([](int null) {
           const int pid = fork_execl_pipes(null, 1, 2, "/bin/cat", "cat", nullptr);
           return fork_exec_getres(pid, "cat");
         });
       }},
      {"fork_execv_pipes",
       [] {
         return with_null([](int null) {
           const int pid = fork_execv_pipes(null, 1, 2, "/bin/cat", words({"cat"}));
           return fork_exec_getres(pid, "cat");
         });
       },
       none, sister},
      {"fork_exec_getres",
       [] { return waited([](int pid) { return fork_exec_getres(pid, "child"); }); }, none, sister},
      {"fork_exec_waitpid",
       [] {
         return waited([](int pid) {
           int status = 0;
           return fork_exec_waitpid(pid, "child", &status);
         });
       },
       none, sister},
      {"fork_execl_getout",
       [] {
         return captured_one([](char** out) {
           return fork_execl_getout(out, "/bin/echo", "echo", "text", nullptr);
         });
       }},
      {"fork_execv_getout",
       [] {
         return captured_one([](char** out) {
           return fork_execv_getout(out, "/bin/echo", words({"echo", "text"}));
         });
       },
       none, sister},
      {"fork_execv_getouterr",
       [] {
         return captured_both([](char** out, char** err) {
           return fork_execv_getouterr(out, err, "/bin/sh", both_streams());
         });
       }},
      {"fork_execl_getouterr",
       [] {
         return captured_both([](char** out, char** err) {
           return fork_execl_getouterr(out, err, "/bin/sh", "sh", "-c", "echo b >&2", nullptr);
         });
       },
       none, sister},
      {"fork_execl_log",
       [] { return number(fork_execl_log("/bin/sh", "sh", "-c", "echo a >&2; exit 3", nullptr)); }},
      {"fork_execv_log", [] { return number(fork_execv_log("/bin/sh", both_streams(), 0)); }, none,
       sister},
      {"path_exec", [] { return number(path_exec("/bin/true", nullptr)); }},
      {"path_exec_raw", [] { return number(testsupport::exec_raw("/bin/true", nullptr)); }, none,
       sister},
      {"util_exec", [] { return number(util_exec("utility", nullptr)); }},
      {"util_exec_args", [] { return number(util_exec_args("utility", words({"utility"}))); }, none,
       sister},
      {"util_libexec", [] { return number(util_libexec("missing", nullptr)); }},
      {"fork_execv", [] { return number(fork_execv("/bin/true", nullptr)); }},
      {"fork_execv_fd",
       [] {
         return with_null([](int null) {
           return fork_execv_fd(null, -1, "/bin/sh", words({"sh", "-c", "echo error >&2"}));
         });
       }},
      {"do_exec", [] { return number(do_exec("/bin/true", words({"true"}))); }},
      {"popen_exec_with_input",
       [] { return number(popen_exec_with_input("cat >/dev/null", "text")); }},
      {"popen_exec_getoutput",
       [] {
         return captured_one([](char** out) { return popen_exec_getoutput(out, "echo text"); });
       }},
      {"popen_exec", [] { return number(popen_exec("exit 3")); }},
      {"closefrom",
       [] {
         return closing([](int lowest) {
           closefrom(lowest);
           return 0;
         });
       },
       none, sister},
      {"closefrom_max",
       [] {
         return closing([](int lowest) {
           closefrom_max(lowest);
           return 0;
         });
       },
       none, sister},
      {"closefrom_through_proc", [] { return closing(closefrom_through_proc); }},
      {"prepare_fds_to_exec", prepared, none, sister, {}, true, 1},
      {"read_to_buf", read_whole},
      {"proc_pid_fd_str_to_int",
       [] { return number(proc_pid_fd_str_to_int("12")); },
       none,
       sister,
       {},
       false},
  };
}

Routines object_routines() {
  const auto none = Scene::kNothing;
  const auto whole = Share::kWhole;
  return {
      {"TExec::execute", [] { return process((command({"true"}) | sys::wait_mode).execute()); },
       none, whole, kOfExecute},
      {"redirect",
       [] {
         sys::TExec both = (command({"cat"}) < "/mnt/site/tree/file") > "/mnt/site/copy";
         return process((both | sys::wait_mode).execute());
       },
       Scene::kFiles, whole, kOfExecute},
      {"feed", [] { return captured_line(command({"cat"}) << "text"); }, none, whole, kOfCapture},
      {"execGetOutput",
       [] {
         return captured_line(command({"echo", "text"}));
       },
       none, whole, kOfCapture},
      {"pipeline",
       [] {
         return captured_line((command({"echo", "text"}) | command({"cat"})) | command({"cat"}));
       },
       none, whole, kOfCapture},
      {"throwing",
       [] {
         std::string out;
         return out <<= command({"false"});
       },
       none, whole, kOfThrowing},
  };
}

}  // namespace faults
