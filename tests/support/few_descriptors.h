// Shortage of descriptors.
#ifndef TESTS_SUPPORT_FEW_DESCRIPTORS_H
#define TESTS_SUPPORT_FEW_DESCRIPTORS_H

namespace testsupport {

/// Lets this process have descriptors below `most` only; at its end, where a search for leaks opens
/// files, there are enough again. The process ends with status 97 where that fails.
void limit_descriptors(unsigned most);

/// Lets this process have `more` descriptors open at a time besides those that it has.
void allow_descriptors(int more);

}  // namespace testsupport

#endif
