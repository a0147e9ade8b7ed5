// Not installed: how files are opened that another user may have put there.
#ifndef FRASK_VHOST_READ_FILE_PRIVATE_H
#define FRASK_VHOST_READ_FILE_PRIVATE_H

#include "fs/unique_fd.h"

namespace frask {

/// Opens a file for reading without waiting, neither for the other end of a pipe nor for the end of
/// a write lease.
///
/// @param flags  O_NOFOLLOW or 0
/// @return empty with errno, EAGAIN for a regular file on which someone has a write lease
UniqueFd openAtOnce(int dir_fd, const char* name, int flags) noexcept;

/// Opens a regular file on which someone has a write lease; that is waited for, as by every reader,
/// whatever signals come: the kernel ends it after /proc/sys/fs/lease-break-time seconds (45 unless
/// it is set; never for 0).
///
/// @param flags  O_NOFOLLOW or 0
/// @return empty with errno; EAGAIN without /proc, where it cannot be waited for, and for what
///         is no regular file
UniqueFd openBehindLease(int dir_fd, const char* name, int flags) noexcept;

/// openAtOnce(), and openBehindLease() where there is a lease.
UniqueFd openUnread(int dir_fd, const char* name, int flags) noexcept;

}  // namespace frask

#endif
