// The clients of the server: what they ask for becomes jobs of the workers, and their answers go
// out as fast as each of them reads.
#ifndef EXAMPLES_JOB_SERVER_CLIENTS_H
#define EXAMPLES_JOB_SERVER_CLIENTS_H

#include <tarn_utils_v4/comm_cpp.h>
#include <tarn_utils_v4/comm_loop.h>

#include <deque>
#include <optional>
#include <string>
#include <unordered_map>

#include "transfers.h"
#include "workers.h"

class Clients : public CommLoopHandler {
 public:
  Clients(CommLoop& loop, const std::string& worker_program);

  // What the endpoint of the server may take.
  static CommLoopLimits limits();
  // Takes no job any more, and stops the loop when the last client has its answers.
  void drain();
  Workers& workers() { return workers_; }

  bool on_connect(CommLoop& loop, CommLoopId peer, const struct ucred& who) override;
  void on_packet(CommLoop& loop, CommLoopId from, comm_socket_v4_packet* packet) override;
  void on_room(CommLoop& loop, CommLoopId peer) override;
  void on_gone(CommLoop& loop, CommLoopId peer, CommLoopReason why, int error) override;
  void on_accept_failed(CommLoop& loop, CommLoopId server, int error) override;
  void on_time(CommLoop& loop, CommLoopId timer) override;

 private:
  struct Job {
    CommLoopId client = {0, 0};
    std::uint64_t message_id = 0;  // the client's
    std::string command;
    std::uint64_t argument = 0;
    CommDescriptor input;
    CommDescriptor output;
    CommDescriptor result;         // the output, when it is ours to send
    bool takes_data = false;       // the input is ours, and comes in parts
    std::uint64_t input_size = 0;  // so far
  };
  struct Client {
    CommLoopId id = {0, 0};
    std::optional<Job> incoming;  // its input is not complete
    std::size_t jobs = 0;         // that run
    std::deque<Outgoing> answers;
    CommPacket unsent;  // the next packet, for which there was no room
    bool has_room = true;
    bool is_slow = false;
  };

  int receive(Client& client, comm_socket_v4_packet& packet);
  int accept_job(Client& client, comm_socket_v4_packet& request);
  int submit(Client& client, Job job);
  void on_done(std::uint64_t id, const comm_socket_v4_packet* result, int error);
  void answer(Client& client, Job job, const comm_socket_v4_packet& result);
  void answer_error(Client& client, const std::string& command, std::uint64_t message_id,
                    int error);
  void send_answers(Client& client);
  void update(Client& client);

  CommLoop& loop_;
  Workers workers_;
  bool drains_ = false;
  std::unordered_map<std::uint64_t, Client> clients_;  // by the generation of the id
  std::unordered_map<std::uint64_t, Job> jobs_;        // by our number, which the worker is told
  std::uint64_t last_job_ = 0;
};

#endif
