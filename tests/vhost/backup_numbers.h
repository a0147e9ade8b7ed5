// Puts the number of a BackupFileGenerator where two thousand million calls would.
#ifndef TESTS_VHOST_BACKUP_NUMBERS_H
#define TESTS_VHOST_BACKUP_NUMBERS_H

#include "vhost/misc.h"

namespace vhosttest {

/// An explicit instantiation may name a private member.
template <int frask::BackupFileGenerator::*Number>
struct NumberOf {
  friend void jump_to(frask::BackupFileGenerator& names, int number) { names.*Number = number; }
};
void jump_to(frask::BackupFileGenerator& names, int number);
template struct NumberOf<&frask::BackupFileGenerator::number_>;

}  // namespace vhosttest

#endif
