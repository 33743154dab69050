// The servers that are measured: each answers every request with a record of the same size.
#ifndef COMM_BENCH_SERVERS_H
#define COMM_BENCH_SERVERS_H

#include <functional>
#include <string>

#include "bench/raw_sockets.h"

// Listens on the path and serves until the process ends.
using Serve = std::function<void(const std::string& path)>;

// Raw code, which sends the records back.
Serve raw_by_select(raw::Calls calls);
Serve raw_by_poll(raw::Calls calls);
Serve raw_by_epoll(raw::Calls calls);

// The library: requests are validated and read, answers built.
Serve library_by_waits();   // its own, which are select(2)
Serve library_by_epoll();   // a loop written by hand
Serve library_comm_loop();  // CommLoop

#endif
