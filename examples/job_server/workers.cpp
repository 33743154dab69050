#include "workers.h"

#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>

#include "processes.h"

namespace {

constexpr std::size_t most_idle = 4;
// A pipe whose other end does nothing would keep a worker for ever.
constexpr std::uint64_t patience_us = 60000000;

}  // namespace

template <class Is>
Workers::Entry Workers::find(Is is) {
  return std::find_if(workers_.begin(), workers_.end(),
                      [is](const auto& entry) { return is(entry.second); });
}

int Workers::run(const CommPacket& request) {
  auto entry = find([](const Worker& worker) { return worker.job == 0; });
  if (entry == workers_.end()) entry = start();
  if (entry == workers_.end()) return errno;
  Worker& worker = entry->second;
  --idle_;
  worker.job = request->message_id;
  worker.timer = loop_.after(patience_us, *this);
  std::printf("job %" PRIu64 ": %s, worker %d\n", worker.job, request->command(), worker.process);
  // One that it did not get is answered for by on_gone.
  if (loop_.send(worker.connection, request.get()) < 0) loop_.disconnect(worker.connection);
  return 0;
}

// The end without one, with errno.
Workers::Entry Workers::start() {
  int pair[2];
  if (comm_socket_v4_make_socketpair(pair) != 0) return workers_.end();
  CommDescriptor ours(pair[0]);
  const CommDescriptor theirs(pair[1]);
  Worker worker;
  worker.connection = loop_.adopt(ours.get(), *this);
  if (worker.connection.generation == 0) return workers_.end();
  static_cast<void>(ours.release());
  const std::vector<std::string> words = {program_, std::to_string(theirs.get())};
  worker.process = start_program(words, {theirs.get()}, Fate::is_killed);
  if (worker.process < 0) {
    loop_.remove(worker.connection);
    return workers_.end();
  }
  ++idle_;
  return workers_.emplace(worker.connection.generation, worker).first;
}

void Workers::on_packet(CommLoop& /*loop*/, CommLoopId from, comm_socket_v4_packet* answer) {
  const auto entry = workers_.find(from.generation);
  Worker& worker = entry->second;
  // One that answers what it was not asked is out of order in more than one sense.
  if (worker.job == 0 || answer->message_id != worker.job) return end(entry, EPROTO);
  finish_job(worker, answer, 0);
  if (idle_ > most_idle) end(entry, 0);
}

void Workers::on_gone(CommLoop& /*loop*/, CommLoopId peer, CommLoopReason /*why*/, int /*error*/) {
  end(workers_.find(peer.generation), EOWNERDEAD);
}

void Workers::on_time(CommLoop& /*loop*/, CommLoopId timer) {
  end(find([timer](const Worker& worker) { return worker.timer == timer; }), ETIMEDOUT);
}

void Workers::cancel(std::uint64_t job) {
  const auto entry = find([job](const Worker& worker) { return worker.job == job; });
  if (entry != workers_.end()) end(entry, ECANCELED);
}

void Workers::finish_job(Worker& worker, const comm_socket_v4_packet* answer, int error) {
  loop_.remove(worker.timer);
  ++idle_;
  done_(std::exchange(worker.job, 0), answer, error);
}

// Whatever the process is at.
void Workers::end(Entry entry, int error) {
  Worker worker = entry->second;
  workers_.erase(entry);
  loop_.remove(worker.connection);
  ::kill(worker.process, SIGKILL);
  ended_.push_back(worker.process);
  reap();
  if (worker.job != 0) finish_job(worker, nullptr, error);
  --idle_;
}

void Workers::reap() {
  const auto has_been_reaped = [](pid_t process) {
    int status = 0;
    if (::waitpid(process, &status, WNOHANG) != process) return false;
    std::printf("worker %d has ended, %s %d\n", process, WIFSIGNALED(status) ? "signal" : "status",
                WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status));
    return true;
  };
  ended_.erase(std::remove_if(ended_.begin(), ended_.end(), has_been_reaped), ended_.end());
}
