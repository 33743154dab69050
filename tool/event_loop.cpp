#include "tool/event_loop.h"

#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>

#include <cerrno>

#include "tool/arguments.h"

EventLoop::EventLoop() : epoll_(::epoll_create1(EPOLL_CLOEXEC)) {
  if (!epoll_.is_open()) throw system_failure("cannot create an event loop");
}

void EventLoop::watch(int fd, std::uint32_t events, Handler handler) {
  if (events == 0) return forget(fd);
  const auto entry = watched_.find(fd);
  const bool added = entry == watched_.end();
  if (!added && entry->second.events == events) return;
  struct epoll_event event = {};
  event.events = events;
  event.data.fd = fd;
  if (::epoll_ctl(epoll_.get(), added ? EPOLL_CTL_ADD : EPOLL_CTL_MOD, fd, &event) != 0)
    throw system_failure("cannot watch a descriptor");
  watched_[fd] = {events, std::move(handler)};
}

void EventLoop::forget(int fd) {
  if (watched_.erase(fd) != 0) ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr);
}

void EventLoop::run(const std::function<void()>& after_each_event) {
  stopped_ = false;
  while (!stopped_) {
    // One at a time: behind it waits no event of a descriptor that its handler closes. Ready
    // descriptors take turns.
    struct epoll_event event;
    const int ready = ::epoll_wait(epoll_.get(), &event, 1, -1);
    if (ready < 0 && errno != EINTR) throw system_failure("cannot wait for events");
    if (ready <= 0) continue;
    const auto entry = watched_.find(event.data.fd);
    if (entry == watched_.end()) continue;
    const Handler handler = entry->second.handler;
    handler(event.events);
    after_each_event();
  }
}

StopSignals::StopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  // Under nohup it stays ignored.
  struct sigaction hangup;
  if (::sigaction(SIGHUP, nullptr, &hangup) == 0 && hangup.sa_handler != SIG_IGN)
    sigaddset(&signals, SIGHUP);
  ::sigprocmask(SIG_BLOCK, &signals, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
  fd_ = CommDescriptor(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
  if (!fd_.is_open()) throw system_failure("cannot wait for signals");
}

Timer::Timer() : fd_(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)) {
  if (!fd_.is_open()) throw system_failure("cannot create a timer");
}

void Timer::set(std::uint64_t delay_us) {
  struct itimerspec time = {};
  time.it_value.tv_sec = static_cast<time_t>(delay_us / 1'000'000);
  time.it_value.tv_nsec = static_cast<long>(delay_us % 1'000'000 * 1000);
  ::timerfd_settime(fd_.get(), 0, &time, nullptr);
}
