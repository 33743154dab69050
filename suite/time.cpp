#include "suite/time.h"

#include <time.h>

std::uint64_t monotonic_clock_us() {
  struct timespec now;
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1000000u +
         static_cast<std::uint64_t>(now.tv_nsec) / 1000u;
}
