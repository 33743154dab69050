// What the operations of a server cost as its table of client records grows. Eight clients are
// connected; the other slots are empty.
#include <benchmark/benchmark.h>
#include <tarn_utils_v4/comm.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "bench/check.h"
#include "bench/raw_sockets.h"

namespace {

class Server {
 public:
  explicit Server(std::size_t slots) : server_(comm_socket_v4_create()) {
    check(comm_socket_v4_create_server(get(), path_.c_str()), "create_server");
    if (slots > 16) check(comm_socket_v4_expand_client_list(get(), slots - 16), "expand");
    for (int i = 0; i < 8; ++i) connect();
  }

  comm_socket_v4* get() const { return server_.get(); }
  comm_socket_v4_client* connect() {
    peers_.push_back(raw::connect(path_));
    return comm_socket_v4_accept_connection(get());
  }
  // What was connected last.
  void hang_up() { peers_.pop_back(); }

 private:
  const std::string path_ = "@table_bench." + std::to_string(::getpid());
  std::vector<CommDescriptor> peers_;
  CommEndpoint server_;
};

template <class Operation>
void each_call(benchmark::State& state, Operation operation) {
  const Server server(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) operation(server.get());
}

void accept_and_release(benchmark::State& state) {
  Server server(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    comm_socket_v4_free_client(server.connect());
    server.hang_up();
  }
}

void disconnect_and_release(benchmark::State& state) {
  Server server(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    comm_socket_v4_disconnect_client(server.connect());
    comm_socket_v4_free_client(comm_socket_v4_get_disconnected_client(server.get()));
    server.hang_up();
  }
}

void open_grow_and_close(benchmark::State& state) {
  for (auto _ : state) const Server server(static_cast<std::size_t>(state.range(0)));
}

}  // namespace

int main(int argc, char** argv) {
  std::FILE* const nowhere = std::fopen("/dev/null", "w");
  const auto over_sizes = [](const char* name, auto operation) {
    benchmark::RegisterBenchmark(name, operation)
        ->Arg(16)
        ->Arg(100)
        ->Arg(1000)
        ->Arg(10000)
        ->Arg(100000);
  };
  over_sizes("index2client", [](benchmark::State& s) {
    each_call(
        s, [](comm_socket_v4* c) { benchmark::DoNotOptimize(comm_socket_v4_index2client(c, 3)); });
  });
  over_sizes("client_ptr2index", [](benchmark::State& s) {
    each_call(s, [](comm_socket_v4* c) {
      benchmark::DoNotOptimize(comm_socket_v4_client_ptr2index(&c->client[3]));
    });
  });
  over_sizes("client_get_packet", [](benchmark::State& s) {
    each_call(s, [](comm_socket_v4* c) { comm_socket_v4_client_get_packet(&c->client[3]); });
  });
  over_sizes("accept_and_release", accept_and_release);
  over_sizes("disconnect_and_release", disconnect_and_release);
  over_sizes("idle", [](benchmark::State& s) {
    each_call(s, [](comm_socket_v4* c) { comm_socket_v4_idle(c); });
  });
  over_sizes("server_get_packet", [](benchmark::State& s) {
    each_call(s, [](comm_socket_v4* c) { comm_socket_v4_server_get_packet(c, nullptr); });
  });
  over_sizes("server_from_client_readable", [](benchmark::State& s) {
    each_call(s, [](comm_socket_v4* c) { comm_socket_v4_server_from_client_readable(c, 0); });
  });
  over_sizes("dump_state", [nowhere](benchmark::State& s) {
    each_call(s, [nowhere](comm_socket_v4* c) { comm_socket_v4_dump_state(c, nowhere); });
  });
  over_sizes("open_grow_and_close", open_grow_and_close);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
