// The loop of the subcommands that serve: descriptors and what to do when they are ready.
#ifndef TOOL_EVENT_LOOP_H
#define TOOL_EVENT_LOOP_H

#include <csignal>
#include <cstdint>
#include <functional>
#include <unordered_map>

#include "tool/handles.h"

class EventLoop {
 public:
  using Handler = std::function<void(std::uint32_t events)>;

  EventLoop();
  // Watches a descriptor for EPOLLIN and so on, level-triggered, or changes what it is watched for.
  // Without events it is not watched, not even for its end.
  void watch(int fd, std::uint32_t events, Handler handler);
  void forget(int fd);
  // Until stop(). A handler may watch and forget anything, itself included.
  void run(const std::function<void()>& after_each_event);
  void stop() { stopped_ = true; }

 private:
  struct Watched {
    std::uint32_t events;
    Handler handler;
  };

  CommDescriptor epoll_;
  std::unordered_map<int, Watched> watched_;
  bool stopped_ = false;
};

// Catches SIGINT, SIGTERM and SIGHUP from here on, and gives a descriptor that is readable once one
// of them has come. A write to a pipe without readers fails from here on, and ends nothing.
class StopSignals {
 public:
  StopSignals();
  int fd() const { return fd_.get(); }

 private:
  CommDescriptor fd_;
};

// Readable `delay_us` from when it was set, once. 0 unsets it.
class Timer {
 public:
  Timer();
  int fd() const { return fd_.get(); }
  void set(std::uint64_t delay_us);

 private:
  CommDescriptor fd_;
};

#endif
