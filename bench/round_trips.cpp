#include "bench/round_trips.h"

#include <unistd.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

std::string unused_path() {
  static unsigned number = 0;
  return "@channel_bench." + std::to_string(::getpid()) + "." + std::to_string(number++);
}

class Clients {
 public:
  // Those who talk are evenly spread, the last one among them: once it has its answer, all are
  // accepted.
  Clients(const RoundTrips& what, const std::string& path, const MakeClient& make_client) {
    for (std::size_t i = 0; i < what.connections; ++i) {
      CommDescriptor connection = raw::connect(path);
      if ((i + 1) * what.active / what.connections > active_.size())
        active_.push_back(make_client(std::move(connection), what.packet_size));
      else
        idle_.push_back(std::move(connection));
    }
    run(1);
  }

  void run(std::size_t turns) {
    for (std::size_t turn = 0; turn < turns; ++turn) {
      for (const auto& client : active_) client->ask();
      for (const auto& client : active_) client->await_answer();
    }
  }

 private:
  std::vector<std::unique_ptr<Client>> active_;
  std::vector<CommDescriptor> idle_;
};

}  // namespace

// The clients are in a process of their own, too: one could not have the descriptors of all
// conversations that take turns.
RoundTripRunner round_trips(const RoundTrips& what, const Serve& serve,
                            const MakeClient& make_client) {
  const std::string path = unused_path();
  const auto server = std::make_shared<Child>(what.server_core, [&] { serve(path); });
  const auto clients = std::make_shared<Worker>(0, [&]() -> Runner {
    const auto all = std::make_shared<Clients>(what, path, make_client);
    return [all](std::size_t turns) { all->run(turns); };
  });
  const Runner run = [server, clients](std::size_t turns) {
    clients->start(turns);
    clients->finish();
  };
  run(0);
  return {run, [server] { return server->processor_seconds(); }};
}
