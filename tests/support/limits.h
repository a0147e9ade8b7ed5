// What a process may have, made scarce.
#ifndef TESTS_SUPPORT_LIMITS_H
#define TESTS_SUPPORT_LIMITS_H

#include <filesystem>

namespace testsupport {

/// Gives up root for good; the process ends with status 97 where that fails. `directory` becomes
/// the working directory.
void become_nobody_in(const std::filesystem::path& directory);

/// Lets this process have descriptors below `most` only; at its end, where a search for leaks opens
/// files, there are enough again. The process ends with status 97 where that fails.
void limit_descriptors(unsigned most);

/// Lets this process have `more` descriptors open at a time besides those that it has.
void allow_descriptors(int more);

}  // namespace testsupport

#endif
