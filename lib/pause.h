// A pause that signals do not shorten.
#ifndef TARN_LIB_PAUSE_H
#define TARN_LIB_PAUSE_H

#include <unistd.h>

#include <cstdint>

#include "suite/time.h"

inline void pause_for(std::uint64_t usec) noexcept {
  const std::uint64_t start = monotonic_clock_us();
  std::uint64_t slept = 0;
  while (slept < usec && ::usleep(static_cast<useconds_t>(usec - slept)) != 0)
    slept = monotonic_clock_us() - start;
}

#endif
