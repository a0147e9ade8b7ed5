// Not installed: starting a program without copying the process.
#ifndef FRASK_EXEC_SPAWN_PRIVATE_H
#define FRASK_EXEC_SPAWN_PRIVATE_H

#include "exec/texec.h"

namespace frask::sys {

/// Starts the program where nobody can tell the difference from fork and exec: no preparation, or
/// only the library's own, and of these only those that do no more in the child than duplicate
/// descriptors. What bef_fork does has been done.
///
/// @return the child; -1 when fork and exec must do it: other code is to run in the child, or the
///         start fails, which is for the child itself to find and report
int spawn(const TExec& command, const TExec::TPrepare* preparation);

}  // namespace frask::sys

#endif
