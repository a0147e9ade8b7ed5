// A private view of the places that are compiled into the tool.
#ifndef TESTS_SUPPORT_PRIVATE_MOUNTS_H
#define TESTS_SUPPORT_PRIVATE_MOUNTS_H

#include <string>

namespace testsupport {

/// Moves this process into a mount namespace of its own, in which "/etc/oxa", "/usr/local/oxa",
/// "/var/www" and "/var/lib/mysql" are empty file systems in memory, and "/mnt" is one for scratch.
/// Nothing of the host is touched and all of it is gone with the process. Needs root; throws
/// std::runtime_error with the reason where it cannot be done.
void enter_private_mounts();

/// Takes /proc out of this process's private mounts, however many lie over each other.
void leave_no_proc();

/// Puts a file of this content in the place of another, in this process's private mounts.
void mount_file_over(const std::string& place, const std::string& content);

}  // namespace testsupport

#endif
