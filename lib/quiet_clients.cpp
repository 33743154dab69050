#include "lib/quiet_clients.h"

#include <poll.h>

#include <algorithm>

#include "lib/endpoint_internal.h"

namespace {

// Whether a visit of the client reads; without that it costs nothing.
bool would_read(const comm_socket_v4_client& client) {
  return client.client_is_open() && client.halt == 0 && client.next_packet == nullptr;
}

}  // namespace

bool is_quiet(int fd) noexcept {
  struct pollfd asked = {fd, POLLIN, 0};
  return ::poll(&asked, 1, 0) == 0;
}

std::size_t QuietClients::position(std::size_t slot) const noexcept {
  return slot >= first_ ? slot - first_ : slot + server_->client.size() - first_;
}

bool QuietClients::in_window(std::size_t slot) const noexcept { return position(slot) < count_; }

bool QuietClients::is_quiet(std::size_t slot, std::size_t ahead) noexcept {
  const comm_socket_v4_client& client = server_->client[slot];
  if (!would_read(client)) return false;
  if (!in_window(slot)) {
    if (reads_ < reads_before_asking_) {
      ++reads_;
      return false;
    }
    ask(slot, ahead);
  }
  if (by_epoll_ ? comm_v4_internals::of(server_).watched_clients.is_quiet(slot, client)
                : quiet_[position(slot)])
    return true;
  // The callback may do anything to the others, and what was heard of them is then out of date.
  if (client.recv_cb != nullptr) reads_ = count_ = 0;
  return false;
}

void QuietClients::ask(std::size_t slot, std::size_t ahead) noexcept {
  const std::size_t slots = server_->client.size();
  first_ = slot;
  count_ = std::min(ahead, slots);
  comm_v4_internals& own = comm_v4_internals::of(server_);
  by_epoll_ = slots > window_size && own.watched_clients.look(server_->client, own.accepted);
  if (by_epoll_) return;
  count_ = std::min(window_size, count_);
  std::fill_n(quiet_, count_, false);
  ask_by_poll(slot);
}

void QuietClients::ask_by_poll(std::size_t slot) noexcept {
  const std::size_t slots = server_->client.size();
  struct pollfd asked[window_size];
  std::size_t position_of[window_size];
  std::size_t asked_count = 0;
  for (std::size_t i = 0; i < count_; ++i) {
    const comm_socket_v4_client& client = server_->client[(slot + i) % slots];
    if (!would_read(client)) continue;
    asked[asked_count] = {client.client_fd, POLLIN, 0};
    position_of[asked_count++] = i;
  }
  // A failed poll leaves every client to be read.
  if (::poll(asked, asked_count, 0) < 0) return;
  for (std::size_t i = 0; i < asked_count; ++i) quiet_[position_of[i]] = asked[i].revents == 0;
}
