// How a new version of the server takes over: it is started with the socket that listens, and says
// when it accepts. Until then the old one does; from then on the old one only finishes what it has
// begun, since connections and jobs live in its memory. A new version that cannot start changes
// nothing. In between both accept, so that nobody who connects is refused.
#ifndef EXAMPLES_JOB_SERVER_RESTART_H
#define EXAMPLES_JOB_SERVER_RESTART_H

#include <sys/types.h>
#include <tarn_utils_v4/comm_cpp.h>
#include <tarn_utils_v4/comm_loop.h>

#include <functional>
#include <string>
#include <vector>

// On the side of the old version.
class Successor : public CommLoopHandler {
 public:
  Successor(CommLoop& loop, std::function<void()> is_ready)
      : loop_(loop), is_ready_(std::move(is_ready)) {}
  // One that is not ready by now shall not be.
  ~Successor() override;

  // Starts `words`, and behind the first of them "--handed-over" and two numbers: the socket, and
  // the descriptor to be ready on. Does nothing while one is starting.
  void start(std::vector<std::string> words, int listener);

  void on_ready(CommLoop& loop, CommLoopId watched, std::uint32_t events) override;

 private:
  void end();

  CommLoop& loop_;
  const std::function<void()> is_ready_;
  CommDescriptor readiness_;
  CommLoopId watch_ = {0, 0};
  pid_t process_ = -1;  // while it is starting
};

// On the side of the new one.
void report_ready(CommDescriptor to);

#endif
