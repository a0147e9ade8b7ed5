// Calls one routine between two marks, for a tracer that makes its system calls fail:
//   routine_caller ROUTINE      "returned ..." or "threw TYPE: ...", and what became of the
//                               descriptors, on standard output
#include <cxxabi.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <iostream>
#include <iterator>
#include <string>
#include <typeinfo>
#include <vector>

#include "faults/routines.h"
#include "log/c_string.private.h"
#include "support/call_faults.h"
#include "support/child.h"

namespace {

using Lines = std::vector<std::string>;

std::string type_of(const std::exception& thrown) {
  int status = 0;
  const frask::CString name(abi::__cxa_demangle(typeid(thrown).name(), nullptr, nullptr, &status));
  return faults::text(name.get());
}

std::string result_of(const faults::Routine& routine) {
  const pid_t caller = getpid();
  std::string result;
  try {
    return "returned " + routine.call();
  } catch (const std::exception& failure) {
    result = "threw " + type_of(failure) + ": " + failure.what();
  }
  if (getpid() == caller) return result;
  // A child in which the start of a program has failed: the caller's code goes on in it.
  std::cerr << result << std::endl;
  _exit(255);
}

/// What is behind each number, how it was opened, and its identity behind a tab.
Lines descriptors() {
  Lines lines;
  for (const int fd : testsupport::open_descriptors()) {
    struct stat st = {};
    fstat(fd, &st);
    char target[256] = "";
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    if (readlink(link.c_str(), target, sizeof target - 1) < 0) target[0] = '\0';
    char line[400];
    snprintf(line, sizeof line, "%d %.*s, flags %o\t%ju:%ju", fd,
             static_cast<int>(strcspn(target, "[")), target,
             static_cast<unsigned>(fcntl(fd, F_GETFL)), static_cast<uintmax_t>(st.st_dev),
             static_cast<uintmax_t>(st.st_ino));
    lines.emplace_back(line);
  }
  std::sort(lines.begin(), lines.end());
  return lines;
}

void print_difference(const char* what, const Lines& these, const Lines& others) {
  Lines only;
  std::set_difference(these.begin(), these.end(), others.begin(), others.end(),
                      std::back_inserter(only));
  for (const std::string& line : only)
    printf("%s %s\n", what, line.substr(0, line.find('\t')).c_str());
}

}  // namespace

int main(int argc, char** argv) {
  const auto& all = faults::routines();
  const auto found = std::find_if(all.begin(), all.end(), [&](const faults::Routine& routine) {
    return argc == 2 && routine.name == argv[1];
  });
  if (found == all.end()) {
    for (const faults::Routine& routine : all) puts(routine.name.c_str());
    return 2;
  }
  close_range(STDERR_FILENO + 1, ~0U, 0);  // what the caller has left open
  const Lines before = descriptors();
  fcntl(0, F_GETFD);
  const std::string result = result_of(*found);
  fcntl(testsupport::kEndMark, F_GETFD);
  const Lines after = descriptors();
  puts(result.c_str());
  print_difference("lost", before, after);
  print_difference("left", after, before);
  puts("descriptors compared");
  return 0;
}
