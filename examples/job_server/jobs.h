// The clients of the server, their jobs, and the processes that do them, a job at a time each.
//
// The packets of a job pass between its client and its worker as they are, their descriptors
// included. Nothing of a file is kept here but a packet that waits for room, and while one waits no
// other is read: a slow reader is worked for slowly, and holds up nobody else.
#ifndef EXAMPLES_JOB_SERVER_JOBS_H
#define EXAMPLES_JOB_SERVER_JOBS_H

#include <tarn_utils_v4/comm_loop.h>

#include <algorithm>
#include <unordered_map>

#include "../processes.h"
#include "protocol.h"

class Jobs : public CommLoopHandler {
 public:
  Jobs(CommLoop& loop, EndedProcesses& ended, std::string worker_program)
      : loop_(loop), ended_(ended), program_(std::move(worker_program)) {}

  // What the endpoint of the server may take.
  static CommLoopLimits limits() {
    CommLoopLimits limits;
    // With two descriptors for each client, one for each worker, and those of each job that wait
    // with its request, this stays below the usual limit of 1024.
    limits.clients = 64;
    limits.descriptors_per_packet = 2;
    limits.first_packet_us = limits.finish_us = patience_us;
    return limits;
  }

  // Takes no job any more, and stops the loop when the last client has its answers. Who has begun
  // to send a file is read to its end. SIGALRM ends the process when that takes too long.
  void drain() {
    if (std::exchange(drains_, true)) return;
    if (clients_.empty()) loop_.stop();
    ::alarm(patience_us / 1000000);
    for (auto& [generation, client] : clients_) update(client);
  }
  bool drains() const { return drains_; }

  // --- From the clients to the workers -----------------------------------------------------------

  // Anybody may connect to the socket: what the kernel says of the peer decides.
  bool on_connect(CommLoop& loop, CommLoopId peer, const struct ucred& who) override {
    const bool is_trusted = who.uid == ::geteuid() || who.uid == 0;
    std::printf("client %" PRIu64 ": pid %d, uid %u%s\n", peer.generation, who.pid, who.uid,
                is_trusted ? "" : ", turned away");
    if (!is_trusted) return false;
    Client& client = clients_[peer.generation];
    client.id = peer;
    // The end of one that is not read is seen on a copy, which tells that alone.
    client.copy = CommDescriptor(::fcntl(loop.client(peer)->client_fd, F_DUPFD_CLOEXEC, 0));
    client.watch = loop.watch(client.copy.get(), 0, *this);
    loop.set_tag(client.watch, peer.generation);
    return true;
  }

  // Whose end is closed takes no answer any more.
  void on_ready(CommLoop& loop, CommLoopId watch, std::uint32_t /*events*/) override {
    loop.disconnect(clients_.at(loop.tag(watch)).id);
  }

  void on_packet(CommLoop& loop, CommLoopId from, comm_socket_v4_packet* packet) override {
    const CommPacketReader read(*packet);
    if (!read.is_request()) return;
    Client& client = clients_.at(from.generation);
    // Files come one at a time, and descriptors in the first packet.
    const bool is_in_order =
        read.begins_series() ? client.receiver == nullptr : packet->attached_fd_count() == 0;
    if (!is_in_order) return static_cast<void>(loop.disconnect(from));
    if (read.begins_series()) begin(client, *packet);
    // Others are the rest of a job that has failed.
    if (client.receiver != nullptr && client.receiver->request->message_id == packet->message_id)
      pass_on(client, *packet);
    update(client);
  }

  void on_room(CommLoop& /*loop*/, CommLoopId peer) override {
    Client& client = clients_.at(peer.generation);
    client.has_room = true;
    for (const Worker& worker : workers_)
      if (worker.client == &client) loop_.resume(worker.id);
    update(client);
  }

  void on_gone(CommLoop& /*loop*/, CommLoopId peer, CommLoopReason /*why*/, int /*e*/) override {
    std::printf("client %" PRIu64 " has left\n", peer.generation);
    Client& client = clients_.at(peer.generation);
    while (client.jobs != 0) end(*find_worker(&client), ECANCELED);
    loop_.remove(client.watch);
    clients_.erase(peer.generation);
    if (drains_ && clients_.empty()) loop_.stop();
  }

  // Whoever looks after the server has to start it again.
  void on_accept_failed(CommLoop& /*loop*/, CommLoopId /*server*/, int error) override {
    std::printf("nobody can be accepted any more: %s\n", std::strerror(error));
    drain();
  }

 private:
  static constexpr std::size_t most_jobs_per_client = 4;
  static constexpr std::size_t most_kept = 4;  // workers that stay for what comes
  static constexpr std::uint64_t patience_us = 60000000;

  struct Worker;
  struct Client {
    CommLoopId id = {0, 0}, watch = {0, 0};
    CommDescriptor copy;
    std::size_t jobs = 0;        // that run
    Worker* receiver = nullptr;  // of a job whose input is not complete
    bool has_room = true, is_slow = false;
  };
  struct Worker : CommLoopHandler {
    explicit Worker(Jobs& of) : jobs(of) {}
    void on_packet(CommLoop& /*loop*/, CommLoopId /*id*/, comm_socket_v4_packet* answer) override {
      jobs.on_answer(*this, *answer);
    }
    void on_room(CommLoop& /*loop*/, CommLoopId /*id*/) override {
      has_room = true;
      if (client != nullptr) jobs.update(*client);
    }
    void on_gone(CommLoop& /*l*/, CommLoopId /*id*/, CommLoopReason /*why*/, int /*e*/) override {
      jobs.end(*this, EOWNERDEAD);
    }
    void on_time(CommLoop& /*loop*/, CommLoopId /*timer*/) override { jobs.end(*this, ETIMEDOUT); }

