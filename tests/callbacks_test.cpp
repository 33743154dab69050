// What callbacks do to the connections around them, while a read, a pass or a send is under way.
#include <sys/socket.h>

#include <cerrno>

#include "tests/support.h"

namespace {

// A server with 16 clients and the means to do things from within a callback.
struct Crowd {
  Endpoint server = make_endpoint();
  std::vector<Endpoint> peers;
  Endpoint stranger = make_endpoint();
  Endpoint visitor = make_endpoint();  // connected, with a packet sent, and not accepted yet
  std::string path;

  explicit Crowd(const std::string& name) : path(name) {
    EXPECT_EQ(0, comm_socket_v4_create_server(server.get(), path.c_str()));
    for (int i = 0; i < 16; ++i) peers.push_back(join(server.get()).first);
    EXPECT_EQ(0, comm_socket_v4_connect_to(visitor.get(), path.c_str()));
    send(visitor);
  }
  static void send(const Endpoint& from) {
    EXPECT_EQ(94, comm_socket_v4_packet_send_to_server(from.get(), ping_packet().get()));
  }
  comm_socket_v4_client* slot(unsigned long index) const { return server->index2client(index); }
  bool delivers() const {
    return Packet(comm_socket_v4_server_get_packet(server.get(), nullptr)) != nullptr;
  }
};
Crowd* crowd;  // for the callbacks, which are plain functions

using CallbackTest = CommTest;

// Slot 2 is the first one of a window that is asked about at once; slot 5 is in it, and quiet then.
TEST_F(CallbackTest, APassSeesWhatACallbackDidToTheClientsBehindIt) {
  int (*const callbacks[])(comm_socket_v4_client*, comm_socket_v4_packet*) = {
      [](comm_socket_v4_client*, comm_socket_v4_packet*) {
        Crowd::send(crowd->peers[5]);
        return -1;
      },
      [](comm_socket_v4_client*, comm_socket_v4_packet*) {
        const int fd = crowd->slot(5)->client_fd;
        comm_socket_v4_free_client(crowd->slot(5));
        crowd->server->client_next = 5;
        EXPECT_EQ(fd, comm_socket_v4_accept_connection(crowd->server.get())->client_fd);
        return -1;
      }};
  for (const auto callback : callbacks) {
    Crowd c(path());
    crowd = &c;
    c.slot(2)->set_recv_cb(callback);
    Crowd::send(c.peers[2]);
    EXPECT_TRUE(c.delivers());
    EXPECT_FALSE(c.delivers());
  }
}

TEST_F(CallbackTest, AReadLeavesTheNextConnectionInItsSlotAlone) {
  Crowd c(path());
  crowd = &c;
  c.slot(2)->set_recv_cb([](comm_socket_v4_client* client, comm_socket_v4_packet*) {
    comm_socket_v4_free_client(client);
    crowd->server->client_next = 2;
    comm_socket_v4_client* const next = comm_socket_v4_accept_connection(crowd->server.get());
    EXPECT_EQ(client, next);
    next->set_recv_cb(nullptr);
    EXPECT_EQ(0, comm_socket_v4_client_idle(next));
    return -1;
  });
  Crowd::send(c.peers[2]);
  EXPECT_EQ(nullptr, comm_socket_v4_client_get_packet(c.slot(2)));
  ASSERT_NE(nullptr, c.slot(2)->next_packet);
  EXPECT_STREQ("ping", c.slot(2)->next_packet->command());
}

// The descriptor's number belongs to another connection by then.
TEST_F(CallbackTest, ASendFailsWhenTheCompletionCallbackEndedTheConnection) {
  Crowd c(path());
  crowd = &c;
  const Packet to_client = begin_request(), to_server = begin_request();
  to_client->set_complete_cb([](comm_socket_v4_packet*) {
    comm_socket_v4_free_client(crowd->slot(3));
    return comm_socket_v4_accept_connection(crowd->server.get()) != nullptr ? 0 : -1;
  });
  to_server->set_complete_cb([](comm_socket_v4_packet*) {
    comm_socket_v4_close(crowd->peers[4].get());
    return comm_socket_v4_connect_new_socketpair(crowd->stranger.get());
  });
  const StderrCapture quiet;
  EXPECT_EQ(-1, comm_socket_v4_packet_send_to_client(c.slot(3), to_client.get()));
  EXPECT_EQ(EBADF, errno);
  EXPECT_EQ(-1, comm_socket_v4_packet_send_to_server(c.peers[4].get(), to_server.get()));
  EXPECT_EQ(EBADF, errno);
  EXPECT_EQ(0, comm_socket_v4_idle(c.visitor.get()));
  EXPECT_EQ(nullptr, c.visitor->next_packet) << "the packet reached a stranger";
  char byte;
  EXPECT_EQ(-1, recv(c.stranger->socketpair_remote_fd, &byte, 1, MSG_DONTWAIT));
}

}  // namespace
