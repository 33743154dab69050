// The conversations that are measured, held by raw code or by the library. Each has processes of
// its own; it ends with the last copy of its runner.
#ifndef COMM_BENCH_CONVERSATIONS_H
#define COMM_BENCH_CONVERSATIONS_H

#include <cstddef>

#include "bench/processes.h"
#include "bench/raw_sockets.h"

// What the processes of both sides wait by. The library's own waits are select(2), too.
enum class WaitBy { select, epoll };

// Requests to a server and its answers. Of many connections 16 are active, all asking at once.
struct RoundTrips {
  int server_core;  // the clients are on core 0
  std::size_t connections;
  std::size_t size;
};
Runner raw_round_trips(const RoundTrips& what, raw::Calls calls, WaitBy wait_by);
Runner library_round_trips(const RoundTrips& what, WaitBy wait_by);

// Records from this process to one that takes them.
struct Stream {
  int receiver_core;
  std::size_t size;
  bool with_descriptor;
};
Runner raw_stream(const Stream& what, raw::Calls calls);
Runner library_stream(const Stream& what);

#endif
