// Not installed: the copy behind copy_if_no_dontedit(), with names of the caller's choice.
#ifndef FRASK_VHOST_PROTECTED_COPY_PRIVATE_H
#define FRASK_VHOST_PROTECTED_COPY_PRIVATE_H

#include "vhost/misc.h"
#include "vhost/read_file.private.h"

namespace frask {

/// Writes what was read from `path` to a new file with the first free one of `names`. That none is
/// free is logged.
/// @throws SystemError when a name cannot be reserved; std::filesystem::filesystem_error, whose
///         text is that of std::filesystem::copy_file(), when the copy fails: the reserved file
///         then stays, empty
void backUp(const char* path, const FileContent& content, BackupFileGenerator& names);

}  // namespace frask

#endif
