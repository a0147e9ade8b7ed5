#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include "exec/forkexec.h"
#include "fs/dir_stream.h"

namespace {

/// Above this many entries, closing every possible number is taken to be cheaper.
int listing_budget(int table_size) {
  constexpr int kSmallTable = 999;
  constexpr int kSmallBudget = 100;
  return table_size > kSmallTable ? table_size / 10 : kSmallBudget;
}

/// Closes what the listing shows from `lowfd` on, but for the listing itself. True when the listing
/// came to its end and was complete, for which its own descriptor is the proof.
bool close_listed(frask::DirStream& listing, int lowfd) {
  const int max = getdtablesize();
  int budget = listing_budget(max);
  bool seen_itself = false;
  errno = 0;
  while (const auto* entry = listing.next()) {
    const int fd = proc_pid_fd_str_to_int(entry->d_name);
    if (fd < 0 || fd >= max) return false;
    if (fd == listing.fd())
      seen_itself = true;
    else if (fd >= lowfd)
      close(fd);
    // Deliberate: the entry that exceeds the budget is closed before the walk gives up, and the
    // numbers that follow are left to closefrom_max(). Pinned by
    // ClosefromThroughProc.GivesUpBehindTheFirstEntryAboveItsBudget.
    if (budget == 0) return false;
    --budget;
    errno = 0;
  }
  return errno == 0 && seen_itself;
}

}  // namespace

void closefrom(int lowfd) noexcept {
  if (closefrom_through_proc(lowfd) != 0) closefrom_max(lowfd);
}

int closefrom_through_proc(int lowfd) {
  frask::DirStream listing;
  if (!listing.open(AT_FDCWD, "/proc/self/fd")) return -1;
  return close_listed(listing, lowfd) ? 0 : -1;
}

void closefrom_max(int lowfd) {
  const int error = errno;
  const int highest = getdtablesize();
  // One call where the kernel has it (Linux 5.9): tables of a million are common in containers.
  // What it refuses, an empty or a negative range included, is left to the calls one by one.
  if (close_range(static_cast<unsigned>(lowfd), static_cast<unsigned>(highest), 0) != 0)
    for (int fd = highest; fd >= lowfd; --fd) close(fd);
  errno = error;
}

int proc_pid_fd_str_to_int(const char* name) {
  if (name == nullptr || name[0] < '0' || name[0] > '9') return -1;
  if (name[0] == '0' && name[1] != '\0') return -1;
  const int error = errno;
  errno = 0;
  char* end = nullptr;
  const long number = strtol(name, &end, 10);
  const bool converted = errno == 0 && *end == '\0' && number <= INT_MAX;
  errno = error;
  return converted ? static_cast<int>(number) : -1;
}
