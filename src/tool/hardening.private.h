// Not installed, and in the tool alone, not in the library: a library's caller is left as it is.
#ifndef FRASK_TOOL_HARDENING_PRIVATE_H
#define FRASK_TOOL_HARDENING_PRIVATE_H

/// Prepares the process, and with it every program that it runs, for the unpacking of what a
/// stranger packed: a umask of 022, options of tar that keep no owner and no set-id bit and none of
/// the caller's for the other archive programs and file, no capability and no mknod() for devices,
/// no change of a mode that sets a set-id bit or lets others write, and all the descriptors that
/// may be had.
///
/// What the system refuses is left as it was, without a report: each of these stands in front of
/// another guard. Only a lack of memory for the environment ends the process with status 1. errno
/// stays as it was.
void harden_process();

#endif
