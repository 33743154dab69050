// A shell command that answers one request, while the event loop goes on.
#ifndef TOOL_REQUEST_COMMAND_H
#define TOOL_REQUEST_COMMAND_H

#include <sys/socket.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>

#include "tool/handles.h"
#include "tool/serving_loop.h"

struct CommandResult {
  std::string output;
  int wait_status = 0;
  bool too_long = false;   // it wrote more than a packet holds, and was killed
  bool timed_out = false;  // likewise
};

class RequestCommand : private CommLoopHandler {
 public:
  using Done = std::function<void(const CommandResult&)>;

  // Starts /bin/sh -c `command` in a process group of its own. Its standard input is the data of
  // the request, its parameters are the arguments, and variables say the rest. `done` may destroy
  // this object.
  RequestCommand(ServingLoop& loop, const std::string& command,
                 const comm_socket_v4_packet& request, const struct ucred& peer,
                 std::uint64_t timeout_us, Done done);
  // Ends a command that still runs with SIGTERM.
  ~RequestCommand() override;
  RequestCommand(const RequestCommand&) = delete;
  RequestCommand& operator=(const RequestCommand&) = delete;

 private:
  void on_ready(CommLoop& loop, CommLoopId watched, std::uint32_t events) override;
  void on_time(CommLoop& loop, CommLoopId timer) override;
  void read_output();
  void on_exit();
  void leave_loop();

  ServingLoop& loop_;
  Done done_;
  CommandResult result_;
  CommDescriptor output_;
  CommDescriptor process_;  // readable once the command has ended
  CommLoopId output_id_ = {};
  CommLoopId process_id_ = {};
  CommLoopId timer_id_ = {};
  pid_t pid_ = -1;  // -1 when it has been waited for
};

#endif
