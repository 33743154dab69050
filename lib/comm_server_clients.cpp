// The clients of a server, in four rooms: their records and the table of them; how they are
// accepted and released; the gate that checks what peers sent; reading from one of them, and the
// waits.
#include <sys/socket.h>
#include <tarn_utils_v4/comm.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

#include "lib/client_slot.h"
#include "lib/descriptor_wait.h"
#include "lib/endpoint_internal.h"
#include "lib/errno_guard.h"
#include "lib/fatal_assert.h"
#include "lib/or_no_memory.h"
#include "lib/packet_layout.h"
#include "lib/packet_receive.h"
#include "lib/quiet_clients.h"
#include "lib/standard_error.h"
#include "suite/time.h"

static constexpr char source[] = "lib/comm_server_clients";

// ================================================================================================
// Record and table: what a slot is, how the table of them grows, and how a slot is found.
// ================================================================================================

namespace {

// Grows the table to exactly `slots`; the new ones are empty. False with ENOMEM, nothing changed.
bool grow_table(comm_socket_v4* c, std::size_t slots) {
  return or_no_memory(false, [&] {
    c->client.reserve(slots);
    c->client.resize(slots);
    return true;
  });
}

void reset_cursors(comm_socket_v4* c) {
  c->client_max = 0;
  c->client_next = 0;
  c->client_idlescan = 0;
  c->client_getpktscan = 0;
}

}  // namespace

comm_socket_v4_client::comm_socket_v4_client() noexcept
    : halt(0),
      pending_response_packet(nullptr),
      client_fd(-1),
      cred(),
      accept_time_us(0),
      next_packet(nullptr),
      server(nullptr),
      tag(0),
      recv_cb(nullptr),
      generation_(0) {
  clear_word(status);
}

comm_socket_v4* comm_socket_v4_client::get_server() const { return server; }
bool comm_socket_v4_client::client_is_open() const {
  return !status.disconnected && !status.error && client_fd >= 0;
}
int comm_socket_v4_client::get_client_fd() const { return client_fd; }
unsigned long comm_socket_v4_client::get_tag() const { return tag; }
void comm_socket_v4_client::set_tag(unsigned long value) { tag = value; }
void comm_socket_v4_client::set_recv_cb(int (*cb)(comm_socket_v4_client*, comm_socket_v4_packet*)) {
  recv_cb = cb;
}

int comm_socket_v4_client_is_open(const comm_socket_v4_client* c) { return c->client_is_open(); }

bool comm_socket_v4::client_list_not_allocated() const { return false; }
unsigned long comm_socket_v4::client_maximum_index() const { return client_max; }
unsigned long comm_socket_v4::client_allocation_count() const { return client.size(); }

comm_socket_v4_client* comm_socket_v4::index2client(unsigned long index) {
  return index < client.size() && index <= client_max ? &client[index] : nullptr;
}

unsigned long comm_socket_v4::client_ptr2index_noerr(const comm_socket_v4_client* client) {
  if (client == nullptr || client->server == nullptr) return COMM_V4_NO_INDEX;
  // Integers, since pointers into different arrays cannot be compared.
  const std::vector<comm_socket_v4_client>& table = client->server->client;
  const auto first = reinterpret_cast<std::uintptr_t>(table.data());
  const auto record = reinterpret_cast<std::uintptr_t>(client);
  if (record < first) return COMM_V4_NO_INDEX;
  const std::uintptr_t index = (record - first) / sizeof(comm_socket_v4_client);
  return index < table.size() ? index : COMM_V4_NO_INDEX;
}

comm_socket_v4_client* comm_socket_v4_index2client(comm_socket_v4* c, unsigned long index) {
  return c != nullptr ? c->index2client(index) : nullptr;
}
unsigned long comm_socket_v4_client_ptr2index(comm_socket_v4_client* client) {
  return comm_socket_v4::client_ptr2index_noerr(client);
}
unsigned long comm_socket_v4_client_ptr2index_noerr(const comm_socket_v4_client* client) {
  return comm_socket_v4::client_ptr2index_noerr(client);
}

