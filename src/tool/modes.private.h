// Not installed: the operations that the tool's modes stand for.
#ifndef FRASK_TOOL_MODES_PRIVATE_H
#define FRASK_TOOL_MODES_PRIVATE_H

#include "tool/options.private.h"

/// Performs the one operation of the mode, prints its integer on the last line of standard output
/// and ends the process with it. A fatal report ends it with status 1 and no integer.
[[noreturn]] void run_mode(Options options);

#endif
