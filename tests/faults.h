// Makes system calls and allocations of the library fail, or answer what a test wants. It works by
// the linker's --wrap, so the library has to be linked statically; allocations made inside
// libstdc++.so, such as the growth of a std::string, stay out of reach.
//
//     Faults faults;
//     faults.fail(Call::recvmsg, ENOBUFS);
//     EXPECT_EQ(-1, faults.during([&] { return comm_socket_v4_idle(client); }));
//
// Faults act, and calls are counted, on this thread inside during() only. A planned fault that
// never came is a failure of the test.
#ifndef COMM_TESTS_FAULTS_H
#define COMM_TESTS_FAULTS_H

#include <array>
#include <cerrno>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

// Each kind with the errno that fail_any gives it.
// clang-format off
#define COMM_TEST_CALLS(CALL)                                                                \
  CALL(socket, EMFILE) CALL(socketpair, EMFILE) CALL(bind, EACCES) CALL(listen, EOPNOTSUPP)  \
  CALL(accept4, EMFILE) CALL(connect, ENOMEM) CALL(getsockopt, ENOBUFS)                      \
  CALL(send, ENOBUFS) CALL(sendmsg, ENOBUFS) CALL(recvmsg, ENOBUFS) CALL(recv, ENOBUFS)      \
  CALL(ioctl, EIO) CALL(select, ENOMEM) CALL(poll, ENOMEM)                                   \
  CALL(fcntl, EIO) CALL(dup, EMFILE) CALL(close, EIO)                                        \
  CALL(lstat, EACCES) CALL(fstat, EIO) CALL(readlink, EACCES) CALL(unlink, EACCES)           \
  CALL(chmod, EPERM) CALL(fchmod, EPERM) CALL(syscall, ENOSYS) CALL(usleep, EINTR)           \
  CALL(open, EMFILE) CALL(timerfd_create, EMFILE) CALL(getsockname, ENOBUFS)                 \
  CALL(shutdown, ENOBUFS) CALL(setsockopt, ENOPROTOOPT) CALL(epoll_create1, EMFILE)          \
  CALL(eventfd, EMFILE) CALL(epoll_ctl, ENOMEM) CALL(epoll_wait, ENOMEM)                     \
  CALL(malloc, ENOMEM) CALL(vasprintf, ENOMEM) CALL(operator_new, ENOMEM)
// clang-format on

enum class Call : std::size_t {
#define CALL(name, error) name,
  COMM_TEST_CALLS(CALL)
#undef CALL
      kinds,
  realloc = malloc,
  _ZnwmRKSt9nothrow_t = operator_new  // the form that does not throw
};

class Faults {
 public:
  // Stands in for a call that answers a number. `real` makes the call; `subject` is the msghdr, the
  // option value, or the time-out of poll or select.
  using Hook = std::function<long(const std::function<long()>& real, void* subject)>;

  Faults() = default;
  Faults(const Faults&) = delete;
  Faults& operator=(const Faults&) = delete;
  ~Faults();

  // The nth call of this kind from now on, and the `times` - 1 behind it, fail. A close that fails
  // has closed, as in the kernel.
  Faults& fail(Call call, int error, unsigned nth = 1, unsigned times = 1);
  // The kth call of any kind fails, or with this error that of these kinds. For loops that end when
  // fired() is 0.
  Faults& fail_any(unsigned kth, int error = 0, std::vector<Call> kinds = {});
  Faults& replace(Call call, Hook hook);
  // Where a failure is planned every packet asks for its memory, unless it may take that of an
  // earlier one.
  Faults& with_spares();

  template <class Body>
  auto during(Body&& body) {
    const Armed armed(this);
    return body();
  }

  unsigned count(Call call) const { return at(call).count; }
  // "ioctl 1, malloc 2": every kind that was called, in the order of the table above.
  std::string calls() const;
  unsigned fired() const { return fired_; }
  // What failed last, and with what.
  Call failed() const { return failed_; }
  int error() const { return error_; }

  // For the wrappers: the errno with which this call has to fail, or 0.
  int next(Call call);
  const Hook& hook(Call call) const { return at(call).hook; }
  bool takes_spares() const;
  static Faults* arm(Faults* faults);  // returns what was armed before
  class Armed {
   public:
    explicit Armed(Faults* faults) : before_(arm(faults)) {}
    ~Armed() { arm(before_); }
    Armed(const Armed&) = delete;
    Armed& operator=(const Armed&) = delete;

   private:
    Faults* before_;
  };

 private:
  struct Plan {
    unsigned count = 0, from = 0, until = 0;  // calls number from .. until - 1 fail
    int error = 0;
    Hook hook;
  };
  Plan& at(Call call) { return plans_[static_cast<std::size_t>(call)]; }
  const Plan& at(Call call) const { return plans_[static_cast<std::size_t>(call)]; }

  std::array<Plan, static_cast<std::size_t>(Call::kinds)> plans_;
  std::vector<Call> any_kinds_;
  unsigned any_left_ = 0, fired_ = 0;
  bool with_spares_ = false;
  Call failed_ = Call::kinds;
  int any_error_ = 0, error_ = 0;
};

// The answer of `body` when its nth call of this kind fails.
template <class Body>
auto failing(Call call, int error, Body&& body, unsigned nth = 1) {
  Faults faults;
  faults.fail(call, error, nth);
  return faults.during(body);
}

#endif