int comm_socket_v4_alloc_client_list(comm_socket_v4* c) {
  FATAL_ASSERT(c->client.empty());
  if (!grow_table(c, COMM_V4_FIRST_CLIENTS)) {
    comm_socket_v4_error(c, "alloc_client_list() malloc() failed");
    return -1;
  }
  reset_cursors(c);
  return 0;
}

int comm_socket_v4_expand_client_list(comm_socket_v4* c, unsigned long add) {
  const std::size_t slots = c->client.size();
  if (slots >= COMM_V4_MAX_CLIENTS) {
    errno = ENOMEM;
    comm_socket_v4_error(c, "expand_client_list() client list is already WAY TOO LONG");
    return -1;
  }
  const std::size_t wanted = add < COMM_V4_MAX_CLIENTS - slots ? slots + add : COMM_V4_MAX_CLIENTS;
  if (!grow_table(c, wanted)) {
    comm_socket_v4_error(c, "expand_client_list() realloc failed");
    return -1;
  }
  comm_socket_v4_debug(c, "expand_client_list() client list expanded to %lu entries", wanted);
  return 0;
}

comm_socket_v4_client* comm_socket_v4_client_find_empty_slot(comm_socket_v4* c) {
  if (!c->flags.server) {
    comm_socket_v4_bug(c, "find_empty_slot() with flags.server==0");
    return nullptr;
  }
  const std::size_t slots = c->client.size();
  if (slots == 0) return nullptr;
  if (c->client_next >= slots) c->client_next = 0;
  for (std::size_t examined = 0; examined < slots; ++examined) {
    const std::size_t index = c->client_next;
    comm_socket_v4_client* const client = &c->client[index];
    const bool empty = client->client_fd < 0;
    if (empty && index > c->client_max) c->client_max = index;
    FATAL_ASSERT(c->client_max < c->client.size());
    c->client_next = index + 1 < slots ? index + 1 : 0;
    if (!empty) continue;
    FATAL_ASSERT(client->halt == 0);
    FATAL_ASSERT(client->client_fd == -1);
    FATAL_ASSERT(client->status.error == 0);
    FATAL_ASSERT(client->status.disconnected == 0);
    return client;
  }
  return nullptr;
}

// ================================================================================================
// Accepting and releasing: how a client comes into its slot, and how it leaves it.
// ================================================================================================

namespace {

comm_socket_v4_client* new_client(comm_socket_v4* c) {
  comm_socket_v4_client* client = comm_socket_v4_client_find_empty_slot(c);
  if (client != nullptr) return client;

  comm_socket_v4_debug(c, "new_client() no empty slots available, expanding array");
  if (comm_socket_v4_expand_client_list(c, (c->client.size() + 1) / 2) != 0) {
    comm_socket_v4_error(c, "new_client() unable to expand array");
    return nullptr;
  }
  client = comm_socket_v4_client_find_empty_slot(c);
  if (client == nullptr) comm_socket_v4_error(c, "new_client() no empty slots after expansion");
  return client;
}

int accept_client(int listener) {
  return ::accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
}

bool is_lack_of_descriptors(int error) { return error == EMFILE || error == ENFILE; }

// Whether an accept found no descriptor, and the endpoint keeps one for that: the connection is
// taken on it and closed, so that its peer does not wait and the loop does not spin. errno is that
// of the accept, or EAGAIN when nobody waits, which the kernel looks at last.
bool turned_away(comm_socket_v4* c) {
  comm_v4_internals& own = comm_v4_internals::of(c);
  const int shortage = errno;
  if (!own.keeps_reserve || !is_lack_of_descriptors(shortage)) return false;
  if (is_quiet(c->socket_fd)) {
    errno = EAGAIN;
    return true;
  }
  own.reserve = CommDescriptor();
  const bool closed =
      CommDescriptor(::accept4(c->socket_fd, nullptr, nullptr, SOCK_CLOEXEC)).is_open();
  const int error = closed ? shortage : errno;
  renew_reserve(own);
  errno = error;
  if (closed && !std::exchange(own.warned_of_shortage, true))
    comm_socket_v4_warning(c, "accept_connection() no descriptors left, closing new connections");
  return error == EAGAIN || is_lack_of_descriptors(error);
}

}  // namespace

