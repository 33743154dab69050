// The processes that do the work, a job at a time each. Whenever all are at work another one is
// started, so that no job waits for the pipe or the time of another; a few stay for what comes.
#ifndef EXAMPLES_JOB_SERVER_WORKERS_H
#define EXAMPLES_JOB_SERVER_WORKERS_H

#include <sys/types.h>
#include <tarn_utils_v4/comm_cpp.h>
#include <tarn_utils_v4/comm_loop.h>

#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

class Workers : public CommLoopHandler {
 public:
  // Called once for every job that was begun, with the answer of its worker, which may say that it
  // failed; or with null and why there is none.
  using Done =
      std::function<void(std::uint64_t job, const comm_socket_v4_packet* answer, int error)>;

  Workers(CommLoop& loop, std::string program, Done done)
      : loop_(loop), program_(std::move(program)), done_(std::move(done)) {}

  // Has a request carried out; its message id is the job, not 0.
  // Returns 0; an errno when it could not be begun.
  int run(const CommPacket& request);
  // Nobody waits for it any more.
  void cancel(std::uint64_t job);
  // After a SIGCHLD.
  void reap();

  void on_packet(CommLoop& loop, CommLoopId from, comm_socket_v4_packet* answer) override;
  void on_gone(CommLoop& loop, CommLoopId peer, CommLoopReason why, int error) override;
  void on_time(CommLoop& loop, CommLoopId timer) override;

 private:
  struct Worker {
    pid_t process = -1;  // there, as a zombie at least, as long as this is
    CommLoopId connection = {0, 0};
    CommLoopId timer = {0, 0};
    std::uint64_t job = 0;
  };
  using Entry = std::unordered_map<std::uint64_t, Worker>::iterator;

  Entry start();
  template <class Is>
  Entry find(Is is);
  void finish_job(Worker& worker, const comm_socket_v4_packet* answer, int error);
  void end(Entry entry, int error);

  CommLoop& loop_;
  const std::string program_;
  const Done done_;
  std::unordered_map<std::uint64_t, Worker> workers_;  // by the generation of the connection
  std::size_t idle_ = 0;
  std::vector<pid_t> ended_;  // and not reaped
};

#endif
