#include "support/limits.h"

#include <grp.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>

namespace testsupport {
namespace {

constexpr unsigned kAllDescriptors = ~0U;

}  // namespace

void become_nobody_in(const std::filesystem::path& directory) {
  constexpr id_t kNobody = 65534;
  if (chdir(directory.c_str()) != 0 || setgroups(0, nullptr) != 0 || setgid(kNobody) != 0 ||
      setuid(kNobody) != 0)
    _exit(97);
}

void limit_descriptors(unsigned most) {
  rlimit limit = {};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) _exit(97);
  limit.rlim_cur = std::min(rlim_t{most}, limit.rlim_max);
  if (setrlimit(RLIMIT_NOFILE, &limit) != 0) _exit(97);
  // At the end of the process a search for leaks opens files.
  if (most != kAllDescriptors) atexit([] { limit_descriptors(kAllDescriptors); });
}

}  // namespace testsupport
