// The clients of a server: their table, how they come in, and how they are let go.
#include <climits>

#include "connections.h"
#include "lib/endpoint_internal.h"

namespace {

class ClientsTest : public ServerTest {
 protected:
  int disconnect(unsigned long i) { return comm_socket_v4_disconnect_client(&s.client[i]); }
  comm_socket_v4_client* disconnected() { return comm_socket_v4_get_disconnected_client(&s); }
  const std::function<bool()> accepts = [this] { return accept() != nullptr; };
};

// --- Table --------------------------------------------------------------------------------------

TEST_F(ClientsTest, Descriptor0IsOneLikeTheOthers) {
  const CommDescriptor standard_input(dup(0));
  knock();
  close(0);
  ASSERT_EQ(0, accept()->client_fd);
  send_from(0);
  EXPECT_NE(nullptr, retrieve(&s));
  Faults faults;
  EXPECT_EQ(Outcome(0, errno_before),
            outcome(faults.fail(Call::close, EIO), [this] { return release(0), 0; }));
  EXPECT_EQ(-1, fcntl(0, F_GETFD));
  EXPECT_TRUE(make_packet()->attach_fd_to_send(2)) << "as 0";
  EXPECT_EQ(-1, fcntl(0, F_GETFD));
  dup2(standard_input.get(), 0);
}

TEST_F(ClientsTest, AConnectionWaitsWhileTheTableCannotGrowByHalf) {
  join(16);
  s.client_idlescan = s.client.back().tag = 7;
  knock();
  const std::pair table(s.client.data(), s.client.size());
  Faults faults;
  EXPECT_EQ(Told(0, ENOMEM,
                 {"DEBUG: new_client() no empty slots available, expanding array",
                  "ERROR: expand_client_list() realloc failed",
                  "ERROR: new_client() unable to expand array"}),
            told(faults.fail(Call::operator_new, EIO), accepts));
  EXPECT_EQ(table, std::pair(s.client.data(), s.client.size()));
  EXPECT_EQ(0, comm_socket_v4_expand_client_list(&s, 1));
  EXPECT_EQ(&s.client[16], accept());
  EXPECT_EQ(17u, join());
  EXPECT_EQ((Numbers{26, 26, 17, 18, 7, 7}),
            (Numbers{s.client_allocation_count(), s.client.capacity(), s.client_maximum_index(),
                     s.client_next, s.client_idlescan, s.client[15].tag}));
  for (const unsigned long add : {0ul, 1048575ul - 26, ULONG_MAX})
    EXPECT_EQ(0, comm_socket_v4_expand_client_list(&s, add));
  EXPECT_EQ(Outcome(-1, ENOMEM), outcome([&] { return comm_socket_v4_expand_client_list(&s, 1); }));
  EXPECT_EQ(R"(DEBUG: expand_client_list() client list expanded to 17 entries
DEBUG: new_client() no empty slots available, expanding array
DEBUG: expand_client_list() client list expanded to 26 entries
DEBUG: expand_client_list() client list expanded to 26 entries
DEBUG: expand_client_list() client list expanded to 1048575 entries
DEBUG: expand_client_list() client list expanded to 1048576 entries
ERROR: expand_client_list() client list is already WAY TOO LONG
)",
            log());
  s.client_getpktscan = 1;
  comm_socket_v4_close(&s);
  EXPECT_EQ((Numbers{0, 0, 0, 0, 0}), (Numbers{s.client.capacity(), s.client_max, s.client_next,
                                               s.client_idlescan, s.client_getpktscan}));
}

TEST_F(ClientsTest, SlotsAreTakenInRotationAndFoundByIndex) {
  EXPECT_EQ(&s.client[0], s.index2client(0));
  EXPECT_EQ(nullptr, s.index2client(1));
  join(10);
  static comm_socket_v4_client below;  // in front of the heap, as a local is behind it
  comm_socket_v4_client above = below = s.client[3];
  release(3);
  for (const comm_socket_v4_client* const nowhere : {&below, &above, &s.client[3], {}})
    EXPECT_EQ(COMM_V4_NO_INDEX, comm_socket_v4_client_ptr2index_noerr(nowhere));
  EXPECT_EQ(10u, join());
  join(16);
  EXPECT_EQ(3u, join());
  release(15);
  comm_socket_v4_expand_client_list(&s, 8);
  EXPECT_EQ((Numbers{15, 4}), (Numbers{s.client_max, s.client_next}));
  EXPECT_EQ(&s.client[15], comm_socket_v4_index2client(&s, 15));
  EXPECT_EQ(nullptr, comm_socket_v4_index2client(&s, 16));
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
  ASSERT_EQ(&s.client[0], client);
  EXPECT_EQ(&s, client->get_server());
  EXPECT_LE(before, client->accept_time_us);
  EXPECT_LE(client->accept_time_us, in_ms(0));
  EXPECT_EQ(std::tuple(peer.pid(), getuid(), getgid()),
            std::tuple(client->cred.pid, client->cred.uid, client->cred.gid));
  EXPECT_EQ(O_NONBLOCK, fcntl(client->get_client_fd(), F_GETFL) & O_NONBLOCK);
  EXPECT_EQ(FD_CLOEXEC, fcntl(client->get_client_fd(), F_GETFD));
  EXPECT_FALSE(s.client_list_not_allocated());
  EXPECT_EQ("", log());
}