    Jobs& jobs;
    pid_t process = -1;  // once started it is there, as a zombie at least, as long as this is
    CommLoopId id = {0, 0}, timer = {0, 0};
    Client* client = nullptr;  // whose job it does; null: idle
    CommPacket request;        // the first packet of the job
    bool has_room = true;
  };

  // Makes a worker the receiver of the job, or answers why there is none.
  void begin(Client& client, comm_socket_v4_packet& request) {
    const CommPacketReader read(request);
    const Command* const command = find_command(read.command());
    const std::vector<int>& files = request.attached_fd;
    const bool brings_data = !read.data().empty() || !read.ends_series();
    if (command == nullptr) return answer_error(client, request, ENOSYS);
    if (files.size() > command->files || (brings_data && (command->files == 0 || !files.empty())) ||
        !std::all_of(files.begin(), files.end(), is_file_or_pipe))
      return answer_error(client, request, EINVAL);
    // Another one whenever all are at work: no job waits for the pipe or the time of another.
    const auto idle = find_worker(nullptr);
    Worker& worker = idle != workers_.end() ? *idle : workers_.emplace_back(*this);
    worker.client = &client;
    worker.request = comm_share_packet(&request);
    client.receiver = &worker;
    ++client.jobs;
    if (worker.process < 0) worker.process = start_worker(loop_, worker, program_, worker.id);
    if (worker.process < 0) return end(worker, errno);
    std::printf("client %" PRIu64 ": %s, worker %d\n", client.id.generation, request.command(),
                worker.process);
  }

  // A worker would wait for a terminal, and a socket could bring it anything. Nothing is asked of a
  // file system that is somebody's process.
  static bool is_file_or_pipe(int fd) {
    struct statx about;
    return ::statx(fd, "", AT_EMPTY_PATH | AT_STATX_DONT_SYNC, STATX_TYPE, &about) == 0 &&
           (S_ISREG(about.stx_mode) || S_ISFIFO(about.stx_mode));
  }

  void pass_on(Client& client, comm_socket_v4_packet& packet) {
    Worker& worker = *client.receiver;
    be_patient(worker);
    if (CommPacketReader(packet).ends_series()) client.receiver = nullptr;
    const int sent = loop_.send(worker.id, &packet);
    worker.has_room = sent > 0;
    if (sent < 0) end(worker, errno);
  }

  // Reads on who sends the rest of a file, as fast as its worker takes it, and otherwise who has
  // neither answers waiting nor enough jobs. A request that comes too late is not read, and its
  // sender sees the end in place of an answer.
  void update(Client& client) {
    const bool may_ask = !drains_ && client.has_room && client.jobs < most_jobs_per_client;
    const bool is_read = client.receiver != nullptr ? client.receiver->has_room : may_ask;
    is_read ? loop_.resume(client.id) : loop_.pause(client.id);
    if (drains_ && client.jobs == 0) loop_.finish(client.id);
  }

  // --- From the workers to the clients -----------------------------------------------------------

  void on_answer(Worker& worker, comm_socket_v4_packet& answer) {
    // One that answers what it was not asked is out of order in more than one sense.
    if (worker.client == nullptr || answer.message_id != worker.request->message_id)
      return end(worker, EPROTO);
    Client& client = *worker.client;
    be_patient(worker);
    send(client, &answer);
    if (CommPacketReader(answer).ends_series()) {
      finish_job(worker);
      if (workers_.size() > most_kept) end(worker, 0);
    } else if (!client.has_room) {
      loop_.pause(worker.id);
    }
  }

  void answer_error(Client& client, const comm_socket_v4_packet& request, int error) {
    send(client, CommPacketBuilder::response_to(request, error).finish().get());
  }

  void send(Client& client, comm_socket_v4_packet* packet) {
    const int sent = packet != nullptr ? loop_.send(client.id, packet) : -1;
    client.has_room = sent > 0;
    if (sent == 0 && !std::exchange(client.is_slow, true))
      std::printf("client %" PRIu64 " reads slowly, packets wait for it\n", client.id.generation);
    if (sent < 0) loop_.disconnect(client.id);
  }

  // --- Workers -----------------------------------------------------------------------------------

  // The first with a job of this client; of nobody, null: an idle one.
  std::list<Worker>::iterator find_worker(const Client* of) {
    const auto is_its = [of](const Worker& worker) { return worker.client == of; };
    return std::find_if(workers_.begin(), workers_.end(), is_its);
  }

  // A pipe whose other end does nothing would keep a worker for ever, and so would a client that
  // takes nothing.
  void be_patient(Worker& worker) {
    loop_.remove(worker.timer);
    worker.timer = loop_.after(patience_us, worker);
  }

  void finish_job(Worker& worker) {
    loop_.remove(worker.timer);
    Client& client = *std::exchange(worker.client, nullptr);
    if (client.receiver == &worker) client.receiver = nullptr;
    --client.jobs;
    update(client);
  }

  // Whatever the process is at.
  void end(Worker& worker, int error) {
    loop_.remove(worker.id);
    if (worker.client != nullptr) {
      answer_error(*worker.client, *worker.request, error);
      finish_job(worker);
    }
    if (worker.process > 0) ended_.end(worker.process);
    workers_.remove_if([&worker](const Worker& other) { return &other == &worker; });
  }

  CommLoop& loop_;
  EndedProcesses& ended_;
  const std::string program_;
  bool drains_ = false;
  std::unordered_map<std::uint64_t, Client> clients_;  // by the generation of the id
  std::list<Worker> workers_;
};

#endif
