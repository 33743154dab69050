// The clients that ask the servers.
#ifndef COMM_BENCH_CLIENTS_H
#define COMM_BENCH_CLIENTS_H

#include <cstddef>
#include <functional>
#include <memory>

#include "bench/raw_sockets.h"

class Client {
 public:
  virtual ~Client() = default;
  virtual void ask() = 0;
  virtual void await_answer() = 0;
};

// What a client waits by. The library's own waits are select(2), too.
enum class WaitBy { select, epoll };

// Makes a client that asks with packets of this size on a connection.
using MakeClient =
    std::function<std::unique_ptr<Client>(CommDescriptor connection, std::size_t packet_size)>;

// Sends one packet again and again, and looks at no answer.
MakeClient raw_client(raw::Calls calls, WaitBy wait_by);
// Builds every request, validates and reads every answer.
MakeClient library_client(WaitBy wait_by);

#endif
