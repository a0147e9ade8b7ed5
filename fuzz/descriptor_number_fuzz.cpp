// An entry of "/proc/self/fd" stands for a number when it is the one way to write that number.
#include <stdint.h>

#include <climits>
#include <string>

#include "check.h"
#include "exec/forkexec.h"

namespace {

int number_of(const std::string& name) {
  const std::string most = std::to_string(INT_MAX);
  if (name.empty() || name.find_first_not_of("0123456789") != std::string::npos) return -1;
  if (name.size() > 1 && name[0] == '0') return -1;
  if (name.size() > most.size() || (name.size() == most.size() && name > most)) return -1;
  return std::stoi(name);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string name = c_string(std::string(data, data + size));
  const int number = proc_pid_fd_str_to_int(name.c_str());
  check(number == number_of(name));
  check(number == -1 || std::to_string(number) == name);
  return 0;
}
