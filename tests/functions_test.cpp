// The functions for programs that see the classes by name only say and do what the members do.
#include <tarn_utils_v4/comm_client.h>
#include <tarn_utils_v4/comm_loop.h>

#include <climits>

#include "connections.h"

namespace {

using FunctionsTest = CommTest;

// Sets one field by each setter and reads it back; then both by the field itself.
template <class Object, class Value, class Get, class Set, class Field>
void expect_field(Object* o, Value value, Get get, Set set, Field Object::*field) {
  set(o, value);
  EXPECT_EQ(std::tuple(value, value),
            std::tuple(static_cast<Value>(get(o)), static_cast<Value>(o->*field)));
}

TEST_F(FunctionsTest, ReachTheFieldsOfAPacket) {
  const CommPacket packet = begin_request();
  comm_socket_v4_packet* const p = packet.get();
  using Packet = comm_socket_v4_packet;
  expect_field(p, 1ul, comm_socket_v4_packet_get_stream_id, comm_socket_v4_packet_set_stream_id,
               &Packet::stream_id);
  expect_field(p, 2ul, comm_socket_v4_packet_get_message_id, comm_socket_v4_packet_set_message_id,
               &Packet::message_id);
  expect_field(p, 3ul, comm_socket_v4_packet_get_error_code, comm_socket_v4_packet_set_error_code,
               &Packet::error_code);
  expect_field(p, 4ul, comm_socket_v4_packet_get_tag, comm_socket_v4_packet_set_tag, &Packet::tag);
  expect_field(p, 0xfffffff3u, comm_socket_v4_packet_get_flags, comm_socket_v4_packet_set_flags,
               &Packet::flags);
  expect_field(p, 4, comm_socket_v4_packet_get_write_state, comm_socket_v4_packet_set_write_state,
               &Packet::write_state);
  comm_socket_v4_packet_set_write_state(p, comm_v4_write_state_header);
  EXPECT_EQ(1, comm_socket_v4_packet_get_refcount(p));
  comm_socket_v4_packet_set_multipart(p, 4 | comm_v4_multipart_last);
  EXPECT_EQ(std::tuple(3u, 0xffffffffu),
            std::tuple(comm_socket_v4_packet_get_multipart(p), p->flags));
  comm_socket_v4_packet_set_multipart(p, comm_v4_multipart_first);
  EXPECT_EQ(0xfffffff7u, p->flags);
  EXPECT_STREQ("Header",
               comm_socket_v4_packet_write_state_to_str(comm_socket_v4_packet_get_write_state(p)));
  comm_socket_v4_packet_set_complete_cb(
      p, [](auto* done) { return comm_socket_v4_packet_set_sighdr(done, 7), 0; });
  const auto format = [p](const char* text, ...) {
    va_list args;
    va_start(args, text);
    comm_socket_v4_packet_vwrite_argvf(p, text, args);
    va_end(args);
    va_start(args, text);
    comm_socket_v4_packet_vwrite_nv_pairf(p, "name", text, args);
    va_end(args);
  };
  format("%d", 8);
  p->write_argv_uint64(9);
  p->write_argv_int64(-1);
  p->write_argv_double(0.5);
  p->write_end();
  EXPECT_EQ(std::tuple(7u, "8", "8", 9u, -1, 0.5),
            std::tuple(comm_socket_v4_packet_get_sighdr(p), std::string(p->argv_text(0)),
                       std::string(p->nv_pair_value_text(p->nv_entry(0))),
                       comm_socket_v4_packet_get_argv_uint64(p, 1),
                       comm_socket_v4_packet_get_argv_int64(p, 2),
                       comm_socket_v4_packet_get_argv_double(p, 3)));

  const std::vector<int> attached = {comm_socket_v4_packet_attach_fd_to_send(p, 2),
                                     comm_socket_v4_packet_attach_fd_to_send_cloexec(p, 2),
                                     comm_socket_v4_packet_attach_fd_to_send(p, -1)};
  EXPECT_EQ(std::pair(std::vector{1, 1, 0}, 2ul),
            std::pair(attached, comm_socket_v4_packet_attached_fd_count(p)));
  const CommDescriptor survives(comm_socket_v4_packet_get_attached_fd(p, 0));
  EXPECT_EQ(std::tuple(0, FD_CLOEXEC),
            std::tuple(fcntl(survives.get(), F_GETFD), fcntl(p->attached_fd[1], F_GETFD)));
  comm_socket_v4_packet_close_attached_fd(p);
  EXPECT_EQ(-1, p->attached_fd[1]);
}

TEST_F(FunctionsTest, APacketGoesIntoBytesAndComesBack) {
  const CommPacket sent = rich_packet(), kept = make_packet(), endless = make_packet();
  std::size_t length = 0;
  const unsigned char* const bytes = comm_socket_v4_packet_get_buffer(sent.get(), &length);
  const auto set = [&](const CommPacket& p, std::size_t count) {
    return outcome([&] { return comm_socket_v4_packet_set_buffer(p.get(), bytes, count); });
  };
  EXPECT_EQ(Outcome(-1, ENOMEM), failing(Call::malloc, ENOMEM, [&] { return set(kept, length); }));
  EXPECT_EQ(Outcome(-1, EINVAL), set(endless, COMM_V4_MAX_PACKET + 1));
  EXPECT_EQ(Outcome(0, errno_before), set(kept, length));
  EXPECT_EQ(0, comm_socket_v4_client_on_recv_packet(make_endpoint().get(), kept.get()));
  EXPECT_EQ(bytes_of(sent.get()), bytes_of(kept.get()));
  EXPECT_EQ(Outcome(-1, EINVAL), set(kept, length)) << "twice";
}

class FunctionsOfAServerTest : public ServerTest {};

TEST_F(FunctionsOfAServerTest, ReachItsFieldsAndThoseOfARecord) {
  join();
  comm_socket_v4_client* const c = record();
  expect_field(&s, 1ul, comm_socket_v4_get_tag, comm_socket_v4_set_tag, &comm_socket_v4::tag);
  expect_field(c, 2ul, comm_socket_v4_client_get_tag, comm_socket_v4_client_set_tag,
               &comm_socket_v4_client::tag);
  expect_field(c, 3, comm_socket_v4_client_get_halt, comm_socket_v4_client_set_halt,
               &comm_socket_v4_client::halt);
  s.connect_timeout = 3;
  s.connect_timeout_routine = 4;
  s.next_packet = make_packet().release();
  c->next_packet = make_packet().release();
  s.disconnect_list = {COMM_V4_NO_INDEX};
  comm_socket_v4_set_log_mask(&s, 0xf9);
  EXPECT_EQ(
      std::tuple(3ul, 4ul, s.next_packet, c->next_packet, 1ul, 9u),
      std::tuple(comm_socket_v4_get_connect_timeout(&s),
                 comm_socket_v4_get_connect_timeout_routine(&s), comm_socket_v4_get_next_packet(&s),
                 comm_socket_v4_client_get_next_packet(c),
                 comm_socket_v4_client_disconnect_list_count(&s), comm_socket_v4_get_log_mask(&s)));
  const CommPacket pending = make_packet();
  expect_field(c, pending.get(), comm_socket_v4_client_get_pending_response_packet,
               comm_socket_v4_client_set_pending_response_packet,
               &comm_socket_v4_client::pending_response_packet);
  comm_socket_v4_client_set_pending_response_packet(c, nullptr);
  const auto refuse = [](auto*, comm_socket_v4_packet*) { return -1; };
  comm_socket_v4_client_set_recv_cb(c, refuse);
  comm_socket_v4_set_recv_cb(&s, refuse);
  EXPECT_EQ(std::tuple(-1, -1), std::tuple(c->recv_cb(c, nullptr), s.recv_cb(&s, nullptr)));
  for (const int on : {1, 0}) {
    comm_socket_v4_set_bound(&s, on);
    comm_socket_v4_set_debug(&s, on);
    comm_socket_v4_set_idle_enabled(&s, on);
    const int bound = s.flags.bound, debug = s.flags.debug, idle = s.flags.idle_enabled;
    EXPECT_EQ(std::tuple(on, on, on, bound, debug, idle),
              std::tuple(comm_socket_v4_is_bound(&s), comm_socket_v4_is_debug(&s),
                         comm_socket_v4_is_idle_enabled(&s), on, on, on));
  }
  c->status.error = 1;
  ucred cred;
  EXPECT_EQ(
      std::tuple(s.socket_fd, s.socket_path, 1, 0, 0ul, 16ul, &s, c->client_fd, 0, 1,
                 c->accept_time_us, 0, getpid()),
      std::tuple(comm_socket_v4_get_socket_fd(&s), std::string(comm_socket_v4_get_socket_path(&s)),
                 comm_socket_v4_is_server(&s), comm_socket_v4_is_socketpair(&s),
                 comm_socket_v4_client_maximum_index(&s),
                 comm_socket_v4_client_allocation_count(&s), comm_socket_v4_client_get_server(c),
                 comm_socket_v4_client_get_client_fd(c), comm_socket_v4_client_is_disconnected(c),
                 comm_socket_v4_client_has_failed(c), comm_socket_v4_client_get_accept_time_us(c),
                 comm_socket_v4_client_get_cred(c, &cred), cred.pid));
  c->status = {1, 0};
  EXPECT_EQ(std::pair(1, 0), std::pair(comm_socket_v4_client_is_disconnected(c),
                                       comm_socket_v4_client_has_failed(c)));
  c->status = {0, 0};
  EXPECT_EQ(Outcome(-1, ENOTCONN),
            outcome([&] { return comm_socket_v4_client_get_cred(&s.client[1], &cred); }));
}

TEST_F(FunctionsOfAServerTest, AQueueThrowsNothing) {
  join();
  CommLargePacketQueue* const q = comm_socket_v4_queue_create();
  const auto send = [&] {
    return outcome(
        [&] { return comm_socket_v4_queue_send_packet(q, record(), ping_packet().get()); });
  };
  while (comm_socket_v4_queue_get_queued_count(q) == 0) ASSERT_EQ(1, send().first);
  const CommPacket p = ping_packet();
  EXPECT_EQ(
      Outcome(-1, ENOMEM), failing(Call::operator_new, EDOM, [&] {
        return outcome([&] { return comm_socket_v4_queue_send_packet(q, record(), p.get()); });
      }));
  const CommPacket oldest(comm_socket_v4_queue_take_oldest(q));
  EXPECT_EQ(std::pair(comm_socket_v4_queue_take_oldest(q), 0ul),
            std::pair(static_cast<comm_socket_v4_packet*>(nullptr),
                      comm_socket_v4_queue_get_queued_count(q)));
  EXPECT_EQ(1, send().first);
  while (CommPacket(comm_socket_v4_client_get_packet_from_server(client())) != nullptr) continue;
  comm_socket_v4_queue_flush_queued_packet(q, record());
  EXPECT_EQ(0u, comm_socket_v4_queue_get_queued_count(q));
  comm_socket_v4_queue_destroy(q);
}

// What each callback was told.
struct Callbacks {
  Lines told;
  int welcome = -1;

