// The members of a loop: their slots and names, what epoll watches of them, and when they are due.
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <utility>

#include "lib/endpoint_internal.h"
#include "lib/errno_guard.h"
#include "lib/event_key.h"
#include "lib/loop_connection.h"
#include "lib/loop_counters.h"
#include "lib/loop_internal.h"
#include "lib/or_no_memory.h"

bool comm_v4_loop::make_room() noexcept {
  if (!free_slots.empty()) return true;
  return or_no_memory(false, [this] {
    const std::size_t slot = members.size();
    if (members.capacity() <= slot) members.reserve(2 * slot + 16);
    // To give a slot back never fails.
    if (free_slots.capacity() <= slot) free_slots.reserve(2 * slot + 16);
    auto m = std::make_unique<LoopMember>();
    m->id.slot = slot;
    m->due = times.emplace(LoopMember::never, m.get()).first;
    members.push_back(std::move(m));
    free_slots.push_back(slot);
    return true;
  });
}

LoopMember* comm_v4_loop::create(LoopKind kind, CommLoopHandler& handler,
                                 LoopEndpoint* home) noexcept {
  if (!epoll.is_open()) {
    refuse();
    return nullptr;
  }
  if (!make_room()) return nullptr;
  LoopMember& m = *members[free_slots.back()];
  free_slots.pop_back();
  m.id.generation = ++generations;
  m.kind = kind;
  m.handler = &handler;
  m.home = home;
  return &m;
}

void comm_v4_loop::destroy(LoopMember& m) noexcept {
  ErrnoGuard keep_errno;
  if (m.kind == LoopKind::server) {
    for (const auto& other : members)
      if (other->kind == LoopKind::client && other->home == m.home) vacate(*other);
  }
  vacate(m);
}

void comm_v4_loop::vacate(LoopMember& m) noexcept {
  stop_settling(m);
  unwatch(m);
  set_due(m, LoopMember::never);
  if (m.home != nullptr) m.kind == LoopKind::client ? close_client(m) : close_endpoint(m);
  const std::uint64_t slot = m.id.slot;
  const LoopTimes::iterator due = m.due;
  m = LoopMember();
  m.id.slot = slot;
  m.due = due;
  free_slots.push_back(slot);
}

void comm_v4_loop::close_client(LoopMember& m) noexcept {
  drop_queue(m);
  --m.home->counters.connections;
  m.home->users.remove(m.user);
  loop_connection::close(m);
}

void comm_v4_loop::close_endpoint(LoopMember& m) noexcept {
  if (m.kind == LoopKind::connection) {
    drop_queue(m);
    --m.home->counters.connections;
    loop_connection::close(m);
  }
  loop_counters::add(counters_of_removed, m.home->counters);
  delete m.home;
}

// A forked child closes its copies. The sockets, the epoll and the file are its parent's as well.
void comm_v4_loop::abandon(LoopMember& m) noexcept {
  if (m.kind != LoopKind::server && m.kind != LoopKind::connection) return;
  comm_v4_internals& own = comm_v4_internals::of(m.home->endpoint.get());
  own.loop_epoll = -1;
  own.connect_timer = CommDescriptor();
  m.home->endpoint->flags.bound = 0;
  delete m.home;
}

comm_v4_loop::~comm_v4_loop() {
  ErrnoGuard keep_errno;
  const bool is_copy = ::getpid() != process;
  for (const auto& m : members) {
    if (m->id.generation == 0) continue;
    is_copy ? abandon(*m) : destroy(*m);
  }
}

// --- Watching -----------------------------------------------------------------------------------

LoopMember* comm_v4_loop::find_by_key(std::uint64_t key) const noexcept {
  const std::uint64_t slot = slot_of_event(key);
  if (slot >= members.size() || members[slot]->id.generation == 0) return nullptr;
  return event_key(slot, members[slot]->id.generation) == key ? members[slot].get() : nullptr;
}

bool comm_v4_loop::watch(LoopMember& m, int fd, std::uint32_t events) noexcept {
  if (m.watched_fd == fd && m.events == events) return true;
  if (m.watched_fd >= 0 && m.watched_fd != fd) unwatch(m);
  struct epoll_event event = {};
  event.events = events;
  event.data.u64 = event_key(m.id.slot, m.id.generation);
  if (::epoll_ctl(epoll.get(), m.watched_fd < 0 ? EPOLL_CTL_ADD : EPOLL_CTL_MOD, fd, &event) != 0)
    return false;
  m.watched_fd = fd;
  m.events = events;
  return true;
}

void comm_v4_loop::unwatch(LoopMember& m) noexcept {
  if (m.watched_fd < 0) return;
  ErrnoGuard keep_errno;
  ::epoll_ctl(epoll.get(), EPOLL_CTL_DEL, m.watched_fd, nullptr);
  m.watched_fd = -1;
}

// --- Times, and what is left for later ----------------------------------------------------------

void comm_v4_loop::set_due(LoopMember& m, std::uint64_t when) noexcept {
  if (m.due->first == when) return;
  auto node = times.extract(m.due);
  node.value().first = when;
  m.due = times.insert(std::move(node)).position;
  if (when < timer_set_to) set_timer(when);
}

void comm_v4_loop::set_timer(std::uint64_t when) noexcept {
  ErrnoGuard keep_errno;
  timer_set_to = when;
  struct itimerspec time = {};
  if (when != LoopMember::never) {
    // A time of 0 would be none.
    time.it_value.tv_sec = static_cast<time_t>(when / 1000000);
    time.it_value.tv_nsec = static_cast<long>(when % 1000000 * 1000) + 1;
  }
  ::timerfd_settime(timer.get(), TFD_TIMER_ABSTIME, &time, nullptr);
}

void comm_v4_loop::settle_later(LoopMember& m) noexcept {
  if (m.waits_to_settle) return;
  if (first_to_settle == nullptr) {
    first_to_settle = &m;
    if (!dispatching) wake();
  } else {
    last_to_settle->next_to_settle = &m;
  }
  last_to_settle = &m;
  m.waits_to_settle = true;
}

void comm_v4_loop::stop_settling(LoopMember& m) noexcept {
  if (!m.waits_to_settle) return;
  LoopMember* before = nullptr;
  LoopMember* found = first_to_settle;
  while (found != &m) {
    before = found;
    found = found->next_to_settle;
  }
  (before != nullptr ? before->next_to_settle : first_to_settle) = m.next_to_settle;
  if (last_to_settle == &m) last_to_settle = before;
  if (last_of_turn == &m) last_of_turn = before;
  m.next_to_settle = nullptr;
  m.waits_to_settle = false;
}
