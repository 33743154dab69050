// The clients of a server: their table, how they come in, and how they are let go.
#include <climits>

#include "connections.h"
#include "lib/endpoint_internal.h"

namespace {

class ClientsTest : public ServerTest {
 protected:
  int disconnect(unsigned long i) { return comm_socket_v4_disconnect_client(&s.client[i]); }
  comm_socket_v4_client* disconnected() { return comm_socket_v4_get_disconnected_client(&s); }
  bool hears_the_end(std::size_t peer) {
    await_end(peers[peer]->socket_fd);
    return comm_socket_v4_idle(peers[peer].get()) == -1 && errno == ENOTCONN;
  }
  // An accept that gives no client; what it prints.
  std::string refused(int error, const void* client) {
    EXPECT_EQ(error, errno);
    EXPECT_EQ(nullptr, client);
    return log();
  }
};

// --- Table --------------------------------------------------------------------------------------

TEST_F(ClientsTest, TheTableGrowsByHalfToExactlyThatSize) {
  std::string expected;
  for (const unsigned long size : Numbers{24, 36, 54, 81, 122}) {
    const unsigned long slots = s.client.size();
    join(slots);
    s.client_idlescan = s.client.back().tag = slots;
    EXPECT_EQ(slots, join());
    EXPECT_EQ((Numbers{size, size, slots, slots + 1, slots, slots}),
              (Numbers{s.client_allocation_count(), s.client.capacity(), s.client_maximum_index(),
                       s.client_next, s.client_idlescan, s.client[slots - 1].tag}));
    expected +=
        "DEBUG: new_client() no empty slots available, expanding array\n"
        "DEBUG: expand_client_list() client list expanded to " +
        std::to_string(size) + " entries\n";
  }
  EXPECT_EQ(expected, log());
  s.client_getpktscan = 1;
  comm_socket_v4_close(&s);
  EXPECT_EQ(nullptr, s.client.data());
  EXPECT_EQ(0u, s.client_max + s.client_next + s.client_idlescan + s.client_getpktscan);
  EXPECT_TRUE(hears_the_end(0) && hears_the_end(81));
}

TEST_F(ClientsTest, AConnectionWaitsWhileTheTableCannotGrow) {
  join(16);
  knock();
  const void* const before = s.client.data();
  EXPECT_EQ(R"(DEBUG: new_client() no empty slots available, expanding array
ERROR: expand_client_list() realloc failed
ERROR: new_client() unable to expand array
)",
            refused(ENOMEM, failing(Call::operator_new, EIO, [this] { return accept(); })));
  EXPECT_TRUE(s.client.data() == before && s.client.size() == 16);
  for (const unsigned long add : {0ul, 1048575ul - 16, ULONG_MAX})
    EXPECT_EQ(0, comm_socket_v4_expand_client_list(&s, add));
  EXPECT_EQ((Numbers{1048576, 1048576}), (Numbers{s.client.size(), s.client.capacity()}));
  for (std::size_t i = 16; i < s.client.size(); ++i) s.client[i].client_fd = INT_MAX;
  EXPECT_EQ(R"(DEBUG: expand_client_list() client list expanded to 16 entries
DEBUG: expand_client_list() client list expanded to 1048575 entries
DEBUG: expand_client_list() client list expanded to 1048576 entries
DEBUG: new_client() no empty slots available, expanding array
ERROR: expand_client_list() client list is already WAY TOO LONG
ERROR: new_client() unable to expand array
)",
            refused(ENOMEM, accept()));
  for (std::size_t i = 16; i < s.client.size(); ++i) s.client[i].client_fd = -1;
  EXPECT_EQ(16u, comm_socket_v4_client_ptr2index(accept()));
}

