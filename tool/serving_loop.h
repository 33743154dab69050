// The loop of the subcommands that serve: it ends with a signal, or with what is thrown.
#ifndef TOOL_SERVING_LOOP_H
#define TOOL_SERVING_LOOP_H

#include <poll.h>
#include <tarn_utils_v4/comm_loop.h>

#include <exception>

#include "tool/arguments.h"
#include "tool/stop_signals.h"

class ServingLoop : private StopSignals, private CommLoopHandler, public CommLoop {
 public:
  ServingLoop() {
    if (!is_member(watch(StopSignals::fd(), POLLIN, *this)))
      throw system_failure("cannot create an event loop");
  }
  static bool is_member(CommLoopId id) { return id.generation != 0; }

  // For receive callbacks, out of which nothing may be thrown: the run will throw it. Returns
  // whether nothing was.
  template <class Act>
  bool attempt(const Act& act) noexcept {
    try {
      act();
      return true;
    } catch (...) {
      if (failure_ == nullptr) failure_ = std::current_exception();
      stop();
      return false;
    }
  }
  // Throws what a handler throws, and what an attempt has thrown.
  void run_until_signal() {
    if (run() != 0) throw system_failure("cannot wait for events");
    if (failure_ != nullptr) std::rethrow_exception(failure_);
  }

 private:
  void on_ready(CommLoop& /*loop*/, CommLoopId /*signals*/, std::uint32_t /*events*/) override {
    stop();
  }

  std::exception_ptr failure_;
};

#endif
