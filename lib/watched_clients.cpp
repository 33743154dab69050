#include "lib/watched_clients.h"

#include <sys/epoll.h>
#include <unistd.h>

#include "lib/endpoint_internal.h"
#include "lib/errno_guard.h"
#include "lib/event_key.h"
#include "lib/or_no_memory.h"

namespace {

// More at once are soon found by asking, and to be told of them takes longer. So it may be for a
// while: clients that are not to be read stay ready.
constexpr int most_ready = 128;
constexpr int looks_skipped = 256;

}  // namespace

bool WatchedClients::open() noexcept {
  if (epoll_.is_open() && process_ == ::getpid()) return true;
  clear();
  process_ = ::getpid();
  epoll_ = CommDescriptor(::epoll_create1(EPOLL_CLOEXEC));
  return epoll_.is_open();
}

bool WatchedClients::look(const std::vector<comm_socket_v4_client>& table,
                          std::uint64_t accepted) noexcept {
  if (given_up_ || (looks_to_skip_ > 0 && looks_to_skip_-- > 0)) return false;
  ErrnoGuard keep_errno;
  if (!open() || (accepted != accepted_ && !watch_newcomers(table))) return give_up(), false;
  accepted_ = accepted;
  struct epoll_event ready[most_ready];
  const int count = ::epoll_wait(epoll_.get(), ready, most_ready, 0);
  if (count == most_ready) looks_to_skip_ = looks_skipped;
  if (count < 0 || count == most_ready) return false;
  ++look_;
  for (int i = 0; i < count; ++i) {
    if (mark_ready(ready[i].data.u64)) continue;
    // Its descriptor was closed elsewhere, and somebody has a copy: it would be told for ever.
    clear();
    return false;
  }
  return true;
}

bool WatchedClients::watch_newcomers(const std::vector<comm_socket_v4_client>& table) noexcept {
  const bool has_room = or_no_memory(false, [&] {
    if (watched_.size() < table.size()) watched_.resize(table.size());
    return true;
  });
  if (!has_room) return false;
  for (std::size_t slot = 0; slot < table.size(); ++slot) {
    const bool is_new = comm_v4_internals::generation(table[slot]) > accepted_;
    if (is_new && !watch(slot, table[slot])) return false;
  }
  return true;
}

bool WatchedClients::watch(std::size_t slot, const comm_socket_v4_client& client) noexcept {
  const std::uint64_t generation = comm_v4_internals::generation(client);
  struct epoll_event event = {};
  event.events = EPOLLIN;
  event.data.u64 = event_key(slot, generation);
  if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, client.client_fd, &event) != 0) return false;
  watched_[slot] = {generation, client.client_fd, 0};
  return true;
}

bool WatchedClients::mark_ready(std::uint64_t key) noexcept {
  const std::size_t slot = slot_of_event(key);
  if (slot >= watched_.size() || event_key(slot, watched_[slot].generation) != key) return false;
  watched_[slot].ready_at = look_;
  return true;
}

bool WatchedClients::is_quiet(std::size_t slot,
                              const comm_socket_v4_client& client) const noexcept {
  if (slot >= watched_.size()) return false;
  const Watched& w = watched_[slot];
  return w.generation == comm_v4_internals::generation(client) && w.fd == client.client_fd &&
         w.ready_at != look_;
}

void WatchedClients::forget(std::size_t slot, int client_fd) noexcept {
  if (slot >= watched_.size() || watched_[slot].generation == 0) return;
  watched_[slot] = {};
  if (process_ != ::getpid()) return;
  ErrnoGuard keep_errno;
  ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, client_fd, nullptr);
}

void WatchedClients::clear() noexcept {
  ErrnoGuard keep_errno;
  epoll_ = CommDescriptor();
  std::vector<Watched>().swap(watched_);
  accepted_ = 0;
  looks_to_skip_ = 0;
  given_up_ = false;
}

bool WatchedClients::give_up() noexcept {
  const bool had_one = epoll_.is_open();
  clear();
  given_up_ = true;
  return had_one;
}
