// Processes that come, talk, misbehave, are killed and come back, against one server that sends
// back what it gets. It lasts a second, or COMM_CHURN_SECONDS.
#include <malloc.h>
#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <list>
#include <map>
#include <random>

#include "connections.h"

namespace {

class ChurnTest : public CommTest {
 protected:
  ChurnTest() {
    comm_socket_v4_shut_up(&s_);
    EXPECT_EQ(0, comm_socket_v4_create_server(&s_, path_.c_str()));
  }

  // Visitors for so long, and until the last one has left.
  void churn(unsigned long ms) {
    for (const unsigned long end = in_ms(ms); in_ms(0) < end; serve()) {
      if (visitors_.size() < 8) come();
      if (random(10) == 0) stop(visitors_.front());
    }
    for (Visitor& visitor : visitors_)
      if (!visitor.well_behaved) stop(visitor);
    const auto present = [](auto& client) { return client.client_fd >= 0; };
    for (const unsigned long late = in_ms(10000); in_ms(0) < late; serve())
      if (visitors_.empty() && std::none_of(s_.client.begin(), s_.client.end(), present)) return;
    ADD_FAILURE() << visitors_.size() << " visitors did not leave";
  }

  unsigned long served_ = 0;

 private:
  struct Visitor : Peer {
    Visitor(bool good, const std::function<void()>& visit) : Peer(visit, 100), well_behaved(good) {}
    const bool well_behaved;
    bool killed = false;
  };

  const std::string path_ = path();
  const Endpoint server_ = make_endpoint();
  comm_socket_v4& s_ = *server_;
  std::map<unsigned long, CommLargePacketQueue> answers_;
  std::list<Visitor> visitors_;
  std::minstd_rand random_;

  unsigned random(unsigned below) { return static_cast<unsigned>(random_()) % below; }
  std::string noise(unsigned longest) {
    std::string bytes(random(longest), '\0');
    for (char& byte : bytes) byte = static_cast<char>(random(256));
    return bytes;
  }

  void come() {
    const bool well_behaved = random(2) == 0;
    const auto visit = [this, well_behaved, seed = random(1u << 30)] {
      close_range(3, ~0u, 0);  // the server's
      random_.seed(seed);
      const Endpoint c = make_endpoint();
      EXPECT_EQ(0, comm_socket_v4_connect_to(c.get(), path_.c_str()));
      well_behaved ? behave(c.get()) : misbehave(c.get());
    };
    visitors_.emplace_back(well_behaved, visit);
  }
  static void stop(Visitor& visitor) {
    kill(visitor.pid(), SIGKILL);
    visitor.killed = true;
  }
  static bool has_left(Visitor& visitor) {
    siginfo_t info = {};
    waitid(P_PID, static_cast<id_t>(visitor.pid()), &info, WEXITED | WNOHANG | WNOWAIT);
    if (info.si_pid == 0) return false;
    const int status = visitor.wait();
    EXPECT_TRUE(status == 0 || (visitor.killed && status == 128 + SIGKILL)) << status;
    return true;
  }

  void serve() {
    EXPECT_LE(0, comm_socket_v4_server_from_client_readable(&s_, in_ms(1)));
    comm_socket_v4_accept_connection(&s_);
    comm_socket_v4_client* from = nullptr;
    while (const Packet p{comm_socket_v4_server_get_packet(&s_, &from)}) {
      answers_[comm_socket_v4_client_ptr2index(from)].send_packet(from, p.get());
      ++served_;
    }
    for (auto& [index, queue] : answers_) queue.flush_queued_packet(&s_.client[index]);
    while (comm_socket_v4_client* const gone = comm_socket_v4_get_disconnected_client(&s_)) {
      answers_.erase(comm_socket_v4_client_ptr2index(gone));
      comm_socket_v4_free_client(gone);
    }
    visitors_.remove_if(has_left);
  }

  // Asks and checks every answer.
  void behave(comm_socket_v4* c) {
    for (unsigned left = random(20); left > 0; --left) {
      const std::string data = noise(60000);
      const Packet sent = begin_request();
      sent->message_id = random(1000);
      sent->write_data_binary(reinterpret_cast<const unsigned char*>(data.data()), data.size());
      sent->write_end();
      carrier(random(4))->attached_fd.swap(sent->attached_fd);
      const Numbers files = files_of(sent);
      EXPECT_LT(0, comm_socket_v4_packet_send_to_server(c, sent.get()));
      EXPECT_EQ(1, comm_socket_v4_client_from_server_readable(c, in_ms(5000)));
      const Packet answer(comm_socket_v4_client_get_packet_from_server(c));
      ASSERT_NE(nullptr, answer);
      EXPECT_EQ(bytes_of(sent.get()), bytes_of(answer.get()));
      EXPECT_EQ(files, files_of(answer));
    }
  }

  // Sends what nobody should, with descriptors, and reads nothing.
  void misbehave(comm_socket_v4* c) {
    for (unsigned left = random(40); left > 0; --left) {
      std::string bytes = random(2) == 0 ? noise(70000) : bytes_of(ping_packet().get());
      if (random(2) == 0 && !bytes.empty()) bytes[random(94) % bytes.size()] ^= 0x55;
      const Packet p = exact_packet(bytes);
      p->write_state = comm_socket_v4_packet::write_state_end;
      carrier(random(4))->attached_fd.swap(p->attached_fd);
      comm_socket_v4_packet_send_to_server(c, p.get());
    }
    if (random(2) == 0) ::send(c->socket_fd, "", 0, MSG_NOSIGNAL);
    if (random(2) == 0) pause();
  }
};

TEST_F(ChurnTest, EveryAnswerIsRightAndNothingIsLeftBehind) {
  const char* const text = std::getenv("COMM_CHURN_SECONDS");
  const unsigned seconds = text != nullptr ? static_cast<unsigned>(std::atoi(text)) : 1;
  alarm(2 * seconds + 20);
  const auto memory = [] { return mallinfo2().uordblks + mallinfo2().hblkhd; };
  churn(seconds * 200ul);
  const std::size_t memory_before = memory();
  const std::vector<std::string> descriptors_before = open_descriptors();
  churn(seconds * 800ul);
  EXPECT_EQ(descriptors_before, open_descriptors());
  EXPECT_LE(memory(), memory_before + 65536);
  EXPECT_LT(10u, served_);
}

}  // namespace
