// What a second run comes to where a first one has legitimately ended half-way.
#ifndef TESTS_FAULTS_AGAIN_H
#define TESTS_FAULTS_AGAIN_H

#include <string>

#include "faults/roads.h"

namespace faults {

/// Of a deployment: what exists already stays as it is, and is reported unless it is a directory;
/// what is missing is restored. A fault may leave any part of the skeleton; of a file all or
/// nothing, of modes and groups what the skeleton's are or what new entries get.
Again deployed_again(const std::string& host, const Lines& left, const Lines& clean);

/// Of a backup: a name that was reserved stays, as an empty file where the copy failed, and the
/// copy is made under the next. A fault leaves nothing, such a file, or the copy.
Again backed_up_again(const Lines& left, const Lines& fresh, const Lines& clean);

}  // namespace faults

#endif
