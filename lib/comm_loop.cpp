// A turn of the loop, and the functions of CommLoop, which find the member that they are about.
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <tarn_utils_v4/comm_loop.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <new>
#include <utility>

#include "lib/at_scope_end.h"
#include "lib/endpoint_internal.h"
#include "lib/errno_guard.h"
#include "lib/event_key.h"
#include "lib/loop_connection.h"
#include "lib/loop_counters.h"
#include "lib/loop_internal.h"
#include "lib/or_no_memory.h"
#include "suite/time.h"

namespace {

// In place of a member's key. No member has the last slot.
constexpr std::uint64_t wakeup_key = UINT64_MAX;
constexpr std::uint64_t timer_key = UINT64_MAX - 1;

constexpr CommLoopId nobody = {0, 0};

bool watch_own(int epoll, int fd, std::uint64_t key) {
  struct epoll_event event = {};
  event.events = EPOLLIN;
  event.data.u64 = key;
  return fd >= 0 && ::epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event) == 0;
}

void read_number(int fd) {
  ErrnoGuard keep_errno;
  std::uint64_t number;
  // Nothing to read is nothing to do.
  [[maybe_unused]] const ssize_t count = ::read(fd, &number, sizeof(number));
}

// For epoll_wait(2): not before the deadline, and so up to a millisecond later.
int milliseconds_until(unsigned long deadline_us) {
  if (deadline_us == ULONG_MAX) return -1;
  const std::uint64_t now = monotonic_clock_us();
  if (deadline_us <= now) return 0;
  return static_cast<int>(std::min<std::uint64_t>((deadline_us - now + 999) / 1000, INT_MAX));
}

int result_of(const LoopMember* m) { return m != nullptr ? 0 : -1; }

int invalid() {
  errno = EINVAL;
  return -1;
}

}  // namespace

comm_v4_loop::comm_v4_loop(CommLoop& of_application)
    : loop(of_application),
      epoll(::epoll_create1(EPOLL_CLOEXEC)),
      wakeup(epoll.is_open() ? ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK) : -1),
      timer(wakeup.is_open() ? ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK) : -1),
      process(::getpid()) {
  if (watch_own(epoll.get(), wakeup.get(), wakeup_key) &&
      watch_own(epoll.get(), timer.get(), timer_key))
    return;
  failure = errno;
  epoll = CommDescriptor();
}

int comm_v4_loop::refuse() const noexcept {
  errno = failure;
  return -1;
}

void comm_v4_loop::wake() const noexcept {
  ErrnoGuard keep_errno;
  const std::uint64_t one = 1;
  // It fails only when the loop is to wake already.
  [[maybe_unused]] const ssize_t count = ::write(wakeup.get(), &one, sizeof(one));
}

// --- A turn -------------------------------------------------------------------------------------

int comm_v4_loop::dispatch(unsigned long deadline_us) {
  if (!epoll.is_open()) return refuse();
  if (dispatching) {
    errno = EBUSY;
    return -1;
  }
  // What is left of a turn comes before the next one, in which who throws would come first again.
  const bool goes_on = in_turn && (next_ready < ready_count || first_to_settle != nullptr);
  if (!goes_on) {
    const int count = ::epoll_wait(epoll.get(), ready, most_ready, milliseconds_until(deadline_us));
    if (count < 0) return errno == EINTR ? 0 : -1;
    if (count == 0) return 0;
    next_ready = 0;
    ready_count = count;
    in_turn = true;
  }
  now = monotonic_clock_us();
  dispatching = true;
  const AtScopeEnd end_turn([this] {
    dispatching = false;
    if (first_to_settle != nullptr) wake();
  });
  while (next_ready < ready_count) {
    const struct epoll_event event = ready[next_ready++];
    if (next_ready < ready_count) fetch_ahead(ready[next_ready].data.u64);
    handle(event.data.u64, event.events);
  }
  settle_members();
  in_turn = false;
  return 1;
}

// The kernel's work for one connection leaves little of the next in the caches.
void comm_v4_loop::fetch_ahead(std::uint64_t key) const noexcept {
  const std::uint64_t slot = slot_of_event(key);
  if (slot >= members.size()) return;
  const auto* const m = reinterpret_cast<const char*>(members[slot].get());
  __builtin_prefetch(m);
  __builtin_prefetch(m + 64);
}

void comm_v4_loop::handle(std::uint64_t key, std::uint32_t events) {
  if (key == wakeup_key) return read_number(wakeup.get());
  if (key == timer_key) return run_times();
  LoopMember* const m = find_by_key(key);
  // What happened before in this turn may have changed what it is watched for.
  if (m == nullptr || m->watched_fd < 0) return;
  if (m->kind == LoopKind::server)
    accept_clients(*m, events);
  else if (m->is_connection())
    on_connection_events(*m, events);
  else
    m->handler->on_ready(loop, m->id, events);
}