void comm_socket_v4_new_client_cancel(comm_socket_v4_client* c) {
  FATAL_ASSERT(c->client_fd < 0);
  FATAL_ASSERT(c->next_packet == nullptr);
  FATAL_ASSERT(c->pending_response_packet == nullptr);
}

comm_socket_v4_client* comm_socket_v4_accept_connection(comm_socket_v4* c) {
  if (!c->flags.server) {
    comm_socket_v4_bug(c, "accept_connection() called on non-server object");
    return nullptr;
  }
  if (!comm_socket_v4_is_open(c)) {
    comm_socket_v4_bug(c, "accept_connection() called on closed socket");
    return nullptr;
  }
  comm_v4_internals& own = comm_v4_internals::of(c);
  if (own.stopped_listening) {
    errno = EAGAIN;
    return nullptr;
  }
  if (own.keeps_reserve) renew_reserve(own);
  comm_socket_v4_client* const client = new_client(c);
  if (client == nullptr) return nullptr;

  int fd = accept_client(c->socket_fd);
  if (fd < 0 && is_lack_of_descriptors(errno) && own.watched_clients.give_up())
    fd = accept_client(c->socket_fd);
  if (fd < 0) {
    comm_socket_v4_new_client_cancel(client);
    if (errno == EAGAIN || own.in_loop() || turned_away(c)) return nullptr;
    comm_socket_v4_error(c, "accept_connection() accept returned error %s", std::strerror(errno));
    comm_socket_v4_close(c);
    return nullptr;
  }
  own.warned_of_shortage = false;
  comm_v4_internals::generation(*client) = ++own.accepted;
  apply_max_descriptors(c, fd);
  client->server = c;
  client->client_fd = fd;
  client->accept_time_us = monotonic_clock_us();
  client->cred = {};
  socklen_t length = sizeof(client->cred);
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &client->cred, &length) != 0) {
    comm_socket_v4_error(c, "accept_connection() getsockopt(SO_PEERCRED) returned error %s",
                         std::strerror(errno));
    comm_socket_v4_free_client(client);
    return nullptr;
  }
  return client;
}

int comm_socket_v4_client_disconnect_list_add(comm_socket_v4* c, unsigned long index) {
  if (!comm_socket_v4_is_open(c)) {
    comm_socket_v4_bug(c, "client_disconnect_list_add with non-opened object");
    return -1;
  }
  if (!c->flags.server) {
    comm_socket_v4_bug(c, "client_disconnect_list_add with non-server object");
    return -1;
  }
  if (index >= c->client.size()) {
    comm_socket_v4_bug(c, "client_disconnect_list_add index to add is out of bounds (%lu >= %lu)",
                       index, c->client.size());
    return -1;
  }
  comm_socket_v4_debug(c, "client_disconnect = %lu", index);
  return or_no_memory(-1, [&] {
    c->disconnect_list.push_back(index);
    return 0;
  });
}

void comm_socket_v4_client_disconnect_list_clear(comm_socket_v4* c) { c->disconnect_list.clear(); }

