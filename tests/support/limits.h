// What a process may have, made scarce.
#ifndef TESTS_SUPPORT_LIMITS_H
#define TESTS_SUPPORT_LIMITS_H

#include <filesystem>

namespace testsupport {

/// Gives up root for good; the process ends with status 97 where that fails. `directory` becomes
/// the working directory.
void become_nobody_in(const std::filesystem::path& directory);

/// Lets this process have descriptors below `most` only.
void limit_descriptors(unsigned most);

}  // namespace testsupport

#endif
