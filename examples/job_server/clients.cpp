#include "clients.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "protocol.h"

namespace {

// With a descriptor for each of them, for each job and for each answer these stay below the usual
// limit of 1024. There are no more workers than jobs.
constexpr std::uint32_t most_clients = 64;
constexpr std::size_t most_jobs_per_client = 4;  // answers that are not sent included
constexpr std::uint64_t most_bytes = 64 << 20;   // of a file that we keep, in either direction
constexpr std::uint64_t drain_us = 60000000;

// A worker would wait for a terminal, and a socket could bring it anything. Nothing is asked of a
// file system that is somebody's process.
bool is_file_or_pipe(const CommDescriptor& fd) {
  struct statx about;
  return ::statx(fd.get(), "", AT_EMPTY_PATH | AT_STATX_DONT_SYNC, STATX_TYPE, &about) == 0 &&
         (S_ISREG(about.stx_mode) || S_ISFIFO(about.stx_mode));
}

bool rewind(const CommDescriptor& fd) { return ::lseek(fd.get(), 0, SEEK_SET) == 0; }

}  // namespace

CommLoopLimits Clients::limits() {
  CommLoopLimits limits;
  limits.clients = most_clients;
  limits.descriptors_per_packet = 2;
  limits.first_packet_us = drain_us;
  limits.finish_us = drain_us;
  return limits;
}

Clients::Clients(CommLoop& loop, const std::string& worker_program)
    : loop_(loop), workers_(loop, worker_program, [this](auto... done) { on_done(done...); }) {}

// --- Coming and going ----------------------------------------------------------------------------

// Anybody may connect to the socket: what the kernel says of the peer decides.
bool Clients::on_connect(CommLoop& /*loop*/, CommLoopId peer, const struct ucred& who) {
  const bool is_trusted = who.uid == ::geteuid() || who.uid == 0;
  std::printf("client %" PRIu64 ": pid %d, uid %u%s\n", peer.generation, who.pid, who.uid,
              is_trusted ? "" : ", turned away");
  if (is_trusted) clients_[peer.generation].id = peer;
  return is_trusted;
}

void Clients::on_gone(CommLoop& /*loop*/, CommLoopId peer, CommLoopReason /*why*/, int /*error*/) {
  std::printf("client %" PRIu64 " has left\n", peer.generation);
  for (auto job = jobs_.begin(); job != jobs_.end();) {
    const std::uint64_t id = job->first;
    const bool is_of_peer = job->second.client == peer;
    job = is_of_peer ? jobs_.erase(job) : std::next(job);
    if (is_of_peer) workers_.cancel(id);
  }
  clients_.erase(peer.generation);
  if (drains_ && clients_.empty()) loop_.stop();
}

void Clients::drain() {
  if (std::exchange(drains_, true)) return;
  if (clients_.empty()) loop_.stop();
  loop_.after(drain_us, *this);
  for (auto& [generation, client] : clients_) update(client);
}

// Whoever looks after the server has to start it again.
void Clients::on_accept_failed(CommLoop& /*loop*/, CommLoopId /*server*/, int error) {
  std::printf("nobody can be accepted any more: %s\n", std::strerror(error));
  drain();
}

void Clients::on_time(CommLoop& /*loop*/, CommLoopId /*timer*/) {
  std::printf("%zu clients have not taken their answers in time\n", clients_.size());
  loop_.stop();
}

// Lets a client wait that has enough jobs and answers, and ends it when it shall have no more. A
// request that comes too late is not read, and its sender sees the end in place of an answer.
void Clients::update(Client& client) {
  const std::size_t unfinished = client.jobs + client.answers.size();
  const bool waits = drains_ || unfinished >= most_jobs_per_client;
  waits ? loop_.pause(client.id) : loop_.resume(client.id);
  if (drains_ && unfinished == 0) loop_.finish(client.id);
}

// --- Requests ------------------------------------------------------------------------------------

void Clients::on_packet(CommLoop& /*loop*/, CommLoopId from, comm_socket_v4_packet* packet) {
  if (!CommPacketReader(*packet).is_request()) return;
  Client& client = clients_.at(from.generation);
  const int error = receive(client, *packet);
  if (error != 0) {
    client.incoming.reset();
    answer_error(client, packet->command(), packet->message_id, error);
  }
  send_answers(client);
  update(client);
}

// 0 or why the job failed.
int Clients::receive(Client& client, comm_socket_v4_packet& packet) {
  const CommPacketReader read(packet);
  const CommMultipart part = read.multipart();
  if (part == CommMultipart::none || part == CommMultipart::first) {
    if (const int error = accept_job(client, packet)) return error;
  } else if (!client.incoming || client.incoming->message_id != packet.message_id) {
    return 0;  // The rest of a job that has failed.
  }
  Job& job = *client.incoming;
  if (!read.data().empty() && !job.takes_data) return EINVAL;
  job.input_size += read.data().size();
  if (job.input_size > most_bytes) return EFBIG;
  if (!write_all(job.input.get(), read.data())) return errno;
  if (part == CommMultipart::first || part == CommMultipart::middle) return 0;
  Job whole = std::move(job);
  client.incoming.reset();
  return submit(client, std::move(whole));
}