comm_socket_v4_client* comm_socket_v4_get_disconnected_client(comm_socket_v4* c) {
  if (c == nullptr) {
    write_to_standard_error("WARNING: get_disconnected_client() with nullptr object\n");
    return nullptr;
  }
  if (!comm_socket_v4_is_open(c)) {
    comm_socket_v4_bug(c, "get_disconnected_client() on closed object");
    return nullptr;
  }
  if (!c->flags.server) {
    comm_socket_v4_bug(c, "get_disconnected_client() on non-server object");
    return nullptr;
  }
  if (c->disconnect_list.empty()) return nullptr;
  const std::uint64_t index = c->disconnect_list.front();
  c->disconnect_list.pop_front();
  if (index == COMM_V4_NO_INDEX) return nullptr;
  if (index >= c->client.size()) {
    comm_socket_v4_bug(c, "get_disconnected_client() disconnect entry out of bounds");
    return nullptr;
  }
  comm_socket_v4_client* const client = &c->client[index];
  if (client->client_fd < 0)
    comm_socket_v4_debug(c, "get_disconnected_client() client[%zu] socket already closed", index);
  if (client->server == nullptr)
    comm_socket_v4_debug(c, "get_disconnected_client() client[%zu]->server == nullptr", index);
  else if (client->server != c)
    comm_socket_v4_debug(c, "get_disconnected_client() client[%zu]->server != server", index);
  return client;
}

int comm_socket_v4_disconnect_client(comm_socket_v4_client* c) {
  if (!c->client_is_open()) return c->status.disconnected ? 0 : -1;
  const unsigned long index = comm_socket_v4_client_ptr2index(c);
  if (comm_socket_v4_client_disconnect_list_add(c->server, index) != 0) return -1;
  c->status.disconnected = 1;
  return 0;
}

void comm_socket_v4_free_client_check(comm_socket_v4_client* c) {
  const unsigned long index = comm_socket_v4_client_ptr2index_noerr(c);
  if (index == COMM_V4_NO_INDEX) return;
  std::size_t cancelled = 0;
  for (std::uint64_t& entry : c->server->disconnect_list) {
    if (entry != index) continue;
    entry = COMM_V4_NO_INDEX;
    ++cancelled;
  }
  if (cancelled != 0)
    comm_socket_v4_bug(c->server,
                       "free_client() client found in server disconnect list %zu times. caller "
                       "should use disconnect_client() not free_client()",
                       cancelled);
}

void comm_socket_v4_free_client(comm_socket_v4_client* c) {
  FATAL_ASSERT(c != nullptr);
  ErrnoGuard keep_errno;
  comm_socket_v4_free_client_check(c);
  if (c->client_fd >= 0) {
    if (c->server != nullptr) {
      comm_v4_internals& own = comm_v4_internals::of(c->server);
      leave_loop(own, c->client_fd);
      own.watched_clients.forget(comm_socket_v4_client_ptr2index_noerr(c), c->client_fd);
    }
    ::close(c->client_fd);
  }
  comm_socket_v4_packet_release(c->pending_response_packet);
  c->pending_response_packet = nullptr;
  comm_socket_v4_packet_release(c->next_packet);
  c->next_packet = nullptr;
  c->cred = {};
  clear_word(c->status);
  c->accept_time_us = 0;
  c->halt = 0;
  c->client_fd = -1;
  c->server = nullptr;
  comm_v4_internals::generation(*c) = 0;
}

void comm_socket_v4_drop_clients(comm_socket_v4* c) {
  for (comm_socket_v4_client& client : c->client) comm_socket_v4_free_client(&client);
}

void comm_socket_v4_free_clients(comm_socket_v4* c) {
  comm_v4_internals::of(c).watched_clients.clear();
  comm_socket_v4_drop_clients(c);
  std::vector<comm_socket_v4_client>().swap(c->client);
  reset_cursors(c);
}

// ================================================================================================
// Validation: the one gate between what a peer sent and the readers of a packet.
// ================================================================================================

namespace {

// The rules that a packet must keep, in the order in which they are tried. Offsets and lengths are
// widened to 64 bits, so that no sum wraps.
class Validation {
 public:
  Validation(comm_socket_v4* endpoint, const comm_socket_v4_packet& packet,
             const comm_socket_v4_packet_header& header)
      : endpoint_(endpoint), buffer_(packet.buffer), length_(packet.buffer_length), h_(header) {}

