// A server with clients in one process, packets that carry descriptors, and their limit.
#ifndef COMM_TESTS_CONNECTIONS_H
#define COMM_TESTS_CONNECTIONS_H

#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include "support.h"

using Numbers = std::vector<unsigned long>;

// The number, and of a negative one errno: "-1 EAGAIN".
inline std::string answered(long answer) {
  return std::to_string(answer) + (answer < 0 ? std::string(" ") + strerrorname_np(errno) : "");
}

class ServerTest : public CommTest {
 protected:
  ServerTest() {
    comm_socket_v4_debug_logging(&s);
    open_server();
  }

  StderrCapture captured;
  const CommEndpoint server = make_endpoint();
  comm_socket_v4& s = *server;
  std::vector<CommEndpoint> peers;

  // The first client, and its record.
  comm_socket_v4* client() { return peers[0].get(); }
  comm_socket_v4_client* record() { return &s.client[0]; }
  // Without clients.
  void open_server() {
    peers.clear();
    EXPECT_EQ(0, comm_socket_v4_create_server(&s, abstract_name().c_str()));
  }
  // Connects one more client; its slot.
  unsigned long join() {
    auto [peer, index] = ::join(&s);
    peers.push_back(std::move(peer));
    return index;
  }
  void join(std::size_t until) {
    while (peers.size() < until) join();
  }
  // Connects one more, which is not accepted yet.
  void knock() {
    peers.push_back(make_endpoint());
    EXPECT_EQ(0, comm_socket_v4_connect_to(peers.back().get(), s.socket_path.c_str()));
  }
  comm_socket_v4_client* accept() { return comm_socket_v4_accept_connection(&s); }
  void release(unsigned long index) { comm_socket_v4_free_client(&s.client[index]); }
  int send_from(std::size_t peer, const CommPacket& p = ping_packet()) {
    return comm_socket_v4_packet_send_to_server(peers[peer].get(), p.get());
  }
  int send_to(unsigned long slot, const CommPacket& p = ping_packet()) {
    return comm_socket_v4_packet_send_to_client(&s.client[slot], p.get());
  }
  // That the server's end of the connection is closed.
  void expect_end(std::size_t peer) {
    await_end(peers[peer]->socket_fd);
    EXPECT_EQ("-1 ENOTCONN", answered(comm_socket_v4_idle(peers[peer].get())));
  }
  // What was printed since the last call, without the addresses of endpoints.
  std::string log() {
    std::string text;
    for (const std::string& line : captured.lines()) text += line + "\n";
    captured.clear();
    return text;
  }
};

// "ping" with data, so many bytes in all.
inline CommPacket sized(std::size_t length) {
  const std::vector<unsigned char> zeros(length - 68);
  CommPacket p = begin_request();
  p->write_data_binary(zeros.data(), zeros.size());
  p->write_end();
  return p;
}
// "ping" with the descriptors of so many new files.
inline CommPacket carrier(std::size_t files) {
  CommPacket p = ping_packet();
  for (; files > 0; --files) p->attached_fd.push_back(memfd_create("file", MFD_CLOEXEC));
  return p;
}
// What is attached, by inodes; 0 where a slot is empty.
inline Numbers files_of(const CommPacket& p) {
  Numbers files;
  struct stat file;
  for (const int fd : p->attached_fd) files.push_back(fstat(fd, &file) == 0 ? file.st_ino : 0);
  return files;
}

inline rlim_t lowest_free_descriptor() {
  const int fd = dup(0);
  close(fd);
  return static_cast<rlim_t>(fd);
}
// The answer of `body` while descriptors have to stay below `limit`.
template <class Body>
auto with_descriptor_limit(rlim_t limit, Body&& body) {
  rlimit before;
  getrlimit(RLIMIT_NOFILE, &before);
  const rlimit now = {limit, before.rlim_max};
  setrlimit(RLIMIT_NOFILE, &now);
  const auto answer = body();
  setrlimit(RLIMIT_NOFILE, &before);
  return answer;
}

#endif