TEST_F(ClientsTest, SlotsAreTakenInRotationAndFoundByIndex) {
  static comm_socket_v4_client below;  // in front of the heap, as a local is behind it
  EXPECT_TRUE(s.index2client(0) == s.client.data() && s.index2client(1) == nullptr);
  join(10);
  comm_socket_v4_client above = s.client[3];
  below.server = &s;
  release(3);
  for (comm_socket_v4_client* const nowhere : {&below, &above, &s.client[3]})
    EXPECT_EQ(COMM_V4_NO_INDEX, comm_socket_v4_client_ptr2index(nowhere));
  EXPECT_EQ(COMM_V4_NO_INDEX, comm_socket_v4_client_ptr2index_noerr(nullptr));
  EXPECT_EQ(10u, join());
  join(16);
  EXPECT_EQ(3u, join());
  release(15);
  comm_socket_v4_expand_client_list(&s, 8);
  EXPECT_EQ((Numbers{15, 4}), (Numbers{s.client_max, s.client_next}));
  EXPECT_TRUE(comm_socket_v4_index2client(&s, 15) == &s.client[15] && !s.index2client(16));
  EXPECT_EQ(nullptr, comm_socket_v4_index2client(nullptr, 0));
  s.client_next = 24;
  EXPECT_EQ(15u, join()) << "a search that starts behind the end starts at 0";
}

// --- Accepting ----------------------------------------------------------------------------------

TEST_F(ClientsTest, AcceptTellsWhoConnectedAndWhen) {
  Peer peer([this] {
    EXPECT_EQ(0, comm_socket_v4_connect_to(make_endpoint().get(), s.socket_path.c_str()));
  });
  EXPECT_EQ(1, comm_socket_v4_server_from_client_readable(&s, ULONG_MAX));
  const unsigned long before = in_ms(0);
  const comm_socket_v4_client* const client = accept();
  ASSERT_TRUE(client == &s.client[0] && client->get_server() == &s);
  EXPECT_FALSE(s.client_list_not_allocated());
  EXPECT_TRUE(before <= client->accept_time_us && client->accept_time_us <= in_ms(0));
  EXPECT_EQ(peer.pid(), client->cred.pid);
  EXPECT_TRUE(client->cred.uid == getuid() && client->cred.gid == getgid());
  EXPECT_EQ(O_NONBLOCK, fcntl(client->get_client_fd(), F_GETFL) & O_NONBLOCK);
  EXPECT_EQ(FD_CLOEXEC, fcntl(client->get_client_fd(), F_GETFD));
  EXPECT_EQ("", log());
}

TEST_F(ClientsTest, AFailedAcceptClosesTheServerUnlessNothingWaits) {
  EXPECT_EQ("", refused(EAGAIN, accept()));
  EXPECT_EQ(1u, join()) << "the search has moved past slot 0";
  knock();
  EXPECT_EQ(
      "ERROR: accept_connection() getsockopt(SO_PEERCRED) returned error Input/output error\n",
      refused(EIO, failing(Call::getsockopt, EIO, [this] { return accept(); })));
  EXPECT_TRUE(s.client[2].client_fd == -1 && hears_the_end(1));
  EXPECT_TRUE(comm_socket_v4_is_open(&s));
  const rlim_t none = lowest_free_descriptor();
  EXPECT_EQ("ERROR: accept_connection() accept returned error Too many open files\n",
            refused(EMFILE, with_descriptor_limit(none, [this] { return accept(); })));
  EXPECT_TRUE(!comm_socket_v4_is_open(&s) && s.client.empty() && hears_the_end(0));
}

// --- Their end ----------------------------------------------------------------------------------

TEST_F(ClientsTest, AReleasedSlotKeepsOnlyTagAndCallback) {
  join();
  comm_socket_v4_client& client = s.client[0];
  const Packet p = make_packet();
  p->refcount = 3;
  client.next_packet = client.pending_response_packet = p.get();
  client.halt = 1;
  client.status.error = 1;
  client.set_tag(7);
  client.set_recv_cb([](comm_socket_v4_client*, comm_socket_v4_packet*) { return -1; });
  release(0);
  release(0);
  EXPECT_EQ(1, p->refcount);
  EXPECT_TRUE(hears_the_end(0));
  EXPECT_TRUE(!client.server && !client.next_packet && !client.pending_response_packet);
  EXPECT_TRUE(client.cred.pid == 0 && client.accept_time_us == 0);
  s.client_next = 0;
  EXPECT_EQ(0u, join()) << "the search aborts on what else is left";
  EXPECT_TRUE(client.get_tag() == 7 && client.recv_cb(&client, nullptr) == -1);
  EXPECT_EQ("", log());
}