  bool passes() const {
    return table_bounds() && strings() && data() && argv_entries() && nv_pair_entries();
  }

 private:
  bool table_bounds() const {
    if (h_.sighdr != COMM_V4_SIGHDR) return refuse("packet validation failed. sighdr wrong");
    if (h_.nv_pair_table_count > COMM_V4_MAX_PAIRS)
      return refuse("packet validation failed. nv_pair_table_count >= 4096");
    if (h_.argv_offset >= length_)
      return refuse("packet validation failed. argv_offset out of bounds");
    if (h_.nv_pair_table_offset >= length_)
      return refuse("packet validation failed. nv_pair_table_offset out of bounds");
    if (h_.argv_count != 0 && h_.argv_offset == 0)
      return refuse("packet validation failed. argv invalid: count != 0 offset == 0");
    if (h_.argv_count == 0 && h_.argv_offset != 0)
      return refuse("packet validation failed. argv invalid: count == 0 offset != 0");
    if (h_.nv_pair_table_count != 0 && h_.nv_pair_table_offset == 0)
      return refuse("packet validation failed. nv_pair_table invalid: count != 0 offset == 0");
    if (h_.nv_pair_table_count == 0 && h_.nv_pair_table_offset != 0)
      return refuse("packet validation failed. nv_pair_table invalid: count == 0 offset != 0");
    if (beyond_end(h_.argv_offset, h_.argv_count * sizeof(comm_socket_v4_packet_argv)))
      return refuse("packet validation failed. argv invalid: offset+count > buffer_length");
    if (beyond_end(h_.nv_pair_table_offset,
                   h_.nv_pair_table_count * sizeof(comm_socket_v4_packet_nv_pair)))
      return refuse(
          "packet validation failed. nv_pair_table invalid: offset+count > buffer_length");
    return true;
  }

  bool strings() const {
    if (h_.error_string_offset >= length_)
      return refuse("packet validation failed. error string out of bounds");
    if (h_.command_offset == 0 || h_.command_offset >= length_)
      return refuse("packet validation failed. command string out of bounds or missing (%u)",
                    h_.command_offset);
    return true;
  }

  bool data() const {
    if (h_.data_offset != 0 && h_.data_length == 0)
      return refuse("packet validation failed. binary data: offset != 0 length == 0");
    if (h_.data_offset != 0 && (h_.data_offset >= length_ || h_.data_length > length_))
      return refuse("packet validation failed. binary data: offset+length > buffer_length");
    if (h_.data_offset == 0 && h_.data_length != 0)
      return refuse("packet validation failed. binary data: offset == 0 length != 0");
    if (beyond_end(h_.data_offset, h_.data_length))
      return refuse("packet validation failed. binary data: offset+length > buffer_length");
    return true;
  }

  bool argv_entries() const {
    const auto* const table =
        reinterpret_cast<const comm_socket_v4_packet_argv*>(buffer_ + h_.argv_offset);
    for (std::size_t i = 0; i < h_.argv_count; ++i) {
      const std::uint8_t type = table[i].type();
      if (type != comm_v4_type_text && type != comm_v4_type_uint64 && type != comm_v4_type_double &&
          type != comm_v4_type_int64)
        return refuse("packet validation failed. argv[%zu] unsupported type %u", i, type);
      const comm_v4_offset_t offset = table[i].offset();
      if (beyond_end(offset, type == comm_v4_type_text ? 1 : 8))
        return refuse("packet validation failed. argv[%zu] out of bounds (%u)", i, offset);
    }
    return true;
  }

