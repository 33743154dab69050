// Requests to a server and its answers: the server in one process, all clients in another.
#ifndef COMM_BENCH_ROUND_TRIPS_H
#define COMM_BENCH_ROUND_TRIPS_H

#include <cstddef>

#include "bench/clients.h"
#include "bench/processes.h"
#include "bench/servers.h"

struct RoundTrips {
  int server_core;  // the clients are on core 0
  std::size_t connections;
  std::size_t active;  // of them; it is their turn to ask, one by one, then to await the answers
  std::size_t packet_size;
};

// It ends with the last copy of either function.
struct RoundTripRunner {
  Runner run;  // does turns, a round trip of each who is active
  Clock server_processor;
};

// Returns when all connections are accepted.
RoundTripRunner round_trips(const RoundTrips& what, const Serve& serve,
                            const MakeClient& make_client);

#endif
