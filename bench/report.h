// What the benchmark prints.
#ifndef BENCH_REPORT_H
#define BENCH_REPORT_H

#include <vector>

#include "measure.h"
#include "rows.h"

namespace bench {

/// Cores, kernel and load: what the figures depend on besides the code.
void print_machine();

void print_list(const std::vector<Row>& rows);

void print_time_heading();
void print_times(const Row& row, const Result& result);

void print_calls_heading();
/// Counts are -1 where there is no such contender.
void print_calls(const Row& row, int repeats, long ours, long instead, long limit);

}  // namespace bench

#endif
