#include "bench/raw_waits.h"

#include <sys/select.h>

#include <algorithm>
#include <cerrno>

#include "bench/check.h"

namespace raw {

namespace {

// A signal, of a debugger for instance, does not end a wait.
template <class Call>
std::size_t wait_by(const char* name, Call call) {
  int ready;
  do {
    ready = call();
  } while (ready < 0 && errno == EINTR);
  return static_cast<std::size_t>(check(ready, name));
}

}  // namespace

void SelectSet::add(int fd) {
  highest_ = std::max(highest_, fd);
  words_.resize(static_cast<std::size_t>(highest_) / 64 + 1);
  words_[static_cast<std::size_t>(fd) / 64] |= 1ul << (fd % 64);
}

std::size_t SelectSet::keep_readable() {
  return wait_by("select",
                 [&] { return ::select(highest_ + 1, get(), nullptr, nullptr, nullptr); });
}

std::size_t SelectSet::keep_writeable() {
  return wait_by("select",
                 [&] { return ::select(highest_ + 1, nullptr, get(), nullptr, nullptr); });
}

void Select::watch(int fd, std::uint64_t name) {
  all_.add(fd);
  watched_.push_back({fd, name});
}

Ready Select::wait() {
  SelectSet set = all_;
  const std::size_t count = set.keep_readable();
  ready_.clear();
  for (auto one = watched_.begin(); ready_.size() < count; ++one)
    if (set.has(one->fd)) ready_.push_back(one->name);
  return ready_;
}

void Poll::watch(int fd, std::uint64_t name) {
  watched_.push_back({fd, POLLIN, 0});
  names_.push_back(name);
}

Ready Poll::wait() {
  const std::size_t count =
      wait_by("poll", [&] { return ::poll(watched_.data(), watched_.size(), -1); });
  ready_.clear();
  for (std::size_t i = 0; ready_.size() < count; ++i)
    if (watched_[i].revents != 0) ready_.push_back(names_[i]);
  return ready_;
}

Epoll::Epoll() : epoll_(check(::epoll_create1(EPOLL_CLOEXEC), "epoll_create1")) {}

void Epoll::watch(int fd, std::uint64_t name) {
  epoll_event event = {};
  event.events = EPOLLIN;
  event.data.u64 = name;
  check(::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event), "epoll_ctl");
}

Ready Epoll::wait() {
  const std::size_t count =
      wait_by("epoll_wait", [&] { return ::epoll_wait(epoll_.get(), events_, most, -1); });
  for (std::size_t i = 0; i < count; ++i) ready_[i] = events_[i].data.u64;
  return {ready_, count};
}

void wait_readable(int fd) {
  SelectSet set;
  set.add(fd);
  set.keep_readable();
}

void wait_writeable(int fd) {
  SelectSet set;
  set.add(fd);
  set.keep_writeable();
}

}  // namespace raw
