// What the tests of the fork/exec family share.
#ifndef TESTS_EXEC_EXEC_SUPPORT_H
#define TESTS_EXEC_EXEC_SUPPORT_H

#include <gtest/gtest.h>
#include <stddef.h>
#include <sys/resource.h>

#include <string>
#include <vector>

#include "support/child.h"

namespace exectest {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kAddressSanitizer = true;
#else
constexpr bool kAddressSanitizer = false;
#endif

extern const char* const kProbe;   ///< exec_probe's path
extern const char* const kCaller;  ///< exec_caller's path

/// An argument vector that owns its texts.
class Argv {
 public:
  explicit Argv(const std::vector<std::string>& arguments);
  Argv(const Argv&) = delete;
  Argv& operator=(const Argv&) = delete;

  char* const* get() const { return pointers_.data(); }
  const char* path() const { return pointers_[0]; }

 private:
  std::vector<std::string> texts_;
  std::vector<char*> pointers_;
};

/// A shell script as an argument vector.
Argv shell(const std::string& script);

/// What exec_probe writes: byte i is i modulo 251.
std::string pattern(size_t length);

/// What went to frask_log while the object lived, as "level: text".
class RecordedLog {
 public:
  RecordedLog();
  ~RecordedLog();
  RecordedLog(const RecordedLog&) = delete;
  RecordedLog& operator=(const RecordedLog&) = delete;
  const std::vector<std::string>& lines() const;
};

/// Both streams of an ended child: `status` and the same text on each.
testing::AssertionResult reported(const testsupport::Outcome& outcome, int exit_code,
                                  const std::string& text);

/// This process's descriptors; see list_descriptors().
std::string descriptors();

/// Makes a program an administrative utility, in a private file system.
void install_utility(const std::string& name, const std::string& program = kProbe);

/// Makes a program a library executable, in a private file system.
void install_libexec(const std::string& name, const std::string& program = kProbe);

/// Closes all but the standard descriptors, also what the surroundings left to the tests.
void close_others();

/// Opens `path` (read-write, created if need be) as descriptor `number`, inherited by children.
void open_as(int number, const std::string& path);

/// Runs exec_caller in a process that cannot have more than a few MiB.
testsupport::Outcome run_caller_with_little_memory(const std::vector<std::string>& arguments);

// The following change the process for good and are for children. The limits are lifted again when
// the process exits, since the sanitizers' and gcov's own work then needs what was taken away.

/// Lowers the soft limit.
void limit(int resource, rlim_t soft);
/// Raises the limits, where they are lower, so that this process may have so many descriptors.
void allow_descriptors(rlim_t count);
/// Leaves `count` descriptors to be opened.
void leave_descriptors(int count);
/// Makes every fork fail with EAGAIN: the process becomes one of a user who has too many.
void forbid_forks();
/// Makes every allocation of `size` bytes or more fail, while one of `spared` bytes still works.
void exhaust_memory(size_t size, size_t spared);
/// Lets the kernel answer a system call (where its second argument is `second`, if that is given)
/// with an error, or, for 0, with the result 0.
void answer_syscall(long number, int error, long second = -1);
/// Ignores SIGCHLD, so that the kernel reaps children and every wait for them fails with ECHILD.
void let_the_kernel_reap();

}  // namespace exectest

#endif