  bool nv_pair_entries() const {
    const auto* const table =
        reinterpret_cast<const comm_socket_v4_packet_nv_pair*>(buffer_ + h_.nv_pair_table_offset);
    for (std::size_t i = 0; i < h_.nv_pair_table_count; ++i) {
      const comm_socket_v4_packet_nv_pair entry = table[i];
      if (entry.name_offset == 0 || entry.name_offset >= length_)
        return refuse("packet validation failed. nv_pair[%zu] name missing or out of bounds (%u)",
                      i, entry.name_offset);
      if (entry.value_offset == 0 || entry.value_offset >= length_)
        return refuse("packet validation failed. nv_pair[%zu] value missing or out of bounds (%u)",
                      i, entry.value_offset);
      if (beyond_end(entry.value_offset, entry.value_length))
        return refuse("packet validation failed. nv_pair[%zu] value+length > buffer_length", i);
    }
    return true;
  }

  bool beyond_end(std::uint64_t offset, std::uint64_t size) const {
    return offset + size > length_;
  }

  bool refuse(const char* message, ...) const COMM_V4_PRINTF(2, 3) {
    va_list values;
    va_start(values, message);
    comm_socket_v4_vdebug(endpoint_, message, values);
    va_end(values);
    return false;
  }

  comm_socket_v4* endpoint_;
  const unsigned char* buffer_;
  std::uint64_t length_;
  const comm_socket_v4_packet_header& h_;
};

}  // namespace

int comm_socket_v4_validate_packet_contents(comm_socket_v4* c, const comm_socket_v4_packet* p,
                                            const comm_socket_v4_packet_header* header) {
  return Validation(c, *p, *header).passes() ? 0 : -1;
}

// ================================================================================================
// Reads and waits: one packet from one client, and waiting for any of them, or for a server.
// ================================================================================================

namespace {

class ServerSide final : public ReceiveSide {
 public:
  explicit ServerSide(comm_socket_v4_client* c)
      : ReceiveSide(c->server, c->client_fd, ::source, "comm_socket_v4_client_idle_read"),
        client_(c) {}

  comm_socket_v4_packet** slot() override {
    comm_socket_v4_client* const c = client_.record();
    return c != nullptr ? &c->next_packet : nullptr;
  }
  int offer(comm_socket_v4_packet* p) override {
    comm_socket_v4_client* const c = client_.record();
    return c->recv_cb != nullptr ? c->recv_cb(c, p) : 0;
  }
  int on_error(int error) override {
    errno = error;
    // A reset by the peer is an ordinary end of a connection.
    if (error != ECONNRESET)
      comm_socket_v4_error(endpoint, "client_idle() fd=%d recv error %s", fd, std::strerror(error));
    if (!queue_for_release()) return 0;
    client_.record()->status.error = 1;
    errno = error;
    return -1;
  }
  int on_end_of_stream(int bytes_announced) override {
    comm_socket_v4_debug(endpoint, "client_idle() client[%zu] fd=%d disconnected", client_.index(),
                         fd);
    if (bytes_announced != 0)
      comm_socket_v4_bug(
          endpoint,
          "client_idle() fd=%d disconnect but FIONREAD last returned %d, something strange?", fd,
          bytes_announced);
    if (!queue_for_release()) return 0;
    client_.record()->status.disconnected = 1;
    errno = ENOTCONN;
    return -1;
  }
  void warn_of_truncation() override {
    comm_socket_v4_warning(
        endpoint, "client_idle() fd=%d returned packet is larger than buffer (server-side)\n", fd);
  }

 private:
  // When the list has no room the client stays open, and the next read tries again.
  bool queue_for_release() {
    if (comm_socket_v4_client_disconnect_list_add(endpoint, client_.index()) == 0) return true;
    comm_socket_v4_debug(endpoint, "client_idle() fd=%d not able to add client to disconnect list",
                         fd);
    return false;
  }

