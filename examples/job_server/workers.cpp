#include "workers.h"

#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>

#include "processes.h"

namespace {

// More than one client may keep busy.
constexpr std::size_t most_workers = 16;
// A pipe whose other end does nothing would keep a worker for ever.
constexpr std::uint64_t patience_us = 60000000;

}  // namespace

void Workers::run(CommPacket request) {
  waiting_.push_back(std::move(request));
  give_out();
}

void Workers::give_out() {
  while (!waiting_.empty()) {
    Worker* worker = find_idle();
    if (worker == nullptr && workers_.size() >= most_workers) return;
    const CommPacket request = std::move(waiting_.front());
    waiting_.pop_front();
    if (worker == nullptr) worker = start();
    if (worker == nullptr) {
      done_(request->message_id, nullptr, errno);
      continue;
    }
    worker->job = request->message_id;
    worker->timer = loop_.after(patience_us, *this);
    std::printf("job %" PRIu64 ": %s, worker %d\n", worker->job, request->command(),
                worker->process);
    // on_gone answers for a job that its worker did not get.
    if (loop_.send(worker->connection, request.get()) < 0) loop_.disconnect(worker->connection);
  }
}

Workers::Worker* Workers::find_idle() {
  const auto found = std::find_if(workers_.begin(), workers_.end(),
                                  [](const auto& entry) { return entry.second.job == 0; });
  return found != workers_.end() ? &found->second : nullptr;
}

// Null with errno.
Workers::Worker* Workers::start() {
  int pair[2];
  if (comm_socket_v4_make_socketpair(pair) != 0) return nullptr;
  CommDescriptor ours(pair[0]);
  const CommDescriptor theirs(pair[1]);
  const CommLoopId connection = loop_.adopt(ours.get(), *this);
  if (connection.generation == 0) return nullptr;
  static_cast<void>(ours.release());
  const pid_t process =
      start_program({program_, std::to_string(theirs.get())}, {theirs.get()}, Fate::is_killed);
  if (process < 0) {
    loop_.remove(connection);
    return nullptr;
  }
  Worker& worker = workers_[connection.generation];
  worker.connection = connection;
  worker.process = process;
  return &worker;
}

void Workers::cancel(std::uint64_t job) {
  const auto is_it = [job](const CommPacket& request) { return request->message_id == job; };
  waiting_.erase(std::remove_if(waiting_.begin(), waiting_.end(), is_it), waiting_.end());
  for (const auto& [generation, worker] : workers_)
    if (worker.job == job) loop_.disconnect(worker.connection);
}

void Workers::on_packet(CommLoop&, CommLoopId from, comm_socket_v4_packet* answer) {
  Worker& worker = workers_.at(from.generation);
  // One that answers what it was not asked is out of order in more than one sense.
  if (worker.job == 0 || answer->message_id != worker.job) {
    loop_.disconnect(from);
    return;
  }
  finish_job(worker, answer, 0);
  give_out();
}

void Workers::finish_job(Worker& worker, const comm_socket_v4_packet* answer, int error) {
  loop_.remove(worker.timer);
  done_(std::exchange(worker.job, 0), answer, error);
}

void Workers::on_time(CommLoop&, CommLoopId timer) {
  for (auto& [generation, worker] : workers_) {
    if (worker.timer != timer) continue;
    worker.is_late = true;
    loop_.disconnect(worker.connection);
  }
}

// The end of its connection is the end of a worker, whatever it does besides.
void Workers::on_gone(CommLoop&, CommLoopId peer, CommLoopReason, int) {
  const auto entry = workers_.extract(peer.generation);
  Worker& worker = entry.mapped();
  ::kill(worker.process, SIGKILL);
  ended_.push_back(worker.process);
  reap();
  if (worker.job != 0) finish_job(worker, nullptr, worker.is_late ? ETIMEDOUT : EOWNERDEAD);
  give_out();
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
