// A private view of the places that are compiled into the tool.
#ifndef TESTS_SUPPORT_PRIVATE_MOUNTS_H
#define TESTS_SUPPORT_PRIVATE_MOUNTS_H

namespace testsupport {

/// Moves this process into a mount namespace of its own, in which "/etc/oxa", "/usr/local/oxa",
/// "/var/www" and "/var/lib/mysql" are empty file systems in memory, and "/mnt" is one for scratch.
/// Nothing of the host is touched and all of it is gone with the process. Needs root; throws
/// std::runtime_error with the reason where it cannot be done.
void enter_private_mounts();

}  // namespace testsupport

#endif