  static void tell(void* user, const char* what) {
    static_cast<Callbacks*>(user)->told.emplace_back(what);
  }
  CommLoopCallbacks all() {
    CommLoopCallbacks all = {};
    all.user = this;
    all.on_connect = [](void* user, CommLoop*, CommLoopId, const ucred* who) {
      tell(user, who->pid == getpid() ? "connect" : "who?");
      return static_cast<Callbacks*>(user)->welcome;
    };
    all.on_packet = [](void* user, CommLoop* loop, CommLoopId from, comm_socket_v4_packet* p) {
      tell(user, p->command());
      EXPECT_EQ(1, comm_socket_v4_loop_send(loop, from, ping_packet().get()));
    };
    all.on_gone = [](void* user, CommLoop*, CommLoopId, CommLoopReason why, int) {
      tell(user, why == comm_loop_peer_ended ? "ended" : "gone");
    };
    all.on_time = [](void* user, CommLoop* loop, CommLoopId) {
      tell(user, "time");
      comm_socket_v4_loop_stop(loop);
    };
    return all;
  }
};

TEST_F(FunctionsTest, ALoopIsServedByCallbacksAndAskedByABlockingClient) {
  Callbacks here;
  const CommLoopCallbacks callbacks = here.all();
  const std::string address = abstract_name();
  CommLoop* const loop = comm_socket_v4_loop_create();
  CommLoopHandler* const handler = comm_socket_v4_loop_handler_create(&callbacks);
  CommLoopLimits limits;
  limits.queued_bytes = 0;
  comm_socket_v4_loop_limits_init(&limits);
  limits.clients = 1;
  EXPECT_EQ(1048576u, limits.queued_bytes);
  const CommLoopId server = comm_socket_v4_loop_serve(loop, address.c_str(), handler, &limits);

  CommClient* const client = comm_socket_v4_blocking_create(nullptr);
  EXPECT_EQ(Outcome(-1, EINVAL),
            outcome([&] { return comm_socket_v4_blocking_connect(client, "", 0, 0); }));
  ASSERT_EQ(0, comm_socket_v4_blocking_connect(client, address.c_str(), UINT64_MAX, 0));
  while (here.told.empty()) comm_socket_v4_loop_dispatch(loop, ULONG_MAX);
  EXPECT_EQ(Outcome(0, ENOTCONN),
            outcome([&] { return comm_socket_v4_blocking_next(client, UINT64_MAX) != nullptr; }));
  here = {{}, 1};
  ASSERT_EQ(0, comm_socket_v4_blocking_connect(client, address.c_str(), UINT64_MAX, 0));
  const CommPacket request = ping_packet();
  EXPECT_EQ(Outcome(0, ETIMEDOUT), outcome([&] {
              return comm_socket_v4_blocking_call(client, request.get(), 0) != nullptr;
            }));
  EXPECT_EQ(Outcome(-1, EINVAL),
            outcome([&] { return comm_socket_v4_blocking_send(client, nullptr, 0); }));
  while (here.told.size() < 2) comm_socket_v4_loop_dispatch(loop, ULONG_MAX);
  const CommPacket answer(comm_socket_v4_blocking_next(client, UINT64_MAX));
  ASSERT_NE(nullptr, answer);
  EXPECT_EQ(std::tuple("ping", 2ul, 1),
            std::tuple(std::string(answer->command()), comm_socket_v4_blocking_next_id(client),
                       comm_socket_v4_blocking_is_connected(client)));
  comm_socket_v4_blocking_close(client);
  while (here.told.size() < 3) comm_socket_v4_loop_dispatch(loop, ULONG_MAX);
  comm_socket_v4_loop_after(loop, 1, handler);
  EXPECT_EQ(0, comm_socket_v4_loop_run(loop));
  EXPECT_EQ((Lines{"connect", "ping", "ended", "time"}), here.told);

  CommLoopCounters counters, all;
  EXPECT_EQ(0, comm_socket_v4_loop_get_counters(loop, server, &counters));
  comm_socket_v4_loop_get_all_counters(loop, &all);
  EXPECT_EQ(std::tuple(1u, 1u, 1u), std::tuple(counters.packets_received, all.packets_sent,
                                               all.gone[comm_loop_peer_ended]));
  comm_socket_v4_blocking_destroy(client);
  comm_socket_v4_loop_destroy(loop);
  comm_socket_v4_loop_handler_destroy(handler);
}

TEST_F(FunctionsTest, MakersWithoutMemoryOrDescriptorsSayWhyAndKeepNothing) {
  EXPECT_EQ(Outcome(0, EMFILE), outcome([] {
              return failing(Call::eventfd, EMFILE,
                             [] { return comm_socket_v4_loop_create() != nullptr; });
            }));
  const CommEndpoint endpoint = make_endpoint();
  const auto without_memory = [](comm_socket_v4* given, unsigned nth) {
    return failing(
        Call::operator_new, EDOM,
        [given] {
          return outcome([given] { return comm_socket_v4_blocking_create(given) != nullptr; });
        },
        nth);
  };
  EXPECT_EQ(Outcome(0, ENOMEM), without_memory(endpoint.get(), 1));
  EXPECT_EQ(Outcome(0, ENOMEM), failing(Call::operator_new, EDOM, [] {
              return outcome([] { return comm_socket_v4_queue_create() != nullptr; });
            }));
  EXPECT_EQ(Outcome(0, ENOMEM), failing(Call::operator_new, EDOM, [] {
              const CommLoopCallbacks none = {};
              return outcome([&] { return comm_socket_v4_loop_handler_create(&none) != nullptr; });
            }));
  for (const unsigned nth : {1u, 2u, 3u})
    EXPECT_EQ(Outcome(0, ENOMEM), without_memory(nullptr, nth)) << nth;
}

}  // namespace
