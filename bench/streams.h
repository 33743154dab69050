// Records from this process to one that takes them, over a socket pair.
#ifndef COMM_BENCH_STREAMS_H
#define COMM_BENCH_STREAMS_H

#include <cstddef>

#include "bench/processes.h"
#include "bench/raw_sockets.h"

// Where the data of a packet is before it is sent: in memory; or in a file, which is read into
// memory from where it is copied, or into the packet. Raw code reads into the record.
enum class DataFrom { memory, file_by_copy, file_in_place };

struct Stream {
  int receiver_core;
  std::size_t size;
  bool with_descriptor = false;
  DataFrom data_from = DataFrom::memory;
};
// It ends with the last copy of a member.
struct StreamRunner {
  Runner run;
  Clock processors;  // the processor time of both processes
};
StreamRunner raw_stream(const Stream& what, raw::Calls calls);
StreamRunner library_stream(const Stream& what);

#endif