int Clients::accept_job(Client& client, comm_socket_v4_packet& request) {
  if (client.incoming)
    answer_error(client, client.incoming->command, client.incoming->message_id, ECANCELED);
  client.incoming.reset();
  const Command* const command = find_command(request.command());
  if (command == nullptr) return ENOSYS;
  if (request.attached_fd_count() > command->files) return EINVAL;
  Job job;
  job.client = client.id;
  job.message_id = request.message_id;
  job.command = request.command();
  job.argument = CommPacketReader(request).argument(0).as_uint64().value_or(0);
  job.input = CommDescriptor(request.get_attached_fd(0));
  job.output = CommDescriptor(request.get_attached_fd(1));
  for (const CommDescriptor* const file : {&job.input, &job.output})
    if (file->is_open() && !is_file_or_pipe(*file)) return EINVAL;
  job.takes_data = command->files > 0 && !job.input.is_open();
  if (job.takes_data) job.input = make_temporary_file();
  if (command->files > 1 && !job.output.is_open()) job.result = make_temporary_file();
  if ((command->files > 0 && !job.input.is_open()) ||
      (command->files > 1 && !job.output.is_open() && !job.result.is_open()))
    return errno;
  client.incoming = std::move(job);
  return 0;
}

// What a worker is told is written here: it gets nothing that a client has written but files.
int Clients::submit(Client& client, Job job) {
  if (job.takes_data && !rewind(job.input)) return errno;
  const std::uint64_t id = ++last_job_;
  CommPacketBuilder request = CommPacketBuilder::request(job.command);
  request.message_id(id).argument_uint64(job.argument);
  request.argument_uint64(job.result.is_open() ? most_bytes : UINT64_MAX);
  if (job.input.is_open()) request.descriptor(std::move(job.input));
  if (job.output.is_open()) request.descriptor(std::move(job.output));
  if (job.result.is_open()) request.descriptor_cloexec(job.result.get());
  const CommPacket packet = request.finish();
  const int error = packet != nullptr ? workers_.run(packet) : errno;
  if (error != 0) return error;
  jobs_.emplace(id, std::move(job));
  ++client.jobs;
  return 0;
}

// --- Answers -------------------------------------------------------------------------------------

void Clients::on_done(std::uint64_t id, const comm_socket_v4_packet* result, int error) {
  const auto entry = jobs_.extract(id);
  if (entry.empty()) return;  // Its client has gone.
  Job& job = entry.mapped();
  Client& client = clients_.at(job.client.generation);
  --client.jobs;
  if (result != nullptr) error = static_cast<int>(result->error_code);
  if (error == 0 && job.result.is_open() && !rewind(job.result)) error = errno;
  if (error != 0 || result == nullptr)
    answer_error(client, job.command, job.message_id, error);
  else
    answer(client, std::move(job), *result);
  send_answers(client);
  update(client);
}

void Clients::answer(Client& client, Job job, const comm_socket_v4_packet& result) {
  std::vector<std::uint64_t> numbers;
  for (const CommValue value : CommPacketReader(result).arguments())
    numbers.push_back(value.as_uint64().value_or(0));
  const auto begin = [numbers, command = job.command, id = job.message_id] {
    CommPacketBuilder answer = CommPacketBuilder::response(command);
    answer.message_id(id);
    for (const std::uint64_t number : numbers) answer.argument_uint64(number);
    return answer;
  };
  client.answers.emplace_back(begin, std::move(job.result));
}

void Clients::answer_error(Client& client, const std::string& command, std::uint64_t message_id,
                           int error) {
  const char* const text = error == EOWNERDEAD ? "the worker died" : std::strerror(error);
  client.answers.emplace_back([=] {
    CommPacketBuilder answer = CommPacketBuilder::response(command, text);
    answer.message_id(message_id).error_code(static_cast<std::uint64_t>(error));
    return answer;
  });
}

// As much as the client takes: one packet may wait for it in the loop, and on_room goes on then.
void Clients::send_answers(Client& client) {
  while (client.has_room && !client.answers.empty()) {
    Outgoing& answer = client.answers.front();
    if (client.unsent == nullptr) client.unsent = answer.next();
    const int sent = client.unsent != nullptr ? loop_.send(client.id, client.unsent.get()) : -1;
    if (sent <= 0) client.has_room = false;
    if (sent == 0 && !std::exchange(client.is_slow, true))
      std::printf("client %" PRIu64 " reads slowly, packets wait for it\n", client.id.generation);
    if (sent < 0) {
      // EAGAIN: it is full, and the packet is kept. Otherwise it has gone, or goes now.
      if (client.unsent == nullptr || errno != EAGAIN) loop_.disconnect(client.id);
      return;
    }
    client.unsent.reset();
    if (!answer.has_next()) client.answers.pop_front();
  }
}

void Clients::on_room(CommLoop& /*loop*/, CommLoopId peer) {
  Client& client = clients_.at(peer.generation);
  client.has_room = true;
  send_answers(client);
  update(client);
}