void comm_v4_loop::run_times() {
  read_number(timer.get());
  const AtScopeEnd set_again(
      [this] { set_timer(times.empty() ? LoopMember::never : times.begin()->first); });
  while (!times.empty() && times.begin()->first <= now) {
    LoopMember& m = *times.begin()->second;
    if (m.kind == LoopKind::timer) {
      CommLoopHandler* const handler = m.handler;
      const CommLoopId id = m.id;
      destroy(m);
      handler->on_time(loop, id);
    } else {
      on_due(m);
    }
  }
}

// Those that wait by now; who comes meanwhile is settled in the next turn.
void comm_v4_loop::settle_members() {
  if (last_of_turn == nullptr) last_of_turn = last_to_settle;
  while (last_of_turn != nullptr) {
    LoopMember& m = *first_to_settle;
    stop_settling(m);
    settle(m);
  }
}

// --- CommLoop -----------------------------------------------------------------------------------

CommLoop::CommLoop() : internals_(new comm_v4_loop(*this)) {}
CommLoop::~CommLoop() { delete internals_; }

int CommLoop::fd() const { return internals_->epoll.get(); }
int CommLoop::dispatch(unsigned long deadline_us) { return internals_->dispatch(deadline_us); }

int CommLoop::run() {
  if (internals_->dispatching || fd() < 0) return internals_->dispatch(0);
  while (!internals_->stopped.exchange(false))
    if (internals_->dispatch(ULONG_MAX) < 0) return -1;
  return 0;
}

void CommLoop::stop() {
  internals_->stopped = true;
  internals_->wake();
}

bool CommLoop::stopped() const { return internals_->stopped; }

CommLoopId CommLoop::add(comm_socket_v4* endpoint, CommLoopHandler& handler,
                         const CommLoopLimits& limits) {
  if (fd() >= 0) return internals_->add(endpoint, handler, limits);
  internals_->refuse();
  return nobody;
}

namespace {

// Opens an endpoint of the loop's own, and adds it; nobody with the errno of either.
template <class Open>
CommLoopId add_new(CommLoop& loop, CommEndpoint& endpoint, CommLoopHandler& handler,
                   const CommLoopLimits& limits, const Open& open) {
  if (loop.fd() < 0) return loop.add(nullptr, handler, limits);  // It fails, and says why.
  const int opened = or_no_memory(-1, [&] {
    endpoint.reset(comm_socket_v4_create());
    if (endpoint == nullptr) throw std::bad_alloc();
    comm_v4_internals::of(endpoint.get()).loop_epoll = loop.fd();
    comm_socket_v4_set_max_descriptors(endpoint.get(), limits.descriptors_per_packet);
    return open();
  });
  if (opened != 0) return nobody;
  const CommLoopId id = loop.add(endpoint.get(), handler, limits);
  if (id != nobody) static_cast<void>(endpoint.release());
  return id;
}

// Without a path connect_to has no errno of its own, and so without a socket use_socketpair.
int connect_endpoint(comm_socket_v4* endpoint, const char* path) {
  errno = EINVAL;
  return comm_socket_v4_connect_to(endpoint, path);
}

int use_descriptor(comm_socket_v4* endpoint, int fd) {
  errno = fd < 0 ? EBADF : ENOTSOCK;
  return comm_socket_v4_connect_use_socketpair(endpoint, fd);
}

}  // namespace

CommLoopId CommLoop::serve(const char* path, CommLoopHandler& handler,
                           const CommLoopLimits& limits) {
  CommEndpoint endpoint;
  return add_new(*this, endpoint, handler, limits,
                 [&] { return comm_socket_v4_create_server(endpoint.get(), path); });
}

CommLoopId CommLoop::connect(const char* path, CommLoopHandler& handler,
                             const CommLoopLimits& limits) {
  CommEndpoint endpoint;
  return add_new(*this, endpoint, handler, limits,
                 [&] { return connect_endpoint(endpoint.get(), path); });
}

CommLoopId CommLoop::connect(comm_socket_v4* endpoint, const char* path, CommLoopHandler& handler,
                             const CommLoopLimits& limits) {
  if (endpoint == nullptr || comm_socket_v4_is_open(endpoint)) return invalid(), nobody;
  if (fd() < 0) return internals_->refuse(), nobody;
  comm_v4_internals& own = comm_v4_internals::of(endpoint);
  const unsigned max_descriptors = own.max_descriptors;
  own.loop_epoll = fd();
  comm_socket_v4_set_max_descriptors(endpoint, limits.descriptors_per_packet);
  const CommLoopId id = or_no_memory(nobody, [&] {
    if (connect_endpoint(endpoint, path) != 0) return nobody;
    // Of an earlier connection.
    CommPacket(std::exchange(endpoint->next_packet, nullptr)).reset();
    return add(endpoint, handler, limits);
  });
  if (id != nobody) return id;
  comm_socket_v4_close(endpoint);
  own.loop_epoll = -1;
  own.max_descriptors = max_descriptors;
  return nobody;
}

