#include "faults.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <tarn_utils_v4/comm_packet.h>

#include <algorithm>
#include <cstdarg>
#include <new>
#include <type_traits>
#include <utility>

namespace {

thread_local Faults* armed = nullptr;

struct Kind {
  const char* name;
  int error;
};
constexpr Kind kKinds[] = {
#define CALL(name, error) {#name, error},
    COMM_TEST_CALLS(CALL)
#undef CALL
};

template <class Real>
auto intercept(Call call, void* subject, Real real) -> decltype(real()) {
  using Result = decltype(real());
  Faults* const faults = armed;
  if (faults == nullptr) return real();
  if (const int error = faults->next(call)) {
    if (call == Call::close) real();
    errno = error;
    if constexpr (std::is_pointer_v<Result>)
      return nullptr;
    else
      return -1;
  }
  if constexpr (!std::is_pointer_v<Result>) {
    if (const Faults::Hook& hook = faults->hook(call)) {
      const Faults::Armed paused(nullptr);
      return static_cast<Result>(hook([&real] { return static_cast<long>(real()); }, subject));
    }
  }
  return real();
}

}  // namespace

Faults* Faults::arm(Faults* faults) {
  comm_socket_v4_packet_keep_spares(faults == nullptr || faults->takes_spares());
  return std::exchange(armed, faults);
}

Faults& Faults::fail(Call call, int error, unsigned nth, unsigned times) {
  Plan& plan = at(call);
  plan.from = plan.count + nth;
  plan.until = plan.from + times;
  plan.error = error;
  return *this;
}

Faults& Faults::fail_any(unsigned kth, int error, std::vector<Call> kinds) {
  any_left_ = kth;
  any_error_ = error;
  any_kinds_ = std::move(kinds);
  return *this;
}

Faults& Faults::replace(Call call, Hook hook) {
  at(call).hook = std::move(hook);
  return *this;
}

Faults& Faults::with_spares() {
  with_spares_ = true;
  return *this;
}

bool Faults::takes_spares() const {
  const auto fails = [](const Plan& plan) { return plan.until != 0; };
  return with_spares_ || (any_left_ == 0 && std::none_of(plans_.begin(), plans_.end(), fails));
}

int Faults::next(Call call) {
  Plan& plan = at(call);
  ++plan.count;
  const bool meant = any_error_ == 0 || std::count(any_kinds_.begin(), any_kinds_.end(), call) != 0;
  const bool any = any_left_ != 0 && meant && --any_left_ == 0;
  const bool planned = plan.count >= plan.from && plan.count < plan.until;
  if (!any && !planned) return 0;
  ++fired_;
  failed_ = call;
  const int own_error = kKinds[static_cast<std::size_t>(call)].error;
  return error_ = planned ? plan.error : any_error_ != 0 ? any_error_ : own_error;
}

std::string Faults::calls() const {
  std::string list;
  for (std::size_t i = 0; i < plans_.size(); ++i)
    if (plans_[i].count != 0)
      list += (list.empty() ? "" : ", ") + std::string(kKinds[i].name) + " " +
              std::to_string(plans_[i].count);
  return list;
}

Faults::~Faults() {
  for (std::size_t i = 0; i < plans_.size(); ++i)
    if (plans_[i].until != 0 && plans_[i].count + 1 < plans_[i].until)
      ADD_FAILURE() << "a fault was planned for " << kKinds[i].name << " and never came";
}