TEST_F(ClientsTest, AFailedAcceptClosesTheServerUnlessNothingWaits) {
  const std::string error = "ERROR: accept_connection() ";
  EXPECT_EQ(Told(0, EAGAIN, {}), told(accepts));
  EXPECT_EQ(1u, join()) << "the search has moved past slot 0";
  knock();
  Faults faults;
  EXPECT_EQ(Told(0, EIO, {error + "getsockopt(SO_PEERCRED) returned error Input/output error"}),
            told(faults.fail(Call::getsockopt, EIO), accepts));
  expect_end(1);
  EXPECT_EQ(-1, s.client[2].client_fd);
  EXPECT_EQ(1, comm_socket_v4_is_open(&s));
  EXPECT_EQ(Told(0, EMFILE, {error + "accept returned error Too many open files"}),
            told(faults.fail(Call::accept4, EMFILE), accepts));
  expect_end(0);
  EXPECT_EQ(0, comm_socket_v4_is_open(&s));
}

// --- Their end ----------------------------------------------------------------------------------

TEST_F(ClientsTest, AReleasedSlotKeepsOnlyTagAndCallback) {
  const auto fields = [](const comm_socket_v4_client& c) {
    return std::tuple(c.client_fd, c.server, c.next_packet, c.pending_response_packet, c.cred.pid,
                      c.accept_time_us, c.halt, unsigned{c.status.error});
  };
  join();
  comm_socket_v4_client& client = s.client[0];
  const CommPacket p = make_packet();
  p->refcount = 3;
  client.next_packet = client.pending_response_packet = p.get();
  client.halt = 1;
  client.status.error = 1;
  client.set_tag(7);
  client.set_recv_cb([](comm_socket_v4_client*, comm_socket_v4_packet*) { return -1; });
  release(0);
  release(0);
  expect_end(0);
  EXPECT_EQ(1, p->refcount);
  EXPECT_EQ(fields(comm_socket_v4_client()), fields(client));
  EXPECT_EQ(7u, client.get_tag());
  EXPECT_EQ(-1, client.recv_cb(&client, nullptr));
  EXPECT_EQ("", log());
}

TEST_F(ClientsTest, DisconnectedClientsComeOutOnceAndInOrderUnlessTheyWereReleased) {
  const std::string bug =
      "BUG: free_client() client found in server disconnect list 1 times. caller should use "
      "disconnect_client() not free_client()\n";
  join(5);
  s.client[3].status.error = 1;
  EXPECT_EQ((std::vector<int>{0, 0, 0, -1, -1}),  // the last two failed before, and are empty
            (std::vector<int>{disconnect(2), disconnect(0), disconnect(0), disconnect(3),
                              disconnect(5)}));
  peers[1].reset();
  await_end(s.client[1].client_fd);
  comm_socket_v4_idle(&s);
  release(0);
  EXPECT_EQ(
      "DEBUG: client_disconnect = 2\nDEBUG: client_disconnect = 0\n"
      "DEBUG: client_idle() client[1] fd=" +
          std::to_string(s.client[1].client_fd) + " disconnected\nDEBUG: client_disconnect = 1\n" +
          bug,
      log());
  s.client_next = 0;
  EXPECT_EQ(0u, join());
  for (comm_socket_v4_client* const listed : {&s.client[2], {}, &s.client[1], {}}) {
    EXPECT_EQ(listed, disconnected());
    if (listed == nullptr) continue;
    EXPECT_EQ(0, comm_socket_v4_client_is_open(listed));
    EXPECT_NE(-1, fcntl(listed->client_fd, F_GETFD));
  }
  comm_socket_v4_free_client_check(nullptr);
  comm_socket_v4_normal_logging(&s);
  disconnect(4);
  comm_socket_v4_drop_clients(&s);
  EXPECT_EQ(bug, log());
  expect_end(2);
  EXPECT_EQ((Numbers{16, 4}), (Numbers{s.client_allocation_count(), s.client_max}));
  disconnect(join());
  comm_socket_v4_close(&s);
  EXPECT_EQ(bug, log());
  EXPECT_EQ(0u, s.disconnect_list.size());
}

// A copy of a record is no client of the server, whatever becomes of that.
TEST_F(ClientsTest, MisuseIsReportedAndChangesNothing) {
  join();
  comm_socket_v4_client copy = s.client[0];
  const auto misuse = [&] {
    EXPECT_EQ(nullptr, accept());
    EXPECT_EQ(nullptr, disconnected());
    EXPECT_EQ(-1, comm_socket_v4_disconnect_client(&copy));
    EXPECT_TRUE(copy.client_is_open());
    EXPECT_EQ(0u, s.disconnect_list.size());
  };
  misuse();
  comm_socket_v4_close(&s);
  misuse();
  comm_socket_v4_connect_new_socketpair(&s);
  misuse();
  EXPECT_EQ(nullptr, comm_socket_v4_client_find_empty_slot(&s));
  EXPECT_EQ(nullptr, comm_socket_v4_get_disconnected_client(nullptr));
  EXPECT_EQ(
      R"(BUG: client_disconnect_list_add index to add is out of bounds (18446744073709551615 >= 16)
BUG: accept_connection() called on non-server object
BUG: get_disconnected_client() on closed object
BUG: client_disconnect_list_add with non-opened object
BUG: accept_connection() called on non-server object
BUG: get_disconnected_client() on non-server object
BUG: client_disconnect_list_add with non-server object
BUG: find_empty_slot() with flags.server==0
WARNING: get_disconnected_client() with nullptr object
)",
      log());
}

}  // namespace