CommLoopId CommLoop::adopt(int descriptor, CommLoopHandler& handler, const CommLoopLimits& limits) {
  CommEndpoint endpoint;
  const CommLoopId id = add_new(*this, endpoint, handler, limits,
                                [&] { return use_descriptor(endpoint.get(), descriptor); });
  // It stays the caller's then.
  if (id == nobody && endpoint != nullptr) endpoint->socket_fd = -1;
  return id;
}

int CommLoop::remove(CommLoopId id) {
  LoopMember* const m = internals_->find(id);
  if (m != nullptr) internals_->destroy(*m);
  return result_of(m);
}

int CommLoop::stop_listening(CommLoopId server) {
  LoopMember* const m = internals_->find(server);
  if (m == nullptr) return -1;
  return m->kind == LoopKind::server ? internals_->stop_listening(*m) : invalid();
}

comm_socket_v4* CommLoop::endpoint(CommLoopId id) const {
  const LoopMember* const m = internals_->find(id);
  return m != nullptr && m->home != nullptr ? m->home->endpoint.get() : nullptr;
}

int CommLoop::send(CommLoopId to, comm_socket_v4_packet* packet) {
  LoopMember* const m = internals_->find(to);
  return m != nullptr ? internals_->send(*m, packet) : -1;
}

int CommLoop::disconnect(CommLoopId peer) {
  LoopMember* const m = internals_->find_open_connection(peer);
  if (m != nullptr) internals_->leave(*m, comm_loop_disconnected, 0);
  return result_of(m);
}

int CommLoop::finish(CommLoopId peer) {
  LoopMember* const m = internals_->find_open_connection(peer);
  if (m != nullptr && !m->finishing) internals_->finish(*m);
  return result_of(m);
}

int CommLoop::pause(CommLoopId id) { return internals_->set_paused(id, true); }
int CommLoop::resume(CommLoopId id) { return internals_->set_paused(id, false); }

int CommLoop::set_tag(CommLoopId id, std::uint64_t tag) {
  LoopMember* const m = internals_->find(id);
  if (m != nullptr) m->tag = tag;
  return result_of(m);
}

std::uint64_t CommLoop::tag(CommLoopId id) const {
  const LoopMember* const m = internals_->find(id);
  return m != nullptr ? m->tag : 0;
}

comm_socket_v4_client* CommLoop::client(CommLoopId peer) const {
  const LoopMember* const m = internals_->find(peer);
  return m != nullptr ? loop_connection::record(*m) : nullptr;
}

CommLoopId CommLoop::watch(int descriptor, std::uint32_t events, CommLoopHandler& handler) {
  LoopMember* const m = internals_->create(LoopKind::descriptor, handler, nullptr);
  if (m == nullptr) return nobody;
  m->descriptor = descriptor;
  m->wanted_events = events;
  if (internals_->watch(*m, descriptor, events)) return m->id;
  internals_->destroy(*m);
  return nobody;
}

CommLoopId CommLoop::after(std::uint64_t delay_us, CommLoopHandler& handler) {
  LoopMember* const m = internals_->create(LoopKind::timer, handler, nullptr);
  if (m == nullptr) return nobody;
  // Never at once: what is due in a turn is not added to in the same turn.
  internals_->set_due(
      *m, LoopMember::later(monotonic_clock_us(), std::max<std::uint64_t>(delay_us, 1)));
  return m->id;
}

int CommLoop::counters(CommLoopId id, CommLoopCounters& out) const {
  const LoopMember* const m = internals_->find(id);
  if (m == nullptr) return -1;
  if (m->home == nullptr || m->kind == LoopKind::client) return invalid();
  out = m->home->counters;
  return 0;
}

CommLoopCounters CommLoop::counters() const {
  CommLoopCounters sum = internals_->counters_of_removed;
  for (const auto& m : internals_->members)
    if (m->home != nullptr && m->kind != LoopKind::client)
      loop_counters::add(sum, m->home->counters);
  return sum;
}

void CommLoop::dump(std::FILE* out) const { internals_->dump(out != nullptr ? out : stderr); }

// --- What a handler does when it does not say ---------------------------------------------------

CommLoopHandler::~CommLoopHandler() = default;
bool CommLoopHandler::on_connect(CommLoop& /*loop*/, CommLoopId /*id*/,
                                 const struct ucred& /*who*/) {
  return true;
}
void CommLoopHandler::on_packet(CommLoop& /*loop*/, CommLoopId /*id*/,
                                comm_socket_v4_packet* /*packet*/) {}
void CommLoopHandler::on_room(CommLoop& /*loop*/, CommLoopId /*id*/) {}
void CommLoopHandler::on_gone(CommLoop& /*loop*/, CommLoopId /*id*/, CommLoopReason /*why*/,
                              int /*error*/) {}
void CommLoopHandler::on_accept_failed(CommLoop& /*loop*/, CommLoopId /*id*/, int /*error*/) {}
void CommLoopHandler::on_ready(CommLoop& /*loop*/, CommLoopId /*id*/, std::uint32_t /*events*/) {}
void CommLoopHandler::on_time(CommLoop& /*loop*/, CommLoopId /*id*/) {}