#define WRAP(result, name, subject, parameters, arguments)                          \
  result __real_##name parameters;                                                  \
  result __wrap_##name parameters {                                                 \
    return intercept(Call::name, subject, [&] { return __real_##name arguments; }); \
  }

extern "C" {
// ioctl, fcntl and syscall are variadic, but take their arguments where fixed ones would be.
WRAP(int, socket, nullptr, (int domain, int type, int protocol), (domain, type, protocol))
WRAP(int, socketpair, nullptr, (int domain, int type, int protocol, int* fds),
     (domain, type, protocol, fds))
WRAP(int, bind, nullptr, (int fd, const sockaddr* a, socklen_t n), (fd, a, n))
WRAP(int, listen, nullptr, (int fd, int backlog), (fd, backlog))
WRAP(int, accept4, nullptr, (int fd, sockaddr* a, socklen_t* n, int flags), (fd, a, n, flags))
WRAP(int, connect, nullptr, (int fd, const sockaddr* a, socklen_t n), (fd, a, n))
WRAP(int, getsockopt, value, (int fd, int level, int name, void* value, socklen_t* n),
     (fd, level, name, value, n))
WRAP(ssize_t, send, nullptr, (int fd, const void* data, std::size_t n, int flags),
     (fd, data, n, flags))
WRAP(ssize_t, sendmsg, const_cast<msghdr*>(m), (int fd, const msghdr* m, int flags), (fd, m, flags))
WRAP(ssize_t, recvmsg, m, (int fd, msghdr* m, int flags), (fd, m, flags))
WRAP(ssize_t, recv, nullptr, (int fd, void* data, std::size_t n, int flags), (fd, data, n, flags))
WRAP(int, ioctl, nullptr, (int fd, unsigned long request, void* value), (fd, request, value))
WRAP(int, select, t, (int n, fd_set* r, fd_set* w, fd_set* e, timeval* t), (n, r, w, e, t))
WRAP(int, poll, &timeout, (struct pollfd * fds, nfds_t n, int timeout), (fds, n, timeout))
WRAP(int, fcntl, nullptr, (int fd, int command, long value), (fd, command, value))
WRAP(int, dup, nullptr, (int fd), (fd))
WRAP(int, close, nullptr, (int fd), (fd))
WRAP(int, lstat, nullptr, (const char* path, struct stat* st), (path, st))
WRAP(int, fstat, nullptr, (int fd, struct stat* st), (fd, st))
WRAP(ssize_t, readlink, nullptr, (const char* path, char* text, std::size_t n), (path, text, n))
WRAP(int, unlink, nullptr, (const char* path), (path))
WRAP(int, chmod, nullptr, (const char* path, mode_t mode), (path, mode))
WRAP(int, fchmod, nullptr, (int fd, mode_t mode), (fd, mode))
WRAP(long, syscall, nullptr, (long number, long a, long b, long c, long d), (number, a, b, c, d))
WRAP(int, open, nullptr, (const char* path, int flags, mode_t mode), (path, flags, mode))
WRAP(int, timerfd_create, nullptr, (int clock, int flags), (clock, flags))
WRAP(int, getsockname, nullptr, (int fd, sockaddr* a, socklen_t* n), (fd, a, n))
WRAP(int, shutdown, nullptr, (int fd, int how), (fd, how))
WRAP(int, setsockopt, nullptr, (int fd, int level, int name, const void* value, socklen_t n),
     (fd, level, name, value, n))
WRAP(int, epoll_create1, nullptr, (int flags), (flags))
WRAP(int, eventfd, nullptr, (unsigned count, int flags), (count, flags))
WRAP(int, epoll_ctl, nullptr, (int epoll, int what, int fd, struct epoll_event* event),
     (epoll, what, fd, event))
WRAP(int, epoll_wait, nullptr, (int epoll, struct epoll_event* events, int most, int ms),
     (epoll, events, most, ms))
WRAP(int, usleep, nullptr, (useconds_t us), (us))
WRAP(int, vasprintf, nullptr, (char** text, const char* format, va_list list), (text, format, list))
WRAP(void*, malloc, nullptr, (std::size_t n), (n))
WRAP(void*, realloc, nullptr, (void* old, std::size_t n), (old, n))
WRAP(void*, _ZnwmRKSt9nothrow_t, nullptr, (std::size_t n, const std::nothrow_t& tag), (n, tag))

void* __real__Znwm(std::size_t n);
void* __wrap__Znwm(std::size_t n) {
  void* const memory = intercept(Call::operator_new, nullptr, [n] { return __real__Znwm(n); });
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
}
