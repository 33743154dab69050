// Sums of what happened in a loop.
#ifndef TARN_LIB_LOOP_COUNTERS_H
#define TARN_LIB_LOOP_COUNTERS_H

#include <tarn_utils_v4/comm_loop.h>

#include <cstdio>

namespace loop_counters {

void add(CommLoopCounters& sum, const CommLoopCounters& counters) noexcept;
void print(const CommLoopCounters& counters, std::FILE* out);

}  // namespace loop_counters

#endif
