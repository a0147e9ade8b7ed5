// System calls, counted by strace.
#ifndef BENCH_CALLS_H
#define BENCH_CALLS_H

#include "measure.h"

namespace bench {

/// The system calls of one run, those of the programs that it starts included.
long count_calls(const Contender& contender);

}  // namespace bench

#endif
