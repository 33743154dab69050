// Stands in for libtarn_utils_v4_time.
#ifndef TARN_SUITE_TIME_H
#define TARN_SUITE_TIME_H

#include <cstdint>

// CLOCK_MONOTONIC in microseconds.
extern "C" std::uint64_t monotonic_clock_us();

#endif