TEST_F(ClientsTest, DisconnectedClientsComeOutInOrderAndOnce) {
  join(4);
  EXPECT_EQ(0, disconnect(2) + disconnect(0) + disconnect(0));
  s.client[3].status.error = 1;
  EXPECT_EQ(-2, disconnect(3) + disconnect(4));  // failed before, and an empty slot
  peers[1].reset();
  await_end(s.client[1].client_fd);
  comm_socket_v4_idle(&s);
  EXPECT_EQ(
      "DEBUG: client_disconnect = 2\nDEBUG: client_disconnect = 0\n"
      "DEBUG: client_idle() client[1] fd=" +
          std::to_string(s.client[1].client_fd) + " disconnected\nDEBUG: client_disconnect = 1\n",
      log());
  for (const unsigned long i : {2ul, 0ul, 1ul}) {
    EXPECT_EQ(&s.client[i], disconnected());
    EXPECT_FALSE(comm_socket_v4_client_is_open(&s.client[i]));
    EXPECT_NE(-1, fcntl(s.client[i].client_fd, F_GETFD));
    release(i);
  }
  EXPECT_EQ(nullptr, disconnected());
  EXPECT_EQ("", log());
}

TEST_F(ClientsTest, AReleaseCancelsEveryEntryAndSaysSo) {
  const auto bug = [](int times) {
    return "BUG: free_client() client found in server disconnect list " + std::to_string(times) +
           " times. caller should use disconnect_client() not free_client()\n";
  };
  join(3);
  s.disconnect_list = {0, 1, 0, 2};
  release(0);
  EXPECT_EQ(bug(2), log());
  s.client_next = 0;
  EXPECT_EQ(0u, join());
  EXPECT_EQ(nullptr, disconnected());
  EXPECT_EQ(&s.client[1], disconnected());
  comm_socket_v4_free_client_check(nullptr);
  comm_socket_v4_drop_clients(&s);
  EXPECT_EQ(bug(1), log());
  EXPECT_EQ((Numbers{16, 2}), (Numbers{s.client_allocation_count(), s.client_max}));
  EXPECT_TRUE(s.client[1].client_fd == -1 && hears_the_end(2));
  s.disconnect_list = {join()};
  comm_socket_v4_close(&s);
  EXPECT_EQ(bug(1), log());
  EXPECT_TRUE(s.client.empty() && s.disconnect_list.empty());
}

TEST_F(ClientsTest, MisuseIsReportedAndChangesNothing) {
  const Endpoint pair = make_endpoint(), closed = make_endpoint();
  EXPECT_EQ(0, comm_socket_v4_connect_new_socketpair(pair.get()));
  closed->flags.server = 1;
  join();
  comm_socket_v4_client stray = s.client[0];
  EXPECT_EQ(nullptr, comm_socket_v4_accept_connection(pair.get()));
  EXPECT_EQ(nullptr, comm_socket_v4_accept_connection(closed.get()));
  for (comm_socket_v4* const c : {pair.get(), closed.get(), &s}) {
    EXPECT_EQ(nullptr, comm_socket_v4_get_disconnected_client(c));
    stray.server = c;
    EXPECT_EQ(-1, comm_socket_v4_disconnect_client(&stray));
    EXPECT_TRUE(stray.client_is_open() && c->disconnect_list.empty());
  }
  EXPECT_EQ(nullptr, comm_socket_v4_client_find_empty_slot(pair.get()));
  EXPECT_EQ(nullptr, comm_socket_v4_get_disconnected_client(nullptr));
  s.client[0].server = pair.get();
  s.disconnect_list = {16, 5, 0};
  EXPECT_EQ(nullptr, disconnected());
  EXPECT_EQ(&s.client[5], disconnected()) << "what is odd is only mentioned";
  EXPECT_EQ(&s.client[0], disconnected());
  s.client[0].server = &s;
  EXPECT_EQ(R"(BUG: accept_connection() called on non-server object
BUG: accept_connection() called on closed socket
BUG: get_disconnected_client() on non-server object
BUG: client_disconnect_list_add with non-server object
BUG: get_disconnected_client() on closed object
BUG: client_disconnect_list_add with non-opened object
BUG: client_disconnect_list_add index to add is out of bounds (18446744073709551615 >= 16)
BUG: find_empty_slot() with flags.server==0
WARNING: get_disconnected_client() with nullptr object
BUG: get_disconnected_client() disconnect entry out of bounds
DEBUG: get_disconnected_client() client[5] socket already closed
DEBUG: get_disconnected_client() client[5]->server == nullptr
DEBUG: get_disconnected_client() client[0]->server != server
)",
            log());
}

}  // namespace
