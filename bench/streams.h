// Records from this process to one that takes them, over a socket pair.
#ifndef COMM_BENCH_STREAMS_H
#define COMM_BENCH_STREAMS_H

#include <cstddef>

#include "bench/processes.h"
#include "bench/raw_sockets.h"

struct Stream {
  int receiver_core;
  std::size_t size;
  bool with_descriptor;
};
// It ends with the last copy of the runner.
Runner raw_stream(const Stream& what, raw::Calls calls);
Runner library_stream(const Stream& what);

#endif