  ClientSlot client_;
};

int read_from_client(comm_socket_v4_client* c) {
  ServerSide side(c);
  return receive_packet(side);
}

// Adds the listening socket and every open client; true when a client's packet waits already.
bool add_server_descriptors(const comm_socket_v4* s, DescriptorSet& set) {
  set.add(s->socket_fd);
  for (const comm_socket_v4_client& client : s->client) {
    if (!client.client_is_open()) continue;
    if (client.next_packet != nullptr) return true;
    set.add(client.client_fd);
  }
  return false;
}

// Idles; a closed descriptor must not reach select().
bool stays_open_before_wait(comm_socket_v4* s, Direction direction) {
  if (comm_socket_v4_idle_before_wait(s) != 0) return false;
  if (comm_socket_v4_is_open(s)) return true;
  comm_socket_v4_bug(s, direction == Direction::read
                            ? "wait_for_client_to_server_readable() idle() did not signal error "
                              "but socket was closed----known to cause a crash\n"
                            : "wait_for_client_to_server_writeable() idle() did not signal error "
                              "but socket was closed----known to cause a crash\n");
  return false;
}

}  // namespace

int comm_socket_v4_client_idle(comm_socket_v4_client* c) {
  if (c->halt != 0) return 0;
  if (c->next_packet != nullptr) return 0;
  FATAL_ASSERT(c->server != nullptr);
  if (c->client_fd < 0) {
    comm_socket_v4_bug(c->server, "client_idle() while closed");
    errno = EBADF;
    return -1;
  }
  if (c->status.disconnected) {
    errno = ENOTCONN;
    return -1;
  }
  if (c->status.error) {
    errno = EINVAL;
    return -1;
  }
  return read_from_client(c) != 0 ? -1 : 0;
}

int comm_socket_v4_server_from_client_readable(comm_socket_v4* s, unsigned long deadline_us) {
  if (!comm_socket_v4_is_open(s)) return -1;
  if (comm_socket_v4_idle_before_wait(s) != 0) return -1;
  const int ready = wait_for_descriptors(Direction::read, deadline_us, [s](DescriptorSet& set) {
    return add_server_descriptors(s, set);
  });
  if (ready < 0)
    comm_socket_v4_error(s, "server_from_client_readable() select() error %s\n",
                         std::strerror(errno));
  return ready;
}

int comm_socket_v4_client_from_server_readable(comm_socket_v4* s, unsigned long deadline_us) {
  if (!comm_socket_v4_is_open(s) || s->flags.server) return -1;
  if (!stays_open_before_wait(s, Direction::read)) return -1;
  if (s->next_packet != nullptr) return 1;
  const int ready = wait_for_descriptor(s->socket_fd, Direction::read, deadline_us);
  if (ready < 0)
    comm_socket_v4_error(s, "client_from_server_readable() select() error %s\n",
                         std::strerror(errno));
  return ready;
}

int comm_socket_v4_wait_for_client_to_server_writeable(comm_socket_v4* s,
                                                       unsigned long deadline_us) {
  if (!comm_socket_v4_is_open(s)) return -1;
  if (!stays_open_before_wait(s, Direction::write)) return -1;
  const int ready = wait_for_descriptor(s->socket_fd, Direction::write, deadline_us);
  if (ready < 0)
    comm_socket_v4_error(s, "wait_for_client_to_server_writeable() select() error %s\n",
                         std::strerror(errno));
  return ready;
}

int comm_socket_v4_wait_for_server_to_client_writeable(comm_socket_v4_client* c,
                                                       unsigned long deadline_us) {
  if (c == nullptr || !c->client_is_open()) return -1;
  comm_socket_v4* const server = c->server;
  const ClientSlot slot(c);
  if (comm_socket_v4_idle_before_wait(server) != 0) return -1;
  // A callback of the idle may have released the client; select() then refuses the descriptor -1.
  const comm_socket_v4_client* const client = slot.record();
  const int ready = wait_for_descriptor(client != nullptr ? client->client_fd : -1,
                                        Direction::write, deadline_us);
  if (ready < 0)
    comm_socket_v4_error(server, "wait_for_server_to_client_writeable() select() error %s\n",
                         std::strerror(errno));
  return ready;
}
