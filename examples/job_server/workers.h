// The processes that do the work, a job at a time each. They are started when there is more to do
// than those there are can take, stay, and are replaced when they have died.
#ifndef EXAMPLES_JOB_SERVER_WORKERS_H
#define EXAMPLES_JOB_SERVER_WORKERS_H

#include <sys/types.h>
#include <tarn_utils_v4/comm_cpp.h>
#include <tarn_utils_v4/comm_loop.h>

#include <deque>
#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

class Workers : public CommLoopHandler {
 public:
  // Called once for every job, for a cancelled one perhaps, with the answer of its worker, which
  // may say that it failed; or with null and why there is none.
  using Done =
      std::function<void(std::uint64_t job, const comm_socket_v4_packet* answer, int error)>;

  Workers(CommLoop& loop, std::string program, Done done)
      : loop_(loop), program_(std::move(program)), done_(std::move(done)) {}

  // Has a request carried out; its message id is the job, not 0.
  void run(CommPacket request);
  // Nobody waits for it any more: a worker that is at it is ended.
  void cancel(std::uint64_t job);
  // After a SIGCHLD.
  void reap();

  void on_packet(CommLoop&, CommLoopId from, comm_socket_v4_packet* answer) override;
  void on_gone(CommLoop&, CommLoopId peer, CommLoopReason why, int error) override;
  void on_time(CommLoop&, CommLoopId timer) override;

 private:
  struct Worker {
    CommLoopId connection = {0, 0};
    pid_t process = -1;  // there, as a zombie at least, until on_gone
    std::uint64_t job = 0;
    CommLoopId timer = {0, 0};
    bool is_late = false;
  };

  void give_out();
  Worker* find_idle();
  Worker* start();
  void finish_job(Worker& worker, const comm_socket_v4_packet* answer, int error);

  CommLoop& loop_;
  const std::string program_;
  const Done done_;
  std::deque<CommPacket> waiting_;
  std::unordered_map<std::uint64_t, Worker> workers_;  // by the generation of the connection
  std::vector<pid_t> ended_;                           // and not reaped
};

#endif
